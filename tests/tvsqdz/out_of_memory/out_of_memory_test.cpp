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

using OutOfMemory = OpenedReady;

} // namespace

TEST_F(OutOfMemory, AnOpenFailsCleanlyAtEachAllocation) {
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
    EXPECT_EQ(g_openManagerCount, 1u);
    // Every printer that was begun can be opened now, has all of its variables, and is nobody's.
    for (int i = 1; i <= printers; ++i) {
        const TvsManager opened = OpenPrinter(2, "Printer " + std::to_string(i));
        EXPECT_EQ(RecordOf(opened)->ownerProcessId, 0u) << i;
        EXPECT_EQ(NumberOf(opened, "ModelNumber"), 7u) << i;
        EXPECT_EQ(CloseManager(opened), TVS_OK);
    }
    // The first open of a machine: as many as there are until the list is made.
    for (int n = 1; n < 14; ++n) {
        RestartService();
        g_allocations = 0;
        g_failAt = n;
        OpenStatus("Printer 1", 2);
        g_failAt = 0;
        EXPECT_EQ(OpenStatus("Printer 1", 2), TVS_OK) << n;
    }
}

TEST_F(OutOfMemory, CallsFailWithTheirCode) {
    AddModelVariable("Big Model", "Big", 600, 0x10120, Bytes(600, 'b'));
    AddModelVariable("Big Model", "Q", 4, 0x10080, {0, 0, 0, 0});
    AddPrinter("Other", "Big Model");
    manager = OpenPrinter(2, "Other");
    const Bytes queue = Joined({Number(4 + 40), Number(10), Bytes(40, 'i')});
    EXPECT_EQ(
        CreateVariable(RecordOf(manager)->printerDatabase.handle, "Q", product::kTypeVariableLength, 48, queue.data()),
        Answer::Done);
    int names = 0;
    int taken = 0;
    int32_t result = 0;
    uint32_t size = 0;
    TvsJobQueueWide jobs = {.count = 1, .entries = {}};
    const std::function<int32_t()> none[] = {
        // Ordinary values cost no allocation; large ones one.
        [&] { return Read(manager, "PrinterName", 300).status; },
        [&] { return Update(manager, "JobStatus", Number(1)); },
    };
    for (const auto& run : none)
        EXPECT_EQ(FailEach(run, {}), 0) << &run - none;
    const std::function<int32_t()> some[] = {
        [&] { return Read(manager, "Big", 600).status; },
        [&] { return Update(manager, "Big", Bytes(600, 'c')); },
        // Of a wide queue each form has its buffer.
        [&] { return UpdatePrinterStatusW(manager, WIDE("SpoolerQueue"), &jobs, sizeof jobs); },
        [&] { return GetPrinterStatusW(manager, WIDE("SpoolerQueue"), &jobs, sizeof jobs, &size); },
        // A report of a job, the change of a name. What is counted without memory is 0.
        [&] { return Update(manager, "SendingJobInfo", Bytes(292, 1)); },
        [&] { return Read(manager, "PrintingMyJob", 4).status; },
        [&] { return Update(manager, "PrinterName", BytesOf("Name " + std::to_string(++names))); },
        [&] { return ResSetPrinterStatus(manager, 1, &result); },
        // A list of which one variable has a registration of its own.
        [&] {
            HANDLE const events[] = {nullptr, nullptr};
            TvsRegistration handle = 0;
            const int32_t status = SetNotificationEventExA(manager, 2, "PrinterStatus;PageCount", events, &handle);
            EXPECT_EQ(KillNotificationEvent(manager, handle), status == TVS_OK ? TVS_OK : TVS_E_HANDLE);
            const ManagerLockHold lock;
            EXPECT_EQ(FindManager(manager)->registrations, nullptr);
            return status;
        },
        // An item that could not be read is still there.
        [&] {
            const int32_t status = Read(manager, "Q", 4).status;
            taken += status == TVS_OK;
            return status;
        },
    };
    for (const auto& run : some)
        EXPECT_GT(FailEach(run, {TVS_E_MEMORY, TVS_OK}), 0) << &run - some;
    for (; Read(manager, "Q", 4).returnedSize > 0; ++taken) {
    }
    EXPECT_EQ(taken, 10);
}

// What cannot be started is answered, and leaves no entry and no number; what was started comes to its result.
TEST_F(OutOfMemory, ARequestIsRefusedOrCarriedOut) {
    g_timings.answerBound = 1; // nobody answers
    g_timings.memoryPause = 1;
    const HANDLE event = NewEvent();
    for (const bool write : {true, false}) {
        const auto start = [&] {
            uint32_t number = 0;
            const uint32_t value = 2;
            const int32_t status =
                write ? SetReqPrinterStatusEventA(manager, "DNumber", &value, sizeof value, event, &number)
                      : GetReqPrinterStatusEventA(manager, "DNumber", event);
            EXPECT_EQ(IsSet(event, status == TVS_OK ? 10000 : 0), status == TVS_OK);
            EXPECT_TRUE(status == TVS_OK || number == 0);
            g_failAt = 0;
            EXPECT_EQ(ResultOf(manager, number), number != 0 ? TVS_E_REQUEST_LOCK : TVS_E_UNKNOWN);
            EXPECT_EQ(StoredBytes(database, "ReqResult"), Joined({Number(4), Number(0)}));
            return status;
        };
        EXPECT_GT(FailEach(start, {TVS_E_MEMORY, TVS_OK}), 0);
    }
}

TEST(OutOfMemoryAttach, WithoutAHeapsMemoryIsInert) {
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
