// Queues of the printer. The service has no such type, so no manager makes these variables. The printer side makes them
// as variable-length and appends items; the library's reads take them out. State: the Queues record.
//
// Stored: u32 length (of what follows it), u32 count of items, the items, oldest first. Both sides change it under the
// database mutex.
#pragma once

#include "link.h"

#include <deque>
#include <map>

// The stored form of no items.
Bytes EmptyQueue();

struct Queues {
    std::map<std::string, DeviceQueue> known{};
    std::deque<DeviceValue> waiting{}; // items that wait for the mutex
    KernelHandle mutex{};
};

// The queues of the printer's model, as HKEY_LOCAL_MACHINE\SOFTWARE\Tavik\Oriel\Printers\<driver>\Status Variables has
// them.
std::vector<DeviceQueue> QueuesOfModel(const std::string& driver);

// The service's answer (kDone or the first failure), with the variable and the origin of a value that failed.
struct QueueResult {
    LONG status = 0;
    std::string variable{};
    std::string origin{};
};

// At each connection: makes the queues that do not exist yet, empty. more: the device's, which replace the model's of
// the same name. Returns the first failure.
QueueResult MakeQueues(Link& link, Queues& queues, const std::vector<DeviceQueue>& more);

// The item waits until PutItems finds the mutex free. When more than 1,000 wait the oldest is dropped.
void AddItem(Queues& queues, const DeviceValue& item);
// Appends the waiting items, unless somebody holds the mutex: then call it again after kQueueRetryMs. Returns the first
// failure. kUnknownVariable: neither model nor script has such a queue. kWrongSize: the item is larger than the
// queue's.
inline constexpr DWORD kQueueRetryMs = 20;
QueueResult PutItems(Link& link, Queues& queues);

void CloseQueues(Queues& queues);
