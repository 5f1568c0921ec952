// The bytes of lists.
#include "acting_as.h"

#include <cstring>

Bytes Sid(uint8_t authority, const std::vector<uint32_t>& subAuthorities) {
    Bytes sid = {1, static_cast<uint8_t>(subAuthorities.size()), 0, 0, 0, 0, 0, authority};
    for (const uint32_t subAuthority : subAuthorities)
        sid = Joined({sid, Number(subAuthority)});
    return sid;
}

Bytes List(const std::vector<Entry>& entries) {
    Bytes list = {2, 0, 0, 0, static_cast<uint8_t>(entries.size()), static_cast<uint8_t>(entries.size() >> 8), 0, 0};
    for (const Entry& entry : entries) {
        const auto size = static_cast<uint8_t>(8 + entry.sid.size());
        list = Joined({list, {entry.type, entry.flags, size, 0}, Number(entry.mask), entry.sid});
    }
    const auto size = static_cast<uint16_t>(list.size());
    std::memcpy(&list[2], &size, sizeof size);
    return list;
}
