// Buffers of a connection; sending and receiving of messages. State: the Channel.
#include "rpc/channel.h"

#include "base/lock.h"
#include "base/timings.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace oriel::rpc {
namespace {

constexpr size_t kTrustedHint = 256 * 1024; // memory allocated on the word of a peer alone
constexpr size_t kFragmentsAtOnce = 16;     // of a long message, per sendmsg
constexpr int64_t kFollowsNs = 30'000;      // from an answer until the next request was sent

void Discharge(Channel& channel, size_t bytes) {
    if (channel.userBytes != nullptr) channel.userBytes->fetch_sub(bytes, std::memory_order_relaxed);
}

bool Charge(Channel& channel, size_t bytes) {
    if (channel.userBytes == nullptr) return true;
    if (channel.userBytes->fetch_add(bytes, std::memory_order_relaxed) + bytes <= channel.userLimit) return true;
    Discharge(channel, bytes);
    return false;
}

bool Grow(Channel& channel, Buffer& buffer, size_t size) {
    TerminationHold hold; // the heap takes locks
    const size_t doubled = std::min<size_t>(buffer.capacity * 2, buffer.capacity + kLargestBody / 4);
    const size_t capacity = (std::max({size, doubled, kFirstBuffer}) + kFirstBuffer - 1) / kFirstBuffer * kFirstBuffer;
    if (!Charge(channel, capacity - buffer.capacity)) return false;
    void* data = realloc(buffer.data, capacity);
    if (data == nullptr) {
        Discharge(channel, capacity - buffer.capacity);
        return false;
    }
    buffer = {static_cast<uint8_t*>(data), capacity};
    return true;
}

bool Reserve(Channel& channel, Buffer& buffer, size_t size) {
    return size <= buffer.capacity || Grow(channel, buffer, size);
}

void Release(Channel& channel, Buffer& buffer) {
    TerminationHold hold;
    Discharge(channel, buffer.capacity);
    free(buffer.data);
    buffer = {};
}

Transfer FromErrno(int error) {
    switch (error) {
    case ECONNRESET:
        return Transfer::Reset;
    case EAGAIN:
        return Transfer::TimedOut;
    case ENOMEM:
    case ENOBUFS:
        return Transfer::NoMemory;
    default:
        return Transfer::Closed;
    }
}

Transfer SendAll(int socket, iovec* pieces, size_t count) {
    while (count > 0) {
        msghdr message{};
        message.msg_iov = pieces;
        message.msg_iovlen = count;
        const ssize_t sent = sendmsg(socket, &message, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            return FromErrno(errno);
        }
        size_t left = static_cast<size_t>(sent);
        while (count > 0 && left >= pieces->iov_len) {
            left -= pieces->iov_len;
            ++pieces;
            --count;
        }
        if (count > 0) {
            pieces->iov_base = static_cast<uint8_t*>(pieces->iov_base) + left;
            pieces->iov_len -= left;
        }
    }
    return Transfer::Done;
}

Transfer SendFragments(Channel& channel, Header header, CallHeader call, size_t length) {
    const size_t piece = (channel.largestSent - kCallHeaderSize) & ~size_t{7};
    uint8_t headers[kFragmentsAtOnce][kCallHeaderSize];
    iovec pieces[kFragmentsAtOnce * 2];
    const uint8_t flags = header.flags & static_cast<uint8_t>(~kOnlyFragment);
    size_t offset = 0;
    while (offset < length) {
        size_t fragments = 0;
        for (; fragments < kFragmentsAtOnce && offset < length; ++fragments) {
            const size_t size = std::min(piece, length - offset);
            header.flags = flags | (offset == 0 ? kFirstFragment : 0) | (offset + size == length ? kLastFragment : 0);
            header.fragmentLength = static_cast<uint16_t>(kCallHeaderSize + size);
            call.allocationHint = static_cast<uint32_t>(length - offset);
            EncodeCallHeader(headers[fragments], header, call);
            pieces[fragments * 2] = {headers[fragments], kCallHeaderSize};
            pieces[fragments * 2 + 1] = {Body(channel) + offset, size};
            offset += size;
        }
        const Transfer result = SendAll(channel.socket, pieces, fragments * 2);
        if (result != Transfer::Done) return result;
    }
    return Transfer::Done;
}

// Receives until `need` bytes are there, asking for up to `want`.
Transfer Fill(Channel& channel, size_t need, size_t want, int64_t& deadline) {
    if (channel.received >= need) return Transfer::Done;
    if (!Reserve(channel, channel.in, need)) return Transfer::NoMemory;
    want = std::min(want, channel.in.capacity);
    // A client waits in poll(): in recv() it would also be woken when the server takes the request, for nothing and at
    // the worst moment. In calls that follow each other it is still awake then, and recv() is faster. A server's
    // thread, which has no deadline, is woken no later for it.
    const bool follows = channel.answered != 0 && MonotonicNs() - channel.answered < kFollowsNs;
    bool polls = deadline != kNever && !follows;
    while (channel.received < need) {
        if (channel.received > 0 && deadline == kNever) {
            deadline = DeadlineAfter(g_timings.rpcMessage);
            polls = true;
        }
        pollfd input{channel.socket, POLLIN, 0};
        if (polls) poll(&input, 1, LeftMs(deadline));
        const ssize_t count =
            recv(channel.socket, channel.in.data + channel.received, want - channel.received, polls ? MSG_DONTWAIT : 0);
        polls = true;
        if (count > 0) {
            channel.received += static_cast<size_t>(count);
            continue;
        }
        if (count == 0) return Transfer::Closed;
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return FromErrno(errno);
        if (LeftMs(deadline) == 0) return Transfer::TimedOut;
    }
    return Transfer::Done;
}

// Removes `size` received bytes at `offset`.
void Cut(Channel& channel, size_t offset, size_t size) {
    channel.received -= size;
    memmove(channel.in.data + offset, channel.in.data + offset + size, channel.received - offset);
}

bool AsksForNothing(Side side, uint8_t type) {
    return side == Side::Server ? type == kCancel || type == kOrphaned : type == kShutdown;
}

} // namespace

int LeftMs(int64_t deadline) {
    return static_cast<int>(std::clamp<int64_t>((deadline - MonotonicNs() + kNsPerMs - 1) / kNsPerMs, 0, INT_MAX));
}

bool ReserveBody(Channel& channel, size_t length) {
    return Reserve(channel, channel.out, kCallHeaderSize + length);
}

Transfer SendPdu(Channel& channel, const uint8_t* pdu, size_t size) {
    while (size > 0) {
        const ssize_t sent = send(channel.socket, pdu, size, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            return FromErrno(errno);
        }
        pdu += sent;
        size -= static_cast<size_t>(sent);
    }
    return Transfer::Done;
}

Transfer Send(Channel& channel, Header header, CallHeader call, size_t length) {
    const size_t size = kCallHeaderSize + length;
    if (size > channel.largestSent) return SendFragments(channel, header, call, length);
    header.flags |= kOnlyFragment;
    header.fragmentLength = static_cast<uint16_t>(size);
    call.allocationHint = static_cast<uint32_t>(length);
    EncodeCallHeader(channel.out.data, header, call);
    return SendPdu(channel, channel.out.data, size);
}

Transfer Receive(Channel& channel, Side side, Message& message, int64_t deadline) {
    const uint8_t assembled = side == Side::Server ? kRequest : kResponse;
    if (channel.consumed > 0) Cut(channel, 0, channel.consumed);
    channel.consumed = 0;

    const int64_t whole = deadline;
    bool begun = false;
    size_t bodyStart = 0;
    size_t at = 0; // start of the next fragment
    for (;;) {
        const size_t want = begun ? at + kCallHeaderSize : channel.largestReceived + kCallHeaderSize;
        Transfer result = Fill(channel, at + kHeaderSize, want, deadline);
        if (result != Transfer::Done) return result;

        Header header;
        const bool plausible = DecodeHeader(channel.in.data + at, header);
        if (!begun) message.header = header;
        if (header.majorVersion != 5 || header.minorVersion > 1) return Transfer::WrongVersion;
        if (!plausible || header.fragmentLength > channel.largestReceived) return Transfer::Malformed;
        if (begun && at - bodyStart + header.fragmentLength > kLargestBody + kCallHeaderSize + kObjectSize)
            return Transfer::TooLarge;

        const size_t end = at + header.fragmentLength;
        result = Fill(channel, end, end + kCallHeaderSize, deadline);
        if (result != Transfer::Done) return result;
        uint8_t* pdu = channel.in.data + at;

        if (AsksForNothing(side, header.type)) {
            if (begun && header.type == kOrphaned && header.callId == message.header.callId) {
                Cut(channel, 0, end);
                begun = false;
                at = 0;
            } else {
                Cut(channel, at, header.fragmentLength);
            }
            if (!begun) deadline = whole;
            continue;
        }
        if (header.authLength != 0) return Transfer::Authenticated;
        if (header.type != assembled) {
            // A server may send a fault instead of the rest of its response; nothing else may come between fragments.
            if (begun && header.type != kFault) return Transfer::Malformed;
            message.header = header;
            message.pdu = pdu;
            channel.consumed = end;
            return Transfer::Done;
        }

        CallHeader call;
        if (!DecodeCallHeader(pdu, header, call)) return Transfer::Malformed;
        const size_t offset =
            kCallHeaderSize + (side == Side::Server && (header.flags & kObjectUuid) != 0 ? kObjectSize : 0);
        const size_t length = header.fragmentLength - offset;
        if (!begun) {
            if ((header.flags & kFirstFragment) == 0) return Transfer::Malformed;
            begun = true;
            message.call = call;
            bodyStart = at = offset;
            if ((header.flags & kLastFragment) == 0 &&
                !Reserve(channel, channel.in,
                         std::min<size_t>(call.allocationHint, kTrustedHint) + 2 * kCallHeaderSize))
                return Transfer::NoMemory;
        } else {
            const Header& first = message.header;
            if ((header.flags & kFirstFragment) != 0 || header.callId != first.callId ||
                header.representation != first.representation || call.contextId != message.call.contextId ||
                (side == Side::Server && call.procedure != message.call.procedure))
                return Transfer::Malformed;
            Cut(channel, at, offset);
        }
        at += length;
        if (at - bodyStart > kLargestBody) return Transfer::TooLarge;
        if ((header.flags & kLastFragment) == 0) continue;

        message.body = channel.in.data + bodyStart;
        message.length = at - bodyStart;
        channel.consumed = at;
        if (side == Side::Client) channel.answered = MonotonicNs();
        return Transfer::Done;
    }
}

void Trim(Channel& channel) {
    const size_t kept = KeptBuffer(channel);
    if (channel.out.capacity > kept) Release(channel, channel.out);
    if (channel.in.capacity > kept && channel.received == channel.consumed) {
        Release(channel, channel.in);
        channel.received = channel.consumed = 0;
    }
}

void CloseSocket(Channel& channel) {
    if (channel.socket >= 0) close(channel.socket);
    channel.socket = -1;
    channel.received = channel.consumed = 0;
}

void FreeBuffers(Channel& channel) {
    Release(channel, channel.out);
    Release(channel, channel.in);
}

} // namespace oriel::rpc
