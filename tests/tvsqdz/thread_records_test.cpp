// How the threads of a manager are stopped.
#include "base/memory.h"
#include "base/timings.h"
#include "machine.h"
#include "manager/thread_records.h"

namespace {

enum class Behaviour { Obeys, Ended, Ignores };

struct Worker {
    HANDLE stopEvent;
    HANDLE started;
    Behaviour behaviour;
};

std::atomic<int> g_ended;

DWORD WINAPI Work(void* parameter) {
    const Worker worker = *static_cast<Worker*>(parameter);
    SetEvent(worker.started);
    if (worker.behaviour == Behaviour::Obeys) WaitForSingleObject(worker.stopEvent, INFINITE);
    if (worker.behaviour == Behaviour::Ignores)
        for (;;)
            Sleep(1000);
    ++g_ended;
    return 0;
}

ThreadRecord* Start(Behaviour behaviour) {
    auto* record = static_cast<ThreadRecord*>(AllocateZeroed(sizeof(ThreadRecord)));
    record->stopEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    Worker worker = {record->stopEvent, CreateEventA(nullptr, TRUE, FALSE, nullptr), behaviour};
    DWORD id = 0;
    record->thread = CreateThread(nullptr, 65536, Work, &worker, 0, &id);
    record->threadId = id;
    EXPECT_EQ(WaitForSingleObject(worker.started, 10000), DWORD{WAIT_OBJECT_0});
    CloseHandle(worker.started);
    if (behaviour == Behaviour::Ended) {
        EXPECT_EQ(WaitForSingleObject(record->thread, 10000), DWORD{WAIT_OBJECT_0});
    }
    return record;
}

} // namespace

TEST(ThreadRecords, AThreadThatObeysEndsItselfAndAnotherIsTerminatedWhenItsTimeIsUp) {
    InstallProduct();
    const Library library;
    StopThreadRecord(Start(Behaviour::Obeys));
    EXPECT_EQ(g_ended, 1);
    StopThreadRecord(Start(Behaviour::Ended));
    EXPECT_EQ(g_ended, 2);
    g_timings.cancelWait = 150;
    g_timings.closeWait = 300;
    const double before = NowMs();
    StopThreadRecord(Start(Behaviour::Ignores));
    EXPECT_GE(NowMs() - before, 149);
    const double between = NowMs();
    StopThreadRecords(Start(Behaviour::Ignores));
    EXPECT_GE(NowMs() - between, 299);
    EXPECT_EQ(g_ended, 2);
}

// A manager's close stops all of its threads, and tells each before it waits for one.
TEST(ThreadRecords, AManagersCloseStopsItsThreads) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    g_timings.closeWait = 60000; // nobody needs it
    ThreadRecord* head = Start(Behaviour::Obeys);
    ThreadRecord* last = head;
    for (int i = 1; i < 4; ++i) {
        last->next = Start(i == 2 ? Behaviour::Ended : Behaviour::Obeys);
        last = last->next;
    }
    EXPECT_EQ(FindLastRegistration(nullptr), nullptr);
    EXPECT_EQ(FindLastRegistration(head), last);
    {
        const ManagerLockHold lock;
        FindManager(manager)->registrations = head;
    }
    EXPECT_EQ(CloseManager(manager), TVS_OK);
    EXPECT_EQ(g_ended, 4);
}
