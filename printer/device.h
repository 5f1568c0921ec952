// What the printer side talks to: a struct of functions, so that a new kind of printer is a new table.
//
// All are called on one thread, and none may block: what takes time is told by the reply's delay, and the printer side
// goes on meanwhile.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

using Bytes = std::vector<BYTE>;

// A value of the printer, as the library's A functions exchange it: of a variable-length variable the payload alone.
// A lone 32-bit number is also taken for a byte or word; a text or record that is too short is filled up with zeros.
struct DeviceValue {
    std::string variable;
    Bytes bytes;
    std::string origin; // where it comes from, for messages: "day.script:12"
    bool item = false;  // of a queue, which gets it behind the others
};

inline constexpr DWORD kQueueLength = 50;

// A queue that programs take items from, the oldest first.
struct DeviceQueue {
    std::string variable;
    DWORD itemSize = 0;
    DWORD length = kQueueLength; // items it holds at most; one more takes the oldest away
};

// How a request went.
struct DeviceReply {
    LONG result = 0;                 // what the requester gets; 0 or a status of the library
    DWORD delayMs = 0;               // until it is answered
    bool silent = false;             // it is never answered
    std::vector<DeviceValue> values; // what the printer has now, stored before the answer
};

inline constexpr DWORD kNothingDue = INFINITE;
inline constexpr DWORD kHoldJobs = INFINITE;

struct Device {
    // All that the printer has. Called at each new connection with the service.
    std::vector<DeviceValue> (*state)(void* self);
    DeviceReply (*read)(void* self, const std::string& variable);
    DeviceReply (*write)(void* self, const std::string& variable, const Bytes& value);
    // argument: what the requester gave.
    DeviceReply (*refresh)(void* self, const std::string& argument);
    // What has happened by now; now: milliseconds from any start on. *next: milliseconds until there is more.
    std::vector<DeviceValue> (*advance)(void* self, ULONGLONG now, DWORD* next);
    // Queues that it has beside those of the printer's model, or with other bounds.
    std::vector<DeviceQueue> (*queues)(void* self);
    // How long a page of a job takes now, in milliseconds; kHoldJobs: no page comes out.
    DWORD (*pageMs)(void* self);
    // So many pages of jobs came out.
    std::vector<DeviceValue> (*pagesOut)(void* self, DWORD count);
    void* self;
};
