// A printer on the network, asked by a device module. State: the NetworkPrinter record.
//
// It is polled: every `pollMs` while nothing happens, more often while it prints and while something has changed; less
// and less often while it does not answer. While somebody follows its values it is polled so often, and an answer
// counts as overdue so soon, that they are stale within 2 s of its end. One question is asked at a time. A direct read
// and a refresh poll it at once.
#pragma once

#include "device.h"

#include "module.h"

#include <deque>
#include <functional>
#include <map>
#include <optional>

inline constexpr DWORD kPollMs = 30000;
inline constexpr DWORD kPollMinMs = 200;
inline constexpr DWORD kPollMaxMs = 60 * 60 * 1000;
// For the answer to a question.
inline constexpr DWORD kDeviceLimitMs = 5000;

// An SNMP agent that is asked beside an IPP printer, for what IPP lacks.
struct Companion {
    const devices::Module* module = nullptr; // null: there is none
    devices::Session* session = nullptr;
    bool busy = false;
    std::optional<devices::Reading> reading{}; // the last one, while it answers
    std::optional<devices::Identity> identity{};
};

// How long the two slowest answers of a time took; 0: there was none.
struct SlowAnswers {
    DWORD slowestMs = 0;
    DWORD secondMs = 0;
};

struct NetworkPrinter {
    // UTF-8. What follows "?snmp" is none of the printer's address: "?snmp" names the agent of its host as a companion,
    // "?snmp=snmp://HOST" another one.
    std::string uri;
    // The printer is a queue of a print server: its jobs are the server's, which tells of everything that happens.
    bool ofPrintServer = false;
    DWORD pollMs = kPollMs;
    std::string certificate{}; // the trusted one; empty: the first one that is seen
    // After another certificate was refused: the trusted one, which an administrator may have removed.
    std::function<std::string()> trusted = [] { return std::string(); };
    // Remembers the first certificate.
    std::function<void(const std::string& certificate)> trust = [](const std::string&) {};

    const devices::Module* module = nullptr;
    devices::Session* session = nullptr;
    HANDLE ready = nullptr;
    DeviceLink link{.up = false, .trouble = "the printer has not answered yet"};
    std::optional<devices::Identity> identity{};
    devices::Reading own{};     // the last one of the printer itself
    devices::Reading reading{}; // with what the companion adds
    Companion companion{};
    std::map<std::string, DeviceValue> values{}; // of that reading
    std::deque<DeviceRequest> waiting{};         // requests that no question was asked for yet
    std::vector<DeviceRequest> asked{};          // those that the question in progress answers
    bool busy = false;                           // a question is in progress
    bool again = false;                          // something has happened since it was asked
    ULONGLONG lateAt = 0;                        // when its answer is overdue; 0: it may take as long as it likes
    ULONGLONG askedAt = 0;
    SlowAnswers slow[2] = {}; // of the present period and of the one before
    ULONGLONG slowSince = 0;  // when the present one began
    bool followed = false;
    bool tellsEvents = false; // it costs next to nothing to ask whether something happened
    ULONGLONG pollAt = 0;
    ULONGLONG quickUntil = 0; // something has changed
    DWORD failures = 0;       // in a row
    std::vector<DeviceValue> changed{};
    std::vector<DeviceAnswer> answers{};
};

// "printer" of "ipp://printer:631/ipp/print"; an IPv6 address keeps its brackets. Empty: the address has none.
std::string HostOf(const std::string& uri);

// "ipp", "ipps", "snmp", "cups"; false: no module has such devices.
bool IsNetworkDevice(const std::string& uri);

// Empty, or in words why there is none: no such module on this machine, or a wrong address.
std::string OpenNetworkPrinter(NetworkPrinter& printer);
void CloseNetworkPrinter(NetworkPrinter& printer);

// The device lives as long as the printer.
Device DeviceOf(NetworkPrinter& printer);

// Asks once and waits for the answer, for at most limitMs, or until stop is set, which may be null.
devices::Answer TryNetworkPrinter(NetworkPrinter& printer, DWORD limitMs, HANDLE stop);
