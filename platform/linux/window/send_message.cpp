// Sending: a message with an answer. The sender opens a FIFO of its own for the answer and names it in the message.
#include "window/messages.h"

#include "base/futex.h"

#include "base/call.h"
#include "window/thread_queue.h"
#include "window/window_files.h"
#include <errhandlingapi.h>

#include <ctime>
#include <poll.h>
#include <sys/random.h>

namespace oriel {
namespace {

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

// Sleeps until the other side did something or the deadline has passed (false). Under SMTO_NORMAL messages that others
// send to this thread meanwhile are answered: two threads that send to each other would else wait for ever.
bool WaitForOther(const Descriptor& target, short targetEvents, const Descriptor& reply, UINT flags, int64_t deadline) {
    std::vector<pollfd> watched{{target.Get(), targetEvents, 0}, {reply.Get(), POLLIN, 0}};
    ThreadQueue* queue = flags == SMTO_NORMAL ? OwnQueue() : nullptr;
    if (queue != nullptr && !IsFull(*queue))
        for (const auto& window : queue->windows)
            watched.push_back({window->fifo.Get(), POLLIN, 0});
    const int64_t left = deadline - MonotonicNs();
    if (left <= 0) return false;
    // A signal ends the sleep early: the callers look again.
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

} // namespace

// ERROR_SUCCESS or why not. Answers go to result.
static DWORD Send(PipeMessage message, UINT flags, UINT timeout, LRESULT& result) {
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
        // The window is looked at before the answer: it answers before it goes.
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

} // namespace oriel

using namespace oriel;

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

LRESULT WINAPI SendMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    DWORD_PTR result = 0;
    SendMessageTimeoutA(window, message, wParam, lParam, SMTO_NORMAL, ORIEL_SEND_BOUND, &result);
    return static_cast<LRESULT>(result);
}
