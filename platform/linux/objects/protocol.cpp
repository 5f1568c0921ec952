// No state.
#include "objects/protocol.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sys/socket.h>
#include <sys/uio.h>

namespace oriel {
namespace {

bool IsKnown(ObjectKind kind) {
    return kind >= ObjectKind::ManualEvent && kind <= ObjectKind::Section;
}

bool IsName(const char (&name)[sizeof ObjectRequest::name]) {
    const size_t length = strnlen(name, sizeof name);
    return length > 0 && length <= kLongestObjectName &&
           std::all_of(name + length, std::end(name), [](char c) { return c == '\0'; });
}

} // namespace

bool DecodeRequest(const void* record, size_t length, ObjectRequest& request) {
    if (length != sizeof request) return false;
    std::memcpy(static_cast<void*>(&request), record, length);
    if (request.protocol != kObjectProtocol || (request.flags & ~(kReadingIsEnough | kOwnedAtBirth)) != 0) return false;
    switch (request.action) {
    case ObjectAction::Create:
        if (request.forEveryone > ForEveryone::All) return false;
        if (request.kind == ObjectKind::Section && (request.size == 0 || request.size > kLargestSection)) return false;
        if (request.kind != ObjectKind::Section && request.size != 0) return false;
        if (request.kind != ObjectKind::Mutex && (request.flags & kOwnedAtBirth) != 0) return false;
        [[fallthrough]];
    case ObjectAction::Open:
        return IsKnown(request.kind) && IsName(request.name);
    case ObjectAction::Close:
    case ObjectAction::CloseOwned:
    case ObjectAction::Count:
        return true;
    }
    return false;
}

ssize_t ReceiveReply(int connection, int flags, ObjectReply& reply, int& memory) {
    iovec bytes{&reply, sizeof reply};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    memory = -1;
    const ssize_t length = recvmsg(connection, &message, MSG_CMSG_CLOEXEC | flags);
    const cmsghdr* header = length >= 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (header != nullptr && header->cmsg_type == SCM_RIGHTS) std::memcpy(&memory, CMSG_DATA(header), sizeof memory);
    return length;
}

} // namespace oriel
