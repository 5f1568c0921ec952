// Printers that announce themselves in the network (DNS-SD, RFC 6763), as Avahi finds them. No state.
#pragma once

#include "spooler/print_server.h"

#include <functional>

namespace oriel {

// Collects announcements for so long. Calls take with all that were found: first with the addresses that they led to;
// then, if this system resolves names of mDNS, with these names, which stay when an address changes. The texts are the
// announcers' own and may hold anything; names and addresses are ASCII without control characters. Returns at once when
// no Avahi runs.
void FindAnnounced(int forMs, const std::function<void(std::vector<Printer>)>& take);

} // namespace oriel
