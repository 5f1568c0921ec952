// Posting, reading and dispatching messages, and sending, which is a message with an answer: the sender opens a FIFO
// for the answer and names it in the message. State: the queues (thread_queue.cpp).
#include "base/call.h"
#include "base/futex.h"
#include "window/thread_queue.h"
#include "window/window_files.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <errhandlingapi.h>
#include <poll.h>
#include <synchapi.h>
#include <sys/epoll.h>
#include <sys/random.h>

namespace oriel {
namespace {

// System messages whose parameters are addresses, ascending: text, sizes, styles, drawing, creation, copied data.
constexpr UINT kPointerMessages[] = {0x001, 0x00c, 0x00d, 0x01a, 0x01b, 0x024, 0x02b, 0x02c, 0x02d, 0x039, 0x046,
                                     0x047, 0x04a, 0x04e, 0x053, 0x07c, 0x07d, 0x081, 0x083, 0x214, 0x216};
static_assert(std::is_sorted(std::begin(kPointerMessages), std::end(kPointerMessages)));

struct Filter {
    HWND window;
    UINT lowest;
    UINT highest;
};

bool Passes(const MSG& message, const Filter& filter) {
    if (filter.window != nullptr && message.hwnd != filter.window) return false;
    if (message.message == WM_QUIT || (filter.lowest == 0 && filter.highest == 0)) return true;
    return message.message >= filter.lowest && message.message <= filter.highest;
}

enum class Found { Message, Nothing, Failure };

Found Failure(DWORD error) {
    SetLastError(error);
    return Found::Failure;
}

bool TakeWaiting(ThreadQueue& queue, const Filter& filter, bool remove, MSG& message) {
    const auto found = std::find_if(queue.posted.begin(), queue.posted.end(),
                                    [&](const MSG& waiting) { return Passes(waiting, filter); });
    if (found != queue.posted.end()) {
        message = *found;
        if (remove) queue.posted.erase(found);
        return true;
    }
    if (!queue.quit) return false;
    message = {.message = WM_QUIT, .wParam = static_cast<WPARAM>(queue.exitCode), .time = GetTickCount()};
    if (remove) queue.quit = false;
    return true;
}

bool SomethingWaits(const ThreadQueue& queue) {
    return queue.quit || !queue.posted.empty() || !queue.sent.empty();
}

// Unbounded, as GetMessageA is.
void WaitForArrival(const ThreadQueue& queue) {
    epoll_event event;
    while (epoll_wait(queue.poll.Get(), &event, 1, -1) < 0 && errno == EINTR) {
    }
}

Found Next(MSG* message, const Filter& filter, bool remove, bool wait) {
    if (message == nullptr || filter.lowest > filter.highest) return Failure(ERROR_INVALID_PARAMETER);
    ThreadQueue* queue = MakeOwnQueue();
    if (queue == nullptr) return Found::Failure;
    for (;;) {
        Collect(*queue);
        AnswerSent(*queue);
        // A procedure may have destroyed the window.
        if (filter.window != nullptr && FindOwnWindow(queue, filter.window) == nullptr)
            return Failure(ERROR_INVALID_WINDOW_HANDLE);
        MSG found;
        const bool any = TakeWaiting(*queue, filter, remove, found);
        if (any) *message = found;
        if (any || !wait) {
            SetBell(*queue, SomethingWaits(*queue));
            return any ? Found::Message : Found::Nothing;
        }
        // The limit of waiting messages is reached, none passes the filter, and nothing more can come in.
        if (IsFull(*queue)) return Failure(ERROR_NOT_ENOUGH_QUOTA);
        // Waiting messages that do not pass the filter must not end the wait.
        SetBell(*queue, false);
        WaitForArrival(*queue);
    }
}

// True when the message may leave its thread and the handle may be a window's; else false with the last error set.
bool CheckMessage(HWND window, UINT message) {
    if (message > kHighestMessage) return Fail(ERROR_INVALID_PARAMETER, false);
    if (std::binary_search(std::begin(kPointerMessages), std::end(kPointerMessages), message))
        return Fail(ERROR_MESSAGE_SYNC_ONLY, false);
    if (!IsWindowNumber(window)) SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    return IsWindowNumber(window);
}

PipeMessage MakePipeMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    return {.magic = kMessageMagic,
            .window = HandleNumber(window),
            .message = message,
            .time = GetTickCount(),
            .wParam = wParam,
            .lParam = static_cast<ULONGLONG>(lParam),
            .replyTo = 0,
            .secret = 0};
}

class ReplyFifo {
public:
    ReplyFifo() : m_fifo(CreateFifo(Fifo::Reply, m_number)) {}
    ~ReplyFifo() {
        if (m_fifo.IsOpen()) RemoveFifo(Fifo::Reply, m_number);
    }
    ReplyFifo(const ReplyFifo&) = delete;
    ReplyFifo& operator=(const ReplyFifo&) = delete;
    const Descriptor& Fifo() const { return m_fifo; }
    DWORD Number() const { return m_number; }

private:
    DWORD m_number = 0;
    Descriptor m_fifo;
};

// Sleeps until the other side acts or the deadline passes (false). With SMTO_NORMAL it answers messages that others
// send to this thread meanwhile; otherwise two threads that send to each other would wait for ever.
bool WaitForOther(const Descriptor& target, short targetEvents, const Descriptor& reply, UINT flags, int64_t deadline) {
    std::vector<pollfd> watched{{target.Get(), targetEvents, 0}, {reply.Get(), POLLIN, 0}};
    ThreadQueue* queue = flags == SMTO_NORMAL ? OwnQueue() : nullptr;
    if (queue != nullptr && !IsFull(*queue))
        for (const auto& window : queue->windows)
            watched.push_back({window->fifo.Get(), POLLIN, 0});
    const int64_t left = deadline - MonotonicNs();
    if (left <= 0) return false;
    // A signal ends the sleep early: the callers check again.
    const timespec slice{left / 1'000'000'000, left % 1'000'000'000};
    ppoll(watched.data(), watched.size(), &slice, nullptr);
    if (queue != nullptr) {
        Collect(*queue);
        AnswerSent(*queue);
        SetBell(*queue, queue->quit || !queue->posted.empty());
    }
    return true;
}

DWORD Secret() {
    DWORD secret = 0;
    while (getrandom(&secret, sizeof secret, 0) != sizeof secret) {
    }
    return secret;
}

// ERROR_SUCCESS or why not. The answer goes to result.
DWORD Send(PipeMessage message, UINT flags, UINT timeout, LRESULT& result) {
    const int64_t deadline = MonotonicNs() + timeout * kNsPerMs;
    const Descriptor target = OpenFifo(Fifo::Queue, message.window);
    if (!target.IsOpen()) return GetLastError();
    const ReplyFifo reply;
    if (!reply.Fifo().IsOpen()) return GetLastError();
    message.replyTo = reply.Number();
    message.secret = Secret();
    PipeWrite written = WriteMessage(target, message);
    while (written == PipeWrite::Full) {
        if (!WaitForOther(target, POLLOUT, reply.Fifo(), flags, deadline)) return ERROR_TIMEOUT;
        written = WriteMessage(target, message);
    }
    if (written == PipeWrite::Gone) return ERROR_INVALID_WINDOW_HANDLE;
    for (;;) {
        // The window is checked before the answer, because it answers before it closes.
        pollfd state{target.Get(), 0, 0};
        const bool gone = poll(&state, 1, 0) == 1 && (state.revents & POLLERR) != 0;
        if (const auto answer = ReadAnswer(reply.Fifo(), message.secret)) {
            result = *answer;
            return ERROR_SUCCESS;
        }
        if (gone) return ERROR_INVALID_WINDOW_HANDLE;
        if (!WaitForOther(target, 0, reply.Fifo(), flags, deadline)) return ERROR_TIMEOUT;
    }
}

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    return Call<BOOL>(FALSE, [=] {
        if (!CheckMessage(window, message)) return FALSE;
        const Descriptor fifo = OpenFifo(Fifo::Queue, HandleNumber(window));
        if (!fifo.IsOpen()) return FALSE;
        switch (WriteMessage(fifo, MakePipeMessage(window, message, wParam, lParam))) {
        case PipeWrite::Written:
            return TRUE;
        case PipeWrite::Full:
            return Fail(ERROR_NOT_ENOUGH_QUOTA);
        case PipeWrite::Gone:
            break;
        }
        return Fail(ERROR_INVALID_WINDOW_HANDLE);
    });
}

BOOL WINAPI GetMessageA(LPMSG message, HWND window, UINT filterMin, UINT filterMax) {
    return WaitingCall<BOOL>(-1, [=]() -> BOOL {
        if (Next(message, {window, filterMin, filterMax}, true, true) == Found::Failure) return -1;
        return message->message != WM_QUIT;
    });
}

BOOL WINAPI PeekMessageA(LPMSG message, HWND window, UINT filterMin, UINT filterMax, UINT remove) {
    return WaitingCall<BOOL>(FALSE, [=]() -> BOOL {
        if (remove != PM_NOREMOVE && remove != PM_REMOVE) return Fail(ERROR_INVALID_FLAGS);
        return Next(message, {window, filterMin, filterMax}, remove == PM_REMOVE, false) == Found::Message;
    });
}

LRESULT WINAPI DispatchMessageA(const MSG* message) {
    if (message == nullptr) return 0;
    // Held while the procedure runs, which may destroy the window.
    const std::shared_ptr<Window> window = FindOwnWindow(OwnQueue(), message->hwnd);
    if (window == nullptr) return 0;
    return window->procedure(message->hwnd, message->message, message->wParam, message->lParam);
}

void WINAPI PostQuitMessage(int exitCode) {
    Call<bool>(false, [=] {
        ThreadQueue* queue = MakeOwnQueue();
        if (queue == nullptr) return false;
        queue->quit = true;
        queue->exitCode = exitCode;
        SetBell(*queue, true);
        return true;
    });
}

LRESULT WINAPI SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT flags, UINT timeout,
                                   DWORD_PTR* result) {
    return WaitingCall<LRESULT>(FALSE, [=]() -> LRESULT {
        if (flags != SMTO_NORMAL && flags != SMTO_BLOCK) return Fail(ERROR_INVALID_PARAMETER);
        LRESULT answer = 0;
        if (const std::shared_ptr<Window> own = FindOwnWindow(OwnQueue(), window)) {
            answer = own->procedure(window, message, wParam, lParam);
        } else {
            if (!CheckMessage(window, message)) return FALSE;
            const DWORD error = Send(MakePipeMessage(window, message, wParam, lParam), flags, timeout, answer);
            if (error != ERROR_SUCCESS) return Fail(error);
        }
        if (result != nullptr) *result = static_cast<DWORD_PTR>(answer);
        return TRUE;
    });
}
