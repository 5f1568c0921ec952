// Posting, reading and dispatching messages.
#include "window/messages.h"

#include "base/call.h"
#include "window/thread_queue.h"
#include "window/window_files.h"
#include <errhandlingapi.h>
#include <synchapi.h>

#include <algorithm>
#include <cerrno>
#include <sys/epoll.h>

namespace oriel {
namespace {

// System messages whose parameters are addresses, in ascending order: text, sizes, styles, drawing, creation, copied
// data.
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

// Without a bound: whoever calls GetMessageA asks for that.
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
        // As many as may wait do so, none passes the filter, and nothing more can come in.
        if (IsFull(*queue)) return Failure(ERROR_NOT_ENOUGH_QUOTA);
        // What waits here does not pass the filter and must not end the wait.
        SetBell(*queue, false);
        WaitForArrival(*queue);
    }
}

} // namespace

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
