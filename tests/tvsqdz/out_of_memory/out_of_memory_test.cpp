// Every allocation of the library made to fail, one after the other.
#include "base/timings.h"
#include "machine.h"
#include "wide_literal.h"

#include <algorithm>
#include <atomic>
#include <functional>

namespace {

std::atomic<int> g_allocations; // of all threads
std::atomic<int> g_failAt;      // 0: none

} // namespace

extern "C" {
LPVOID WINAPI __real_HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);
LPVOID WINAPI __wrap_HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);
LPVOID WINAPI __wrap_HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
    return ++g_allocations == g_failAt ? nullptr : __real_HeapAlloc(heap, flags, bytes);
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
    g_timings.memoryPause = 1;
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
    // Every printer that was begun can be opened now, has all of its variables, and is nobody's.
    for (int i = 1; i <= printers; ++i) {
        const TvsManager manager = OpenPrinter(2, "Printer " + std::to_string(i));
        EXPECT_EQ(RecordOf(manager)->ownerProcessId, 0u) << i;
        EXPECT_EQ(NumberOf(manager, "ModelNumber"), 7u) << i;
        EXPECT_EQ(Read(manager, "Sum", 4).status, TVS_OK) << i;
        EXPECT_EQ(CloseManager(manager), TVS_OK);
    }
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
    const DatabaseHandle database = RecordOf(manager)->printerDatabase.handle;
    const Bytes queue = Joined({Number(4 + 40), Number(10), Bytes(40, 'i')});
    EXPECT_EQ(CreateVariable(database, "Queue", product::kTypeVariableLength, 48, queue.data()), Answer::Done);
    const auto none = [&](const std::function<int32_t()>& run) { EXPECT_EQ(FailEach(run, {}), 0); };
    const auto some = [&](const std::function<int32_t()>& run) { EXPECT_GT(FailEach(run, {TVS_E_MEMORY, TVS_OK}), 0); };
    // Ordinary values cost no allocation; large ones one.
    none([&] { return Read(manager, "PrinterName", 300).status; });
    none([&] { return Update(manager, "JobStatus", Number(1)); });
    none([&] { return Read(manager, "PrinterQueue", 100).status; });
    some([&] { return Read(manager, "Big", 600).status; });
    some([&] { return Update(manager, "Big", Bytes(600, 'c')); });
    // So with wide forms; of a queue each form has its buffer.
    uint32_t size = 0;
    TvsJobRecordWide job = {};
    TvsJobQueueWide jobs = {.count = 1, .entries = {}};
    none([&] { return GetPrinterStatusW(manager, WIDE("SendingJobInfo"), &job, sizeof job, &size); });
    some([&] { return UpdatePrinterStatusW(manager, WIDE("SpoolerQueue"), &jobs, sizeof jobs); });
    some([&] { return GetPrinterStatusW(manager, WIDE("SpoolerQueue"), &jobs, sizeof jobs, &size); });
    // A report of a job, the change of a name. What is counted without memory is 0.
    some([&] { return Update(manager, "SendingJobInfo", Bytes(292, 1)); });
    some([&] { return Update(manager, "PrintingJobInfo", Bytes(296)); });
    some([&] { return Read(manager, "PrintingMyJob", 4).status; });
    int names = 0;
    some([&] { return Update(manager, "PrinterName", BytesOf("Name " + std::to_string(++names))); });
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

// What cannot be started is answered, and leaves no entry and no number; what was started comes to its result.
TEST(OutOfMemory, ARequestIsRefusedOrCarriedOut) {
    const Product product;
    g_timings.answerBound = 1; // nobody answers
    g_timings.memoryPause = 1;
    AddModelVariable(kModel, "DNumber", 4, 0x30204, Number(1));
    TvsManager manager = 0; // of a user who may do everything
    EXPECT_EQ(OpenManagerExA(kPrinter.c_str(), "\\\\.\\kptmon", 2, &manager), TVS_OK);
    EXPECT_EQ(Update(manager, "PrinterExtStatus", Number(1)), TVS_OK);
    EXPECT_EQ(Update(manager, "SpoolerStatus", Number(4)), TVS_OK);
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const std::function<int32_t(uint32_t*)> forms[] = {
        [&](uint32_t* number) {
            const uint32_t value = 2;
            return SetReqPrinterStatusEventA(manager, "DNumber", &value, sizeof value, event, number);
        },
        [&](uint32_t*) { return GetReqPrinterStatusEventA(manager, "DNumber", event); }};
    for (const auto& start : forms) {
        const int allocations = FailEach(
            [&] {
                uint32_t number = 0;
                int32_t result = 0;
                const int32_t status = start(&number);
                if (status == TVS_OK) {
                    EXPECT_EQ(WaitForSingleObject(event, 10000), DWORD{WAIT_OBJECT_0});
                }
                if (number != 0) {
                    g_failAt = 0;
                    EXPECT_EQ(ResSetPrinterStatus(manager, number, &result), TVS_OK);
                    EXPECT_EQ(result, TVS_E_REQUEST_LOCK);
                }
                EXPECT_TRUE(status == TVS_OK || number == 0);
                DWORD size = 0;
                EXPECT_EQ(ReadVariable(RecordOf(manager)->printerDatabase, "ReqResult", nullptr, 0, &size),
                          Answer::Done);
                EXPECT_EQ(size, 8u) << "the empty list";
                return status;
            },
            {TVS_E_MEMORY, TVS_OK});
        EXPECT_GT(allocations, 0);
    }
    CloseHandle(event);
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
