// State: that of one search.
#include "announcements.h"

#include <algorithm>
#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/address.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/simple-watch.h>
#include <cctype>
#include <chrono>
#include <cups/cups.h>
#include <map>
#include <memory>
#include <netdb.h>
#include <winspool.h>

namespace oriel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPlainType = "_ipp._tcp";
constexpr const char* kSecureType = "_ipps._tcp";
constexpr size_t kServicesMax = 1000; // of all that anybody announces

struct Service {
    bool secure = false;
    std::string host{};
    std::string address{};
    int port = 0;
    std::string path{};
    std::string model{};
    std::string location{};
};

struct Search {
    AvahiClient* client = nullptr;
    size_t resolvers = 0;
    std::map<std::string, Service> services{}; // by the name that is announced
};

struct FreePoll {
    void operator()(AvahiSimplePoll* poll) const { avahi_simple_poll_free(poll); }
};
struct FreeClient {
    void operator()(AvahiClient* client) const { avahi_client_free(client); } // with its browsers and resolvers
};

// The value of a key; empty: there is none.
std::string TextOf(AvahiStringList* texts, const char* key) {
    AvahiStringList* found = avahi_string_list_find(texts, key);
    char* value = nullptr;
    if (found == nullptr || avahi_string_list_get_pair(found, nullptr, &value, nullptr) < 0 || value == nullptr)
        return "";
    std::string text = value;
    avahi_free(value);
    return text;
}

// An IPv6 address of one link only is of no use without that link.
std::string AddressText(const AvahiAddress& address) {
    const bool linkOnly = address.proto == AVAHI_PROTO_INET6 && address.data.ipv6.address[0] == 0xFE &&
                          (address.data.ipv6.address[1] & 0xC0) == 0x80;
    char text[AVAHI_ADDRESS_STR_MAX];
    return linkOnly || avahi_address_snprint(text, sizeof text, &address) == nullptr ? "" : text;
}

void Note(Search* search, const char* name, std::string_view type, const char* host, const AvahiAddress& address,
          uint16_t port, AvahiStringList* texts, AvahiLookupResultFlags flags) {
    Service service{.secure = type == kSecureType,
                    .host = host,
                    .address = AddressText(address),
                    .port = port,
                    .path = TextOf(texts, "rp"),
                    .model = TextOf(texts, "ty"),
                    .location = TextOf(texts, "note")};
    if (service.address.empty()) return;
    service.path.resize(std::min(service.path.find_first_of("?#"), service.path.size()));
    if (service.path.empty()) service.path = "ipp/print";
    // What this machine's own print server shares is known as its queue.
    if ((flags & AVAHI_LOOKUP_RESULT_LOCAL) != 0 &&
        (service.path.starts_with("printers/") || service.path.starts_with("classes/")))
        return;
    const auto known = search->services.find(name);
    if (known == search->services.end() || (service.secure && !known->second.secure))
        search->services[name] = std::move(service);
}

void OnResolved(AvahiServiceResolver* resolver, AvahiIfIndex, AvahiProtocol, AvahiResolverEvent event, const char* name,
                const char* type, const char*, const char* host, const AvahiAddress* address, uint16_t port,
                AvahiStringList* texts, AvahiLookupResultFlags flags, void* context) {
    try {
        if (event == AVAHI_RESOLVER_FOUND)
            Note(static_cast<Search*>(context), name, type, host, *address, port, texts, flags);
    } catch (const std::bad_alloc&) { // those that were found are told
    }
    avahi_service_resolver_free(resolver);
}

void OnAnnounced(AvahiServiceBrowser*, AvahiIfIndex interface, AvahiProtocol protocol, AvahiBrowserEvent event,
                 const char* name, const char* type, const char* domain, AvahiLookupResultFlags, void* context) {
    auto& search = *static_cast<Search*>(context);
    if (event != AVAHI_BROWSER_NEW) return;
    for (const AvahiProtocol wanted : {AVAHI_PROTO_INET, AVAHI_PROTO_INET6})
        if (search.resolvers++ < kServicesMax)
            avahi_service_resolver_new(search.client, interface, protocol, name, type, domain, wanted,
                                       static_cast<AvahiLookupFlags>(0), OnResolved, context);
}

// As print servers name their queues: letters, digits, "-" and "."; everything else is "_".
std::string NameOf(const std::string& announced) {
    std::string name;
    for (const char letter : announced) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte < 0x80 && (std::isalnum(byte) != 0 || letter == '-' || letter == '.'))
            name += letter;
        else if (!name.ends_with('_'))
            name += '_';
    }
    return name;
}

bool IsLocalName(const std::string& host) {
    return host.ends_with(".local") && std::all_of(host.begin(), host.end(), [](unsigned char letter) {
               return letter < 0x80 && (std::isalnum(letter) != 0 || letter == '-' || letter == '.');
           });
}

bool Resolves(const std::string& host) {
    addrinfo* addresses = nullptr;
    const bool resolves = getaddrinfo(host.c_str(), nullptr, nullptr, &addresses) == 0;
    if (resolves) freeaddrinfo(addresses);
    return resolves;
}

// People copy addresses into commands: what is special there is encoded, as RFC 3986 allows for any character.
std::string Plain(std::string_view uri) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    constexpr std::string_view kAllowed = "-._~/:[]%";
    std::string plain;
    for (const char letter : uri) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte < 0x80 && (std::isalnum(byte) != 0 || kAllowed.find(letter) != kAllowed.npos))
            plain += letter;
        else
            (plain += '%') += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return plain;
}

std::vector<Printer> PrintersOf(const std::map<std::string, Service>& services, bool byName) {
    std::vector<Printer> printers;
    for (const auto& [name, service] : services) {
        char uri[HTTP_MAX_URI];
        const std::string& host = byName && IsLocalName(service.host) ? service.host : service.address;
        if (httpAssembleURI(HTTP_URI_CODING_ALL, uri, sizeof uri, service.secure ? "ipps" : "ipp", nullptr,
                            host.c_str(), service.port, ("/" + service.path).c_str()) < HTTP_URI_STATUS_OK)
            continue;
        Printer printer;
        printer.texts[kPrinterName] = NameOf(name);
        printer.texts[kPortName] = Plain(uri);
        printer.texts[kDriverName] = service.model;
        printer.texts[kPrinterComment] = name;
        printer.texts[kPrinterLocation] = service.location;
        printer.attributes = PRINTER_ATTRIBUTE_NETWORK;
        printers.push_back(std::move(printer));
    }
    return printers;
}

} // namespace

void FindAnnounced(int forMs, const std::function<void(std::vector<Printer>)>& take) {
    const auto end = Clock::now() + std::chrono::milliseconds(forMs);
    const std::unique_ptr<AvahiSimplePoll, FreePoll> poll(avahi_simple_poll_new());
    if (poll == nullptr) return;
    Search search;
    const auto ignore = [](AvahiClient*, AvahiClientState, void*) {};
    const std::unique_ptr<AvahiClient, FreeClient> client(avahi_client_new(
        avahi_simple_poll_get(poll.get()), static_cast<AvahiClientFlags>(0), ignore, nullptr, nullptr));
    if (client == nullptr) return;
    search.client = client.get();
    for (const char* type : {kPlainType, kSecureType})
        avahi_service_browser_new(client.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, type, nullptr,
                                  static_cast<AvahiLookupFlags>(0), OnAnnounced, &search);
    for (auto now = Clock::now(); now < end; now = Clock::now()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count();
        if (avahi_simple_poll_iterate(poll.get(), static_cast<int>(left) + 1) != 0) break; // Avahi has ended
    }
    take(PrintersOf(search.services, false));
    const auto named = std::find_if(search.services.begin(), search.services.end(),
                                    [](const auto& row) { return IsLocalName(row.second.host); });
    if (named != search.services.end() && Resolves(named->second.host)) take(PrintersOf(search.services, true));
}

} // namespace oriel
