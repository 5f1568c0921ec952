// A connected stream socket with its two buffers, and whole messages through it, in fragments where they are long. Used
// by one thread at a time; all state is in the Channel.
//
// The small call is what it is made for: one send, one receive, no copy, no allocation once the buffers are there. The
// body of what is sent lies kCallHeaderSize behind the start of `out`, so that the header goes before it; what is
// received is read where the socket put it. Fragments that follow are closed up in place.
#pragma once

#include "base/futex.h"
#include "rpc/pdu.h"

#include <algorithm>
#include <atomic>

namespace oriel::rpc {

inline constexpr size_t kFirstBuffer = 4096;
inline constexpr size_t kKeptBuffer = 256 * 1024; // a larger one is given back after the call

struct Buffer {
    uint8_t* data = nullptr;
    size_t capacity = 0;
};

struct Channel {
    int socket = -1;
    Buffer out;
    Buffer in;
    size_t received = 0; // bytes in `in`
    size_t consumed = 0; // of these, the message that Receive gave last
    uint16_t largestSent = kSmallestFragment;
    uint16_t largestReceived = kLargestFragment;
    // Bytes that the buffers of all channels of this peer's user take, and how many they may; none on a client.
    std::atomic<size_t>* userBytes = nullptr;
    size_t userLimit = 0;
};

enum class Transfer {
    done,
    closed, // end of the stream, in the middle or not
    reset,  // closed by a peer that had not read all of what was sent
    timedOut,
    malformed,     // lengths, flags or order of fragments that cannot be
    wrongVersion,  // message.header tells what it was
    authenticated, // an authentication trailer, which nobody here can check
    tooLarge,      // a body above kLargestBody
    noMemory,
};

struct Message {
    Header header;      // of the first fragment
    CallHeader call;    // of requests and responses
    const uint8_t* pdu; // all others: header.fragmentLength bytes
    uint8_t* body;      // requests and responses: all fragments' stub data, 8-byte aligned
    size_t length;
};

enum class Side { client, server };

// Makes room for a body of that length in `out`. What was there is kept.
bool ReserveBody(Channel& channel, size_t length);
inline uint8_t* Body(Channel& channel) {
    return channel.out.data + kCallHeaderSize;
}

// Sends the first `length` bytes of the body as a request or response; flags and type are header's, its length and
// fragment flags are filled in. On any result but done the peer cannot have received all of it.
Transfer Send(Channel& channel, Header header, CallHeader call, size_t length);
// Sends a PDU that is complete.
Transfer SendPdu(Channel& channel, const uint8_t* pdu, size_t size);

// The next message. The server's side takes requests, the client's responses, assembled from their fragments; every
// other PDU comes as it is, but those that ask for nothing: cancels, orphans (which drop the fragments of their call),
// shutdowns. Without a deadline it waits without bound for the first byte, since a peer may have nothing to say for
// long and its end is noticed; once a message has begun it must be complete within Timings::rpcMessage. The message
// stays valid until the next Receive or Trim.
Transfer Receive(Channel& channel, Side side, Message& message, int64_t deadline = kNever);

// After a call: gives back what a long message needed, and sooner when the user's connections have half of what they
// may.
inline size_t KeptBuffer(const Channel& channel) {
    const bool scarce =
        channel.userBytes != nullptr && channel.userBytes->load(std::memory_order_relaxed) > channel.userLimit / 2;
    return scarce ? kFirstBuffer : kKeptBuffer;
}
inline bool IsBulky(const Channel& channel) {
    return std::max(channel.out.capacity, channel.in.capacity) > KeptBuffer(channel);
}
void Trim(Channel& channel);

// What is left until a deadline, as poll takes it: 0 once it has passed.
int LeftMs(int64_t deadline);

// Closes the socket and forgets what was received; with FreeBuffers the channel is as new.
void CloseSocket(Channel& channel);
void FreeBuffers(Channel& channel);

} // namespace oriel::rpc
