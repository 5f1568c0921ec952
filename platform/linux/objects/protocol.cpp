// No state.
#include "objects/protocol.h"

#include <algorithm>
#include <cstring>
#include <iterator>

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

} // namespace oriel
