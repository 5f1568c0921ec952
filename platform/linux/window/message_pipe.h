// Messages on their way through a FIFO: records of one size, each written with one call that is whole or not at all.
//
// Everybody may write to a window's FIFO, so what is read is hostile input: a reader skips what is no message and finds
// the next one. It cannot be kept from losing a message that a hostile writer wraps into garbage, but that writer could
// as well have filled the queue.
#pragma once

#include "base/descriptor.h"
#include <winuser.h>

#include <cstddef>
#include <optional>
#include <vector>

namespace oriel {

// 40 bytes. magic and window begin every message; a message posted has replyTo 0, a message sent names the FIFO that
// takes the answer.
struct PipeMessage {
    DWORD magic;
    DWORD window;
    DWORD message;
    DWORD time;
    ULONGLONG wParam;
    ULONGLONG lParam;
    DWORD replyTo;
    DWORD secret; // repeated in the answer: everybody may write to the reply FIFO, only the receiver knows this
};
static_assert(sizeof(PipeMessage) == 40 && offsetof(PipeMessage, wParam) == 16 && offsetof(PipeMessage, replyTo) == 32);

struct PipeAnswer {
    DWORD magic;
    DWORD secret;
    ULONGLONG result;
};
static_assert(sizeof(PipeAnswer) == 16 && offsetof(PipeAnswer, result) == 8);

constexpr DWORD kMessageMagic = 0x47534d4f; // "OMSG"
constexpr DWORD kAnswerMagic = 0x534e414f;  // "OANS"
constexpr UINT kHighestMessage = 0xffff;

enum class PipeWrite { Written, Full, Gone };
PipeWrite WriteMessage(const Descriptor& fifo, const PipeMessage& message);
void WriteAnswer(const Descriptor& fifo, const PipeAnswer& answer);

// Takes what a window's FIFO holds, in pieces of kMessagesAtOnce. Keeps the beginning of a message between two pieces.
class MessageReader {
public:
    static constexpr size_t kMessagesAtOnce = 64;

    // Appends the messages of one piece. False when the FIFO is empty now.
    bool Read(const Descriptor& fifo, DWORD window, std::vector<PipeMessage>& messages);

private:
    char m_bytes[kMessagesAtOnce * sizeof(PipeMessage)];
    size_t m_used = 0;
};

// The answer with this secret, if it is there; others are skipped.
std::optional<LRESULT> ReadAnswer(const Descriptor& fifo, DWORD secret);

} // namespace oriel
