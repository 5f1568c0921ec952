// The interface of a device module: a library of its own that speaks one protocol with network printers, loaded when a
// printer needs it. No state.
//
// A session belongs to one printer. Its calls return at once. One question is asked at a time; a thread of the module
// works at it, and calls `finished` when its answer is there. No question waits for that of another session.
#pragma once

#include "reading.h"

#include <cstdint>
#include <string>

namespace devices {

struct Settings {
    std::string uri{};  // ipp://HOST[:PORT]/PATH, cups:QUEUE and so on; UTF-8
    std::string user{}; // in whose name jobs are held, released and cancelled
};

enum class Ask : uint8_t { Poll, HoldJob, ReleaseJob, CancelJob, Identify, SetLocation };

struct Question {
    Ask ask = Ask::Poll;
    bool identity = false;     // Poll: read that too
    bool events = false;       // Poll: where the printer tells events, read it only after one
    bool jobs = true;          // Poll: read those too
    int32_t job = 0;           // HoldJob, ReleaseJob, CancelJob
    std::string text{};        // SetLocation
    std::string certificate{}; // the only one that is trusted, as SHA-256 in hexadecimal; empty: any
    uint32_t limitMs = 5000;   // for the whole answer
};

enum class Outcome : uint8_t {
    Answered,
    NotSupported,       // the printer answers, but does not do this
    Declined,           // it answers, but not now, or not for this user
    NoAnswer,           // it cannot be reached, or does not answer in time
    Refused,            // it wants a password, or speaks no TLS
    CertificateChanged, // it has another certificate than the trusted one; nothing was sent
    Garbled,            // the answer is none
};

struct Answer {
    Outcome outcome = Outcome::NoAnswer;
    std::string trouble{};     // in words, unless it was answered
    std::string certificate{}; // of the connection; empty: it has none
    Reading reading{};         // of a Poll
    bool tellsEvents = false;  // of a Poll: a question with `events` costs next to nothing
    bool unchanged = false;    // there was no event: there is no reading
};

class Session;

struct Module {
    uint32_t size; // of this record: a module of another build is not used
    // Null: *error says why.
    Session* (*open)(const Settings& settings, void (*finished)(void* context), void* context, std::string* error);
    void (*ask)(Session* session, const Question& question);
    // False: the answer is not there yet.
    bool (*take)(Session* session, Answer* answer);
    // Cuts off a question in progress. `finished` is not called any more. A thread that is still at it after a second
    // goes on, and releases the session then.
    void (*close)(Session* session);
};

// Exported by each module.
using ModuleEntry = const Module* (*)();
inline constexpr char kModuleEntry[] = "OrielDeviceModule";

} // namespace devices
