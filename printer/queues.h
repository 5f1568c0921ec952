// Queues of the printer: variables that no manager makes, since the service knows no such type. The printer side makes
// them, variable-length, and puts items in; the library's reads take them out again.
//
// Stored: u32 length (of what follows it), u32 count of items, the items, oldest first. Both sides change it under the
// database mutex.
#pragma once

#include "link.h"

#include <deque>
#include <map>

struct Queues {
    std::map<std::string, DeviceQueue> known{};
    std::deque<DeviceValue> waiting{}; // items that are not in their queue yet
    KernelHandle mutex{};
};

// The queues of the printer's model, as HKEY_LOCAL_MACHINE\SOFTWARE\Tavik\Oriel\Printers\<driver>\Status Variables has
// them.
std::vector<DeviceQueue> QueuesOfModel(const std::string& driver);

// What the service answered, kDone or not; to which variable, and where what it did not take comes from.
struct QueueResult {
    LONG status = 0;
    std::string variable{};
    std::string origin{};
};

// At each connection: makes those that are not there yet, empty. more: of the device; they count in place of the
// model's. The first failure.
QueueResult MakeQueues(Link& link, Queues& queues, const std::vector<DeviceQueue>& more);

// The item waits until PutItems finds the mutex free. Of more than 1,000 that wait the oldest goes.
void AddItem(Queues& queues, const DeviceValue& item);
// Puts in what waits, unless somebody holds the mutex: then it is to be called again after kQueueRetryMs. The first
// failure: kUnknownVariable: neither model nor script has such a queue; kWrongSize: its items are smaller.
inline constexpr DWORD kQueueRetryMs = 20;
QueueResult PutItems(Link& link, Queues& queues);

void CloseQueues(Queues& queues);
