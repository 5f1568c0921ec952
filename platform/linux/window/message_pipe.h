// Messages in a FIFO: records of one size, each written whole by one call or not at all.
//
// Everybody may write to a window's FIFO, so its contents are hostile input: a reader skips invalid bytes and finds the
// next message. A hostile writer can hide a message in garbage, but could as well fill the queue. No state but the FIFO
// and the reader.
#pragma once

#include "base/descriptor.h"

#include <cstddef>
#include <optional>
#include <vector>
#include <winuser.h>

namespace oriel {

// 40 bytes. Every message begins with magic and window. replyTo is 0 in a posted message; in a sent one it names the
// FIFO for the answer.
struct PipeMessage {
    DWORD magic;
    DWORD window;
    DWORD message;
    DWORD time;
    ULONGLONG wParam;
    ULONGLONG lParam;
    DWORD replyTo;
    DWORD secret; // repeated in the answer; only the receiver knows it, while everybody may write to the reply FIFO
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

// Reads a window's FIFO in pieces of kMessagesAtOnce. Keeps a partial message between two pieces.
class MessageReader {
public:
    static constexpr size_t kMessagesAtOnce = 64;

    // Appends the messages of one piece. False when the FIFO is empty.
    bool Read(const Descriptor& fifo, DWORD window, std::vector<PipeMessage>& messages);

private:
    char m_bytes[kMessagesAtOnce * sizeof(PipeMessage)];
    size_t m_used = 0;
};

// The answer with this secret, if it has arrived; others are skipped.
std::optional<LRESULT> ReadAnswer(const Descriptor& fifo, DWORD secret);

} // namespace oriel
