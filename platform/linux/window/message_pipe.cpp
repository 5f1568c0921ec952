// Writing and reading the records of a window's FIFO.
#include "window/message_pipe.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace oriel {
namespace {

static_assert(sizeof(PipeMessage) <= PIPE_BUF, "longer writes are not atomic");

// A write to a FIFO whose reader is gone raises SIGPIPE in the writing thread, which by default ends the host process.
// The signal is blocked and consumed in that thread.
class SigpipeHeld {
public:
    SigpipeHeld() {
        sigemptyset(&m_sigpipe);
        sigaddset(&m_sigpipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_sigpipe, &m_before);
    }
    ~SigpipeHeld() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    void Take() {
        if (m_wasPending) return;
        const timespec atOnce{};
        sigtimedwait(&m_sigpipe, nullptr, &atOnce);
    }

private:
    sigset_t m_sigpipe;
    sigset_t m_before;
    bool m_wasPending;
};

PipeWrite Write(const Descriptor& fifo, const void* record, size_t size) {
    SigpipeHeld sigpipe;
    for (;;) {
        if (write(fifo.Get(), record, size) == static_cast<ssize_t>(size)) return PipeWrite::Written;
        switch (errno) {
        case EINTR:
            continue;
        case EAGAIN:
            return PipeWrite::Full;
        default:
            if (errno == EPIPE) sigpipe.Take();
            return PipeWrite::Gone;
        }
    }
}

ssize_t ReadRetrying(const Descriptor& fifo, void* buffer, size_t size) {
    ssize_t count = 0;
    do {
        count = read(fifo.Get(), buffer, size);
    } while (count < 0 && errno == EINTR);
    return count;
}

} // namespace

PipeWrite WriteMessage(const Descriptor& fifo, const PipeMessage& message) {
    return Write(fifo, &message, sizeof message);
}

void WriteAnswer(const Descriptor& fifo, const PipeAnswer& answer) {
    // The requester may have given up; then nobody misses the answer.
    Write(fifo, &answer, sizeof answer);
}

bool MessageReader::Read(const Descriptor& fifo, DWORD window, std::vector<PipeMessage>& messages) {
    const size_t wanted = sizeof m_bytes - m_used;
    const ssize_t count = ReadRetrying(fifo, m_bytes + m_used, wanted);
    if (count <= 0) {
        m_used = 0;
        return false;
    }
    m_used += static_cast<size_t>(count);
    size_t at = 0;
    while (m_used - at >= sizeof(PipeMessage)) {
        PipeMessage message;
        std::memcpy(&message, m_bytes + at, sizeof message);
        const bool isMessage =
            message.magic == kMessageMagic && message.window == window && message.message <= kHighestMessage;
        if (isMessage) messages.push_back(message);
        at += isMessage ? sizeof message : 1;
    }
    // Writes of messages are atomic, so the rest of a partial message cannot follow in an empty FIFO.
    const bool empty = static_cast<size_t>(count) < wanted;
    m_used = empty ? 0 : m_used - at;
    std::memmove(m_bytes, m_bytes + at, m_used);
    return !empty;
}

std::optional<LRESULT> ReadAnswer(const Descriptor& fifo, DWORD secret) {
    PipeAnswer answer;
    while (ReadRetrying(fifo, &answer, sizeof answer) > 0)
        if (answer.magic == kAnswerMagic && answer.secret == secret) return static_cast<LRESULT>(answer.result);
    return std::nullopt;
}

} // namespace oriel
