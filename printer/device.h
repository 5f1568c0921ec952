// The printer, as the printer side uses it: a struct of functions. A new kind of printer is a new table. State: the
// device's own, behind self.
//
// All functions are called on one thread, and none may block: a request is handed over by `ask`, and its answer comes
// out of `take` whenever the device has it. A device that works in threads of its own sets its event `ready` when
// `take` has something new; one that acts by time says when (DeviceNews::nextMs).
#pragma once

#include <windows.h>

#include <string>
#include <vector>

using Bytes = std::vector<BYTE>;

// A value of the printer in the form of the library's A functions: of a variable-length variable, only the payload. A
// lone 32-bit number also fits a byte or word. A text or record that is too short is padded with zeros.
struct DeviceValue {
    std::string variable;
    Bytes bytes;
    std::string origin;       // where it comes from, for messages: "day.script:12"
    bool item = false;        // appended to a queue
    bool known = true;        // false: the printer does not tell it. bytes do not count; the initial value is stored
    bool onlyIfEmpty = false; // a text that does not replace another
};

inline constexpr DWORD kQueueLength = 50;

// A queue variable. Programs take its items, the oldest first.
struct DeviceQueue {
    std::string variable;
    DWORD itemSize = 0;
    DWORD length = kQueueLength; // items it holds at most; one more removes the oldest
};

enum class DeviceAsk { Read, Write, Refresh };

struct DeviceRequest {
    DWORD id = 0; // of the answer
    DeviceAsk kind = DeviceAsk::Read;
    std::string subject{}; // the variable; of a refresh, the requester's text in "RefreshStatus"
    Bytes value{};         // Write
};

struct DeviceAnswer {
    DWORD id = 0;
    LONG result = 0;                   // for the requester; 0 or a status of the library
    std::vector<DeviceValue> values{}; // what the printer has now, stored before the requester is told
};

inline constexpr DWORD kNothingDue = INFINITE;
inline constexpr DWORD kHoldJobs = INFINITE;

// How the device stands with its printer.
struct DeviceLink {
    bool up = true;           // it answers; requests can be made
    std::string trouble{};    // else: why not, in words
    std::string device{};     // for people: what is asked, without secrets; empty: not a device of its own
    ULONGLONG questions = 0;  // how many have ended so far, answered or not
    ULONGLONG answers = 0;    // of them
    DWORD answersEveryMs = 0; // the longest time between two answers while it is up; 0: values do not age
};

struct DeviceNews {
    std::vector<DeviceValue> changed{};
    std::vector<DeviceAnswer> answers{};
    DWORD nextMs = kNothingDue; // until `take` has more by itself
};

// now: milliseconds since any start.
struct Device {
    // What the printer is known to have. Called at each new connection with the service. What was read before the
    // printer stopped answering is not part of it: it would be stored as if it were new.
    std::vector<DeviceValue> (*state)(void* self);
    // False: it will never be answered.
    bool (*ask)(void* self, const DeviceRequest& request, ULONGLONG now);
    // Nobody waits for this answer any more.
    void (*drop)(void* self, DWORD id);
    // The changes and the answers up to now.
    DeviceNews (*take)(void* self, ULONGLONG now);
    const DeviceLink& (*link)(void* self);
    // Whether somebody follows the printer's values: worth asking it more often. Null: of no interest.
    void (*followed)(void* self, bool followed, ULONGLONG now);
    // Something has happened at the printer: ask it soon. Null: of no interest.
    void (*look)(void* self);
    // Queues that the printer's model lacks, or has with other bounds.
    std::vector<DeviceQueue> (*queues)(void* self);
    // How long a page of a job takes now, in milliseconds; kHoldJobs: no page is printed. Null: the device prints no
    // spooled jobs.
    DWORD (*pageMs)(void* self);
    // So many pages of jobs were printed. Returns the values that change with it. Null with pageMs.
    std::vector<DeviceValue> (*pagesOut)(void* self, DWORD count);

    DWORD answerLimitMs = INFINITE; // a request that is not answered by then is answered with TVS_E_NOT_NOW
    HANDLE ready = nullptr;         // event, auto-reset, of the device; null: none
    void* self = nullptr;
};
