// Thread queues: their lifetime with threads, processes and forks; reading and answering.
#include "window/thread_queue.h"

#include "base/call.h"
#include "base/lock.h"
#include "base/steps.h"
#include "base/thread_end.h"
#include "window/window_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <errhandlingapi.h>
#include <oriel_poll.h>
#include <processthreadsapi.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

namespace oriel {
namespace {

// Every queue of the process. Never destroyed: other threads may run on while the process exits.
struct QueueTable {
    Lock lock;
    std::vector<ThreadQueue*> queues ORIEL_LOCK_CHECK(guarded_by(lock));
};

QueueTable& Queues() {
    static QueueTable& table = *new QueueTable;
    return table;
}

thread_local ThreadQueue* t_queue = nullptr;

// A thread that ends destroys its windows.
const ThreadEnd kQueueEnd([](void*) {
    const TerminationHold untilDone;
    ThreadQueue* queue = std::exchange(t_queue, nullptr);
    if (queue == nullptr) return;
    while (!queue->windows.empty())
        DropWindow(*queue, queue->windows.back());
    {
        const LockHold hold(Queues().lock);
        std::erase(Queues().queues, queue);
    }
    delete queue;
});

// For a process that calls exit() while other threads still have windows.
void RemoveAllWindows() {
    const LockHold hold(Queues().lock);
    for (const ThreadQueue* queue : Queues().queues)
        for (const auto& window : queue->windows)
            RemoveWindow(HandleNumber(window->handle));
}

bool Watch(const ThreadQueue& queue, int descriptor) {
    epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
    return epoll_ctl(queue.poll.Get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

MSG ToMessage(const PipeMessage& message) {
    return {.hwnd = ULongToHandle(message.window),
            .message = message.message,
            .wParam = static_cast<WPARAM>(message.wParam),
            .lParam = static_cast<LPARAM>(message.lParam),
            .time = message.time,
            .pt = {}};
}

// A fork child has no windows. It closes its parent's FIFOs; otherwise they would outlive the parent as windows that
// nobody serves. The queues are left alone, because the fork may have happened inside a procedure.
void ForgetParentsWindows() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    for (ThreadQueue* queue : Queues().queues) {
        for (const auto& window : queue->windows)
            window->fifo.Close();
        queue->poll.Close();
        queue->bell.Close();
        queue->windows.clear();
    }
    Queues().queues.clear();
    t_queue = nullptr;
    Queues().lock.ForgetOwner();
}

} // namespace

constinit const ForkSteps kWindowQueuesFork{
    []() ORIEL_LOCK_CHECK(no_thread_safety_analysis) { Queues().lock.Acquire(); },
    []() ORIEL_LOCK_CHECK(no_thread_safety_analysis) { Queues().lock.Release(); }, ForgetParentsWindows};

ThreadQueue* OwnQueue() {
    return t_queue;
}

ThreadQueue* MakeOwnQueue() {
    if (t_queue != nullptr) return t_queue;
    auto queue = std::make_unique<ThreadQueue>();
    queue->threadId = GetCurrentThreadId();
    queue->poll = Descriptor(epoll_create1(EPOLL_CLOEXEC));
    queue->bell = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!queue->poll.IsOpen() || !queue->bell.IsOpen() || !Watch(*queue, queue->bell.Get()))
        return Fail(ERROR_TOO_MANY_OPEN_FILES, nullptr);
    WatchForFork();
    static const int atExit = std::atexit(RemoveAllWindows);
    (void)atExit; // when out of memory, the next search removes them
    if (!kQueueEnd.Arm()) return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    const LockHold hold(Queues().lock);
    Queues().queues.push_back(queue.get());
    t_queue = queue.release();
    return t_queue;
}

std::shared_ptr<Window> FindOwnWindow(ThreadQueue* queue, HWND handle) {
    if (queue == nullptr) return nullptr;
    for (const auto& window : queue->windows)
        if (window->handle == handle) return window;
    return nullptr;
}

bool AddWindow(ThreadQueue& queue, const std::shared_ptr<Window>& window) {
    if (!Watch(queue, window->fifo.Get())) return Fail(ERROR_NOT_ENOUGH_MEMORY, false);
    const LockHold hold(Queues().lock);
    queue.windows.push_back(window);
    return true;
}

void DropWindow(ThreadQueue& queue, const std::shared_ptr<Window>& dropped) {
    const TerminationHold untilDone;
    const std::shared_ptr<Window> window = dropped; // the argument may be the list's own
    RemoveWindow(HandleNumber(window->handle));
    epoll_ctl(queue.poll.Get(), EPOLL_CTL_DEL, window->fifo.Get(), nullptr);
    {
        const LockHold hold(Queues().lock);
        std::erase(queue.windows, window);
    }
    std::erase_if(queue.posted, [&](const MSG& message) { return message.hwnd == window->handle; });
}

void DropWindowsOfStoppedThread(DWORD threadId) {
    const LockHold hold(Queues().lock);
    for (ThreadQueue* queue : Queues().queues) {
        if (queue->threadId != threadId) continue;
        // Its stack may still hold windows; they are released here.
        for (const auto& window : queue->windows) {
            RemoveWindow(HandleNumber(window->handle));
            window->fifo.Close();
        }
        queue->windows.clear();
        queue->poll.Close();
        queue->bell.Close();
        std::erase(Queues().queues, queue);
        return;
    }
}

bool IsFull(const ThreadQueue& queue) {
    return queue.posted.size() + queue.sent.size() >= kMostWaitingMessages;
}

void Collect(ThreadQueue& queue) {
    const TerminationHold untilDone;
    // One FIFO at a time, so that a writer of endless garbage cannot keep the thread here.
    constexpr int kMostPieces = 64 * 1024 / (MessageReader::kMessagesAtOnce * sizeof(PipeMessage)) + 1;
    for (const auto& window : queue.windows) {
        bool more = true;
        for (int pieces = 0; more && pieces < kMostPieces && !IsFull(queue); ++pieces) {
            queue.arrived.clear();
            more = window->reader.Read(window->fifo, HandleNumber(window->handle), queue.arrived);
            for (const PipeMessage& message : queue.arrived) {
                if (message.replyTo != 0)
                    queue.sent.push_back(message);
                else
                    queue.posted.push_back(ToMessage(message));
            }
        }
    }
}

void AnswerSent(ThreadQueue& queue) {
    while (!queue.sent.empty()) {
        const PipeMessage message = queue.sent.front();
        queue.sent.pop_front();
        const std::shared_ptr<Window> window = FindOwnWindow(&queue, ULongToHandle(message.window));
        if (window == nullptr) continue;
        const Descriptor reply = OpenFifo(Fifo::Reply, message.replyTo);
        if (!reply.IsOpen()) continue; // the requester has given up
        const LRESULT result = window->procedure(window->handle, message.message, static_cast<WPARAM>(message.wParam),
                                                 static_cast<LPARAM>(message.lParam));
        WriteAnswer(reply, {kAnswerMagic, message.secret, static_cast<ULONGLONG>(result)});
    }
}

void SetBell(ThreadQueue& queue, bool ring) {
    if (queue.rung == ring) return;
    // Neither can fail: the counter is 0 or 1.
    eventfd_t count = 0;
    if (ring)
        eventfd_write(queue.bell.Get(), 1);
    else
        eventfd_read(queue.bell.Get(), &count);
    queue.rung = ring;
}

} // namespace oriel

int WINAPI OrielWindowQueueDescriptor() {
    using namespace oriel;
    return WaitingCall(-1, [] {
        const ThreadQueue* queue = MakeOwnQueue();
        return queue != nullptr ? queue->poll.Get() : -1;
    });
}
