// What a network printer tells, in one form for all protocols. Texts are UTF-8, of at most kTextMax bytes, without
// control characters. -1 is "not known" in every number: what a printer does not tell is never 0. No state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace devices {

inline constexpr int32_t kNotKnown = -1;
inline constexpr size_t kTextMax = 1023; // what IPP allows
// No printer has more; what is beyond is not read.
inline constexpr size_t kTraysMax = 64;
inline constexpr size_t kSuppliesMax = 64;
inline constexpr size_t kJobsMax = 100;

enum class Feed : uint8_t { Tray, Manual, Envelope };

struct Tray {
    std::string name{};
    std::string media{}; // as the printer calls it: "iso_a4_210x297mm"
    int32_t capacity = kNotKnown;
    int32_t level = kNotKnown; // in the unit of the capacity, sheets as a rule
    bool hasSome = false;      // not empty; how much is not known
    Feed feed = Feed::Tray;
};

struct Supply {
    std::string name{};
    std::string kind{}; // "toner", "ink", "wasteToner"
    std::string colour{};
    std::string unit{}; // of the next two: "percent", "impressions"
    int32_t level = kNotKnown;
    int32_t capacity = kNotKnown;
    int32_t percent = kNotKnown;
};

// Numbers of job-state, RFC 8011.
inline constexpr int32_t kJobPending = 3;
inline constexpr int32_t kJobHeld = 4;
inline constexpr int32_t kJobProcessing = 5;
inline constexpr int32_t kJobStopped = 6;

struct Job {
    int32_t id = 0;
    int32_t state = 0;
    std::string name{};
    std::string user{};
    int32_t pages = kNotKnown; // that are out
};

// What does not change while the printer runs.
struct Identity {
    std::string manufacturer{};
    std::string model{};
    std::string location{};
    std::string serial{};
    int32_t memoryKiB = kNotKnown;
    std::optional<bool> duplex{};
    std::optional<bool> colour{};
    std::optional<bool> finisher{};
    std::vector<std::string> outputBins{};
    std::vector<int32_t> finishings{}; // RFC 8011 and PWG 5100.1 numbers
};

enum class State : uint8_t { Unknown, Idle, Printing, Stopped };

struct Reading {
    std::optional<Identity> identity{}; // when it was read
    State state = State::Unknown;
    bool warmingUp = false;
    bool asleep = false;
    bool pausing = false; // or paused
    bool errors = false;
    bool warnings = false;
    std::optional<bool> acceptsJobs{};
    uint32_t conditions = 0;    // bits of product/conditions.h
    uint32_t about = 0;         // the number of the tray, supply or cover that the first one is about; 0: not told
    std::string otherReasons{}; // keywords that have no bit of their own
    std::string display{};      // what the printer says to people
    int32_t coverOpen = 0;      // 1: also by its own status
    std::vector<Tray> trays{};
    int32_t currentFeeder = kNotKnown; // number of the tray, from 1
    std::vector<Supply> supplies{};
    int64_t pageCount = kNotKnown;
    bool jobsKnown = false;
    std::vector<Job> jobs{}; // that are not over, oldest first
};

} // namespace devices
