// IPP messages as bytes (RFC 8010), through libcups. No state.
#pragma once

#include <cups/cups.h>
#include <memory>
#include <string>
#include <string_view>

namespace devices {

struct DeleteMessage {
    void operator()(ipp_t* message) const { ippDelete(message); }
};
using Message = std::unique_ptr<ipp_t, DeleteMessage>;

// Whether the message can be given to a decoder: every length ends inside it, collections end, and are not nested more
// deeply than any printer's. libcups takes 32 KiB and a stack frame for each level, and has no limit of its own.
bool IsSound(std::string_view bytes);

// Null: it is not sound, or libcups does not take it.
Message Decode(std::string_view bytes);
// Throws std::bad_alloc.
std::string Encode(ipp_t* message);

} // namespace devices
