// Checking, decoding, encoding. No state.
#include "message.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace devices {
namespace {

constexpr size_t kHeader = 8; // version, status, request number
constexpr size_t kValuesMax = 20000;
constexpr int kDepthMax = 8;
constexpr unsigned kEnd = 0x03;
constexpr unsigned kFirstValueTag = 0x10;
constexpr unsigned kBeginCollection = 0x34;
constexpr unsigned kEndCollection = 0x37;
constexpr unsigned kExtension = 0x7F; // a tag of four bytes: none is defined

unsigned ByteAt(std::string_view bytes, size_t at) {
    return static_cast<unsigned char>(bytes[at]);
}

// A length of two bytes, and that many bytes behind it.
bool Skip(std::string_view bytes, size_t* at) {
    if (bytes.size() - *at < 2) return false;
    const size_t length = ByteAt(bytes, *at) << 8 | ByteAt(bytes, *at + 1);
    *at += 2;
    if (length > bytes.size() - *at) return false;
    *at += length;
    return true;
}

struct Source {
    std::string_view left;
};

ssize_t ReadSome(void* context, ipp_uchar_t* buffer, size_t size) {
    std::string_view& left = static_cast<Source*>(context)->left;
    const size_t count = std::min(size, left.size());
    std::memcpy(buffer, left.data(), count);
    left.remove_prefix(count);
    return static_cast<ssize_t>(count);
}

ssize_t WriteSome(void* context, ipp_uchar_t* buffer, size_t size) {
    static_cast<std::string*>(context)->append(reinterpret_cast<const char*>(buffer), size);
    return static_cast<ssize_t>(size);
}

} // namespace

bool IsSound(std::string_view bytes) {
    if (bytes.size() < kHeader) return false;
    size_t values = 0;
    int depth = 0;
    for (size_t at = kHeader; at < bytes.size();) {
        const unsigned tag = ByteAt(bytes, at++);
        if (tag < kFirstValueTag) {
            if (depth != 0) return false;
            if (tag == kEnd) return true;
            continue;
        }
        if (tag == kExtension || ++values > kValuesMax) return false;
        if (!Skip(bytes, &at) || !Skip(bytes, &at)) return false;
        if (tag == kBeginCollection && ++depth > kDepthMax) return false;
        if (tag == kEndCollection && --depth < 0) return false;
    }
    return false; // it does not end
}

Message Decode(std::string_view bytes) {
    if (!IsSound(bytes)) return nullptr;
    Message message(ippNew());
    if (message == nullptr) throw std::bad_alloc();
    Source source{bytes};
    return ippReadIO(&source, ReadSome, 1, nullptr, message.get()) == IPP_STATE_DATA ? std::move(message) : nullptr;
}

std::string Encode(ipp_t* message) {
    std::string bytes;
    if (ippWriteIO(&bytes, WriteSome, 1, nullptr, message) != IPP_STATE_DATA) throw std::bad_alloc();
    return bytes;
}

} // namespace devices
