// Every allocation of the library made to fail, one after the other.
#include "machine.h"

#include <algorithm>
#include <functional>

namespace {

int g_allocations;
int g_failAt; // 0: none

} // namespace

extern "C" {
LPVOID WINAPI __real_HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);
LPVOID WINAPI __wrap_HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);
LPVOID WINAPI __wrap_HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
    ++g_allocations;
    return g_allocations == g_failAt ? nullptr : __real_HeapAlloc(heap, flags, bytes);
}
}

namespace {

// Runs it with the n-th allocation failing, n = 1, 2, ... until it needs no more than n. `allowed` are its statuses
// with a failure; without one it must be TVS_OK.
int FailEach(const std::function<int32_t()>& run, const std::vector<int32_t>& allowed) {
    for (int n = 1;; ++n) {
        g_allocations = 0;
        g_failAt = n;
        const int32_t status = run();
        g_failAt = 0;
        if (g_allocations < n) {
            EXPECT_EQ(status, TVS_OK);
            return n - 1;
        }
        EXPECT_NE(std::find(allowed.begin(), allowed.end(), status), allowed.end()) << status << " at allocation " << n;
        // The next call, with memory, works.
        EXPECT_EQ(run(), TVS_OK) << "after allocation " << n;
    }
}

} // namespace

TEST(OutOfMemory, AnOpenFailsCleanlyAtEachAllocation) {
    const Product product;
    AddModelVariable(kModel, "Text", 4, 0x10008, BytesOf("abc"));
    AddModelVariable(kModel, "Sum", 12, 0x10040, BytesOf("ModelNumber"));
    int printers = 0;
    // A new printer each time, so that its entry and its database are made under the failure too; and for the owner.
    const int allocations = FailEach(
        [&] {
            const std::string printer = "Printer " + std::to_string(++printers);
            AddPrinter(printer, kModel);
            return OpenStatus(printer, 6);
        },
        {TVS_E_MEMORY, TVS_E_UNAVAILABLE, TVS_OK});
    EXPECT_GT(allocations, 10);
    EXPECT_EQ(g_openManagerCount, 0u);
    // Every printer that was begun can be opened now, and has all of its variables. The close that could not read the
    // list could not give the printer up either; no other keeps it.
    int kept = 0;
    for (int i = 1; i <= printers; ++i) {
        const TvsManager manager = OpenPrinter(2, "Printer " + std::to_string(i));
        kept += RecordOf(manager)->ownerProcessId != 0;
        EXPECT_EQ(NumberOf(manager, "ModelNumber"), 7u) << i;
        EXPECT_EQ(Read(manager, "Sum", 4).status, TVS_OK) << i;
        EXPECT_EQ(CloseManager(manager), TVS_OK);
    }
    EXPECT_LE(kept, 1);
}

TEST(OutOfMemory, TheFirstOpenOfAMachineFailsCleanly) {
    SetUpProduct();
    for (int n = 1; n < 14; ++n) { // as many as there are until the list is made
        const Library library;
        Service service;
        g_allocations = 0;
        g_failAt = n;
        OpenStatus(kPrinter, 2);
        g_failAt = 0;
        EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_OK) << n;
        service.process.Kill();
    }
}

TEST(OutOfMemory, CallsFailWithTheirCode) {
    const Product product;
    AddModelVariable(kModel, "Big", 600, 0x10120, Bytes(600, 'b'));
    AddModelVariable(kModel, "Queue", 4, 0x10080, {0, 0, 0, 0});
    const TvsManager manager = OpenPrinter();
    const DatabaseHandle database = RecordOf(manager)->printerDatabase;
    const Bytes queue = Joined({Number(4 + 40), Number(10), Bytes(40, 'i')});
    EXPECT_EQ(CreateVariable(database, "Queue", dblink::kTypeVariableLength, 48, queue.data()), Answer::Done);
    const auto none = [&](const std::function<int32_t()>& run) { EXPECT_EQ(FailEach(run, {}), 0); };
    const auto some = [&](const std::function<int32_t()>& run) { EXPECT_GT(FailEach(run, {TVS_E_MEMORY, TVS_OK}), 0); };
    // Ordinary values cost no allocation; large ones one.
    none([&] { return Read(manager, "PrinterName", 300).status; });
    none([&] { return Update(manager, "JobStatus", Number(1)); });
    none([&] { return Read(manager, "PrinterQueue", 100).status; });
    some([&] { return Read(manager, "Big", 600).status; });
    some([&] { return Update(manager, "Big", Bytes(600, 'c')); });
    int32_t result = 0;
    some([&] { return ResSetPrinterStatus(manager, 1, &result); });
    // A list of which one variable has a registration of its own.
    some([&] {
        HANDLE const events[] = {nullptr, nullptr};
        TvsRegistration handle = 0;
        const int32_t status = SetNotificationEventExA(manager, 2, "PrinterStatus;ModelNumber", events, &handle);
        if (status == TVS_OK) {
            EXPECT_EQ(KillNotificationEvent(manager, handle), TVS_OK);
        }
        const ManagerLockHold lock;
        EXPECT_EQ(FindManager(manager)->registrations, nullptr);
        return status;
    });
    // An item that could not be read is still there.
    const int before = 10;
    int taken = 0;
    some([&] {
        const int32_t status = Read(manager, "Queue", 4).status;
        taken += status == TVS_OK;
        return status;
    });
    int left = 0;
    while (Read(manager, "Queue", 4).returnedSize > 0)
        ++left;
    EXPECT_EQ(taken + left, before);
}

TEST(OutOfMemory, AnAttachWithoutAHeapsMemoryIsInert) {
    SetUpProduct();
    for (int n = 1; n < 10; ++n) {
        g_allocations = 0;
        g_failAt = n;
        const bool attached = AttachProcess(nullptr);
        g_failAt = 0;
        EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_UNAVAILABLE); // no service either way
        DetachProcess();
        if (g_allocations < n) {
            EXPECT_TRUE(attached);
            return;
        }
    }
    FAIL() << "an attach makes few allocations";
}
