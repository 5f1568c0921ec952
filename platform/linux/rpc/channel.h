// A connected stream socket with two buffers, which carries whole messages, in fragments when they are long. Used by
// one thread at a time; all state is in the Channel.
//
// Optimised for small calls: one send, one receive, no copy, and no allocation once the buffers exist. The body to be
// sent starts kCallHeaderSize behind the start of `out`, so that the header fits before it; received data are read
// where the socket put them. Later fragments are moved up in place.
#pragma once

#include "base/futex.h"
#include "rpc/pdu.h"

#include <algorithm>
#include <atomic>

namespace oriel::rpc {

inline constexpr size_t kFirstBuffer = 1024;      // enough for most calls; each thread that ever called has two
inline constexpr size_t kKeptBuffer = 256 * 1024; // a larger buffer is released after the call

struct Buffer {
    uint8_t* data = nullptr;
    size_t capacity = 0;
};

struct Channel {
    int socket = -1;
    Buffer out;
    Buffer in;
    size_t received = 0;  // bytes in `in`
    size_t consumed = 0;  // of these, consumed by the last Receive
    int64_t answered = 0; // on a client: when it had the last answer (MonotonicNs)
    uint16_t largestSent = kSmallestFragment;
    uint16_t largestReceived = kLargestFragment;
    // Bytes in the buffers of all channels of the peer's user, and their limit; null on a client.
    std::atomic<size_t>* userBytes = nullptr;
    size_t userLimit = 0;
};

enum class Transfer {
    Done,
    Closed, // end of the stream, possibly within a message
    Reset,  // closed by a peer that had not read everything sent
    TimedOut,
    Malformed,     // impossible lengths, flags or order of fragments
    WrongVersion,  // the version is in message.header
    Authenticated, // an authentication trailer, which is not supported
    TooLarge,      // a body above kLargestBody
    NoMemory,
};

struct Message {
    Header header;      // of the first fragment
    CallHeader call;    // of requests and responses
    const uint8_t* pdu; // all others: header.fragmentLength bytes
    uint8_t* body;      // requests and responses: all fragments' stub data, 8-byte aligned
    size_t length;
};

enum class Side { Client, Server };

// Makes room for a body of that length in `out`, keeping its contents.
bool ReserveBody(Channel& channel, size_t length);
inline uint8_t* Body(Channel& channel) {
    return channel.out.data + kCallHeaderSize;
}

// Sends the first `length` bytes of the body as a request or response. Flags and type come from header; length and
// fragment flags are filled in. Unless the result is done, the peer cannot have received all of it.
Transfer Send(Channel& channel, Header header, CallHeader call, size_t length);
// Sends a complete PDU.
Transfer SendPdu(Channel& channel, const uint8_t* pdu, size_t size);

// Receives the next message: requests on a server, responses on a client, assembled from their fragments; other PDUs
// unchanged. PDUs that need no answer are skipped: cancels, orphans (which drop the fragments of their call),
// shutdowns. Without a deadline the wait for the first byte is unbounded, because a peer may be silent for long and its
// end is noticed; a message that has begun must be complete within Timings::rpcMessage. The message is valid until the
// next Receive or Trim.
Transfer Receive(Channel& channel, Side side, Message& message, int64_t deadline = kNever);

// After a call: releases the memory of a long message, and earlier when the user's connections have reached half of
// their limit.
inline size_t KeptBuffer(const Channel& channel) {
    const bool scarce =
        channel.userBytes != nullptr && channel.userBytes->load(std::memory_order_relaxed) > channel.userLimit / 2;
    return scarce ? kFirstBuffer : kKeptBuffer;
}
inline bool IsBulky(const Channel& channel) {
    return std::max(channel.out.capacity, channel.in.capacity) > KeptBuffer(channel);
}
void Trim(Channel& channel);

// The time until a deadline for poll(); 0 once it has passed.
int LeftMs(int64_t deadline);

// Closes the socket and drops received data. After FreeBuffers too, the channel is as new.
void CloseSocket(Channel& channel);
void FreeBuffers(Channel& channel);

} // namespace oriel::rpc
