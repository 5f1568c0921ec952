// How the threads of a manager are stopped.
#include "frame/heap.h"
#include "frame/timings.h"
#include "machine.h"
#include "notify/thread_records.h"

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

// A second handle of the thread tells its end after the record has gone.
ThreadRecord* Start(Behaviour behaviour, HANDLE* thread) {
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
    *thread = record->thread;
    return record;
}

} // namespace

TEST(ThreadRecords, TheLastOneIsFound) {
    ThreadRecord second = {};
    ThreadRecord first = {};
    first.next = &second;
    EXPECT_EQ(FindLastRegistration(nullptr), nullptr);
    EXPECT_EQ(FindLastRegistration(&second), &second);
    EXPECT_EQ(FindLastRegistration(&first), &second);
}

TEST(ThreadRecords, AThreadThatObeysEndsItself) {
    InstallProduct();
    const Library library;
    HANDLE thread = nullptr;
    StopThreadRecord(Start(Behaviour::Obeys, &thread));
    EXPECT_EQ(g_ended, 1);
    StopThreadRecord(Start(Behaviour::Ended, &thread));
    EXPECT_EQ(g_ended, 2);
}

TEST(ThreadRecords, AThreadThatDoesNotIsTerminatedWhenItsTimeIsUp) {
    InstallProduct();
    const Library library;
    g_timings.cancelWait = 150;
    g_timings.closeWait = 300;
    HANDLE thread = nullptr;
    const double before = NowMs();
    StopThreadRecord(Start(Behaviour::Ignores, &thread));
    EXPECT_GE(NowMs() - before, 149);
    const double between = NowMs();
    StopThreadRecords(Start(Behaviour::Ignores, &thread));
    EXPECT_GE(NowMs() - between, 299);
    EXPECT_EQ(g_ended, 0);
}

TEST(ThreadRecords, AListIsToldBeforeItIsWaitedFor) {
    InstallProduct();
    const Library library;
    g_timings.closeWait = 60000; // nobody needs it
    HANDLE threads[4];
    ThreadRecord* head = Start(Behaviour::Obeys, &threads[0]);
    ThreadRecord* last = head;
    for (int i = 1; i < 4; ++i) {
        last->next = Start(i == 2 ? Behaviour::Ended : Behaviour::Obeys, &threads[i]);
        last = last->next;
    }
    EXPECT_EQ(FindLastRegistration(head), last);
    // The last one's end is known from outside: all were told, though the first was waited for first.
    StopThreadRecords(head);
    EXPECT_EQ(g_ended, 4);
    StopThreadRecords(nullptr);
}

// With a manager: its close stops them.
TEST(ThreadRecords, AManagersCloseStopsItsThreads) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    HANDLE thread = nullptr;
    ThreadRecord* record = Start(Behaviour::Obeys, &thread);
    {
        const ManagerLockHold lock;
        FindManager(manager)->registrations = record;
    }
    EXPECT_EQ(CloseManager(manager), TVS_OK);
    EXPECT_EQ(g_ended, 1);
}
