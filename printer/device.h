// The printer, as the printer side uses it: a struct of functions. A new kind of printer is a new table. State: the
// device's own, behind self.
//
// All functions are called on one thread, and none may block. A request that takes time says so by the reply's delay;
// the printer side continues meanwhile.
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
    std::string origin; // where it comes from, for messages: "day.script:12"
    bool item = false;  // appended to a queue
};

inline constexpr DWORD kQueueLength = 50;

// A queue variable. Programs take its items, the oldest first.
struct DeviceQueue {
    std::string variable;
    DWORD itemSize = 0;
    DWORD length = kQueueLength; // items it holds at most; one more removes the oldest
};

// The outcome of a request.
struct DeviceReply {
    LONG result = 0;                 // for the requester; 0 or a status of the library
    DWORD delayMs = 0;               // until it is answered
    bool silent = false;             // it is never answered
    std::vector<DeviceValue> values; // what the printer has now, stored before the answer
};

inline constexpr DWORD kNothingDue = INFINITE;
inline constexpr DWORD kHoldJobs = INFINITE;

struct Device {
    // All values of the printer. Called at each new connection with the service.
    std::vector<DeviceValue> (*state)(void* self);
    DeviceReply (*read)(void* self, const std::string& variable);
    DeviceReply (*write)(void* self, const std::string& variable, const Bytes& value);
    // argument: the requester's text in "RefreshStatus".
    DeviceReply (*refresh)(void* self, const std::string& argument);
    // The changes up to now. now: milliseconds since any start. *next: milliseconds until the next change.
    std::vector<DeviceValue> (*advance)(void* self, ULONGLONG now, DWORD* next);
    // Queues that the printer's model lacks, or has with other bounds.
    std::vector<DeviceQueue> (*queues)(void* self);
    // How long a page of a job takes now, in milliseconds; kHoldJobs: no page is printed.
    DWORD (*pageMs)(void* self);
    // So many pages of jobs were printed. Returns the values that change with it.
    std::vector<DeviceValue> (*pagesOut)(void* self, DWORD count);
    void* self;
};
