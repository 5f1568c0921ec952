// RPC messages: a stream of bytes as a server and as a client receives it, and each PDU alone.
#include "fuzz.h"
#include "rpc/channel.h"

#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace oriel::rpc;

namespace {

void ReceiveAll(Side side, std::string_view bytes) {
    int ends[2];
    REQUIRE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    // Less than a socket takes without a reader.
    REQUIRE(send(ends[1], bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
            static_cast<ssize_t>(bytes.size()));
    close(ends[1]);
    Channel channel;
    channel.socket = ends[0];
    Message message{};
    uint64_t sum = 0;
    while (Receive(channel, side, message) == Transfer::Done) {
        const bool isCall = message.header.type == kRequest || message.header.type == kResponse;
        const uint8_t* part = isCall ? message.body : message.pdu;
        for (size_t at = 0; at < (isCall ? message.length : message.header.fragmentLength); ++at)
            sum += part[at];
        Trim(channel);
    }
    asm volatile("" : : "r"(sum)); // so that the bytes are read
    CloseSocket(channel);
    FreeBuffers(channel);
}

// What can be decoded and is written again decodes to the same.
template <typename Decoded, typename Decode, typename Encode>
void Again(const std::vector<uint8_t>& pdu, const Header& header, Decode decode, Encode encode) {
    Decoded decoded{};
    if (!decode(pdu.data(), header, decoded)) return;
    Header ours = header;
    ours.representation = kLocalRepresentation;
    std::vector<uint8_t> written(kLargestFragment);
    const size_t size = encode(written, ours, decoded);
    if (size == 0) return;
    Decoded again{};
    Header read{};
    REQUIRE(DecodeHeader(written.data(), read) && read.fragmentLength == size);
    REQUIRE(decode(written.data(), read, again) && again == decoded);
}

void DecodeAlone(std::string_view bytes) {
    Header header{};
    if (bytes.size() < kHeaderSize || !DecodeHeader(reinterpret_cast<const uint8_t*>(bytes.data()), header)) return;
    if (header.fragmentLength > bytes.size() || header.authLength != 0) return;
    // A block of just that size, so that a byte too many is seen.
    const std::vector<uint8_t> pdu(bytes.begin(), bytes.begin() + header.fragmentLength);
    CallHeader call{};
    uint32_t status = 0;
    uint16_t reason = 0;
    DecodeCallHeader(pdu.data(), header, call);
    DecodeFault(pdu.data(), header, call, status);
    DecodeBindNak(pdu.data(), header, reason);
    Again<Bind>(pdu, header, DecodeBind, EncodeBind);
    Again<BindAck>(pdu, header, DecodeBindAck, EncodeBindAck);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    PrivateMachine();
    Input input(data, std::min<size_t>(size, 65536));
    const Side side = input.Take<uint8_t>() % 2 == 0 ? Side::Server : Side::Client;
    DecodeAlone(input.Rest());
    ReceiveAll(side, input.Rest());
    return 0;
}
