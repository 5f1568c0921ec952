// State: the Queues record.
#include "queues.h"

#include "product/model_variables.h"

#include <algorithm>
#include <iterator>
#include <string.h>

using namespace product;

namespace {

constexpr SIZE_T kWaitingMax = 1000; // items
constexpr SIZE_T kHeader = 2 * sizeof(DWORD);

DWORD WordAt(const Bytes& bytes, SIZE_T at) {
    DWORD word = 0;
    memcpy(&word, &bytes[at], sizeof word);
    return word;
}

void SetWordAt(Bytes& bytes, SIZE_T at, DWORD word) {
    memcpy(&bytes[at], &word, sizeof word);
}

// Anybody may write the variable. A value that is not a queue of such items counts as empty.
bool IsQueue(const Bytes& value, const DeviceQueue& queue) {
    if (value.size() < kHeader || WordAt(value, 0) != value.size() - sizeof(DWORD)) return false;
    return (value.size() - kHeader) / queue.itemSize == WordAt(value, sizeof(DWORD)) &&
           (value.size() - kHeader) % queue.itemSize == 0;
}

LONG PutItem(Link& link, const DeviceQueue& queue, const DeviceValue& item) {
    if (item.bytes.size() > queue.itemSize) return kWrongSize;
    Bytes value;
    if (const LONG status = ReadBytes(link, queue.variable.c_str(), &value); status != kDone) return status;
    if (!IsQueue(value, queue)) value = EmptyQueue();
    DWORD count = WordAt(value, sizeof(DWORD));
    const DWORD surplus = count < queue.length ? 0 : count - queue.length + 1;
    const auto oldest = value.begin() + kHeader;
    value.erase(oldest, oldest + static_cast<ptrdiff_t>(SIZE_T{surplus} * queue.itemSize));
    count = count - surplus + 1;
    value.insert(value.end(), item.bytes.begin(), item.bytes.end());
    value.resize(kHeader + SIZE_T{count} * queue.itemSize);
    SetWordAt(value, 0, static_cast<DWORD>(value.size() - sizeof(DWORD)));
    SetWordAt(value, sizeof(DWORD), count);
    return WriteBytes(link, queue.variable.c_str(), value.data(), static_cast<DWORD>(value.size()));
}

} // namespace

Bytes EmptyQueue() {
    Bytes value(kHeader);
    SetWordAt(value, 0, sizeof(DWORD)); // of the count
    return value;
}

std::vector<DeviceQueue> QueuesOfModel(const std::string& driver) {
    std::vector<DeviceQueue> queues;
    const RegistryKey key = OpenModelVariables(driver.c_str());
    if (!key) return queues;
    for (DWORD index = 0;; ++index) {
        constexpr DWORD kDataMax = 12; // of a queue's value
        char name[kVariableNameMax + 1];
        DWORD nameSize = sizeof name;
        BYTE data[kDataMax];
        DWORD size = sizeof data;
        const LSTATUS status = RegEnumValueA(key.Get(), index, name, &nameSize, nullptr, nullptr, data, &size);
        if (status == ERROR_MORE_DATA) continue; // another kind of variable
        if (status != ERROR_SUCCESS) break;
        ModelVariable variable;
        if (!ReadModelVariable({name, nameSize}, data, size, &variable)) continue;
        if ((variable.flags & SVT_MASK) != SVT_QUEUE || variable.size == 0) continue;
        if (variable.size <= (kValueSizeMax - kHeader) / kQueueLength)
            queues.push_back({.variable = name, .itemSize = variable.size, .length = kQueueLength});
    }
    return queues;
}

QueueResult MakeQueues(Link& link, Queues& queues, const std::vector<DeviceQueue>& more) {
    QueueResult result;
    queues.known.clear();
    for (const std::vector<DeviceQueue>& list : {QueuesOfModel(link.driver), more})
        for (const DeviceQueue& queue : list)
            queues.known[queue.variable] = queue;
    const Bytes empty = EmptyQueue();
    for (const auto& [name, queue] : queues.known) {
        const LONG status = CreateQueue(link, name.c_str(), empty.data(), static_cast<DWORD>(empty.size()));
        if (result.status == kDone && status != kDone && status != kVariableExists) result = {status, name};
    }
    return result;
}

void AddItem(Queues& queues, const DeviceValue& item) {
    if (queues.waiting.size() == kWaitingMax) queues.waiting.pop_front();
    queues.waiting.push_back(item);
}

QueueResult PutItems(Link& link, Queues& queues) {
    QueueResult result;
    if (queues.waiting.empty()) return result;
    if (!queues.mutex)
        queues.mutex = KernelHandle(CreateMutexForEveryone(ObjectName(link.terminalServer, kDatabaseMutexName).text));
    MutexHold hold;
    if (!queues.mutex || !hold.Acquire(queues.mutex.Get(), 0)) return result;
    while (!queues.waiting.empty()) {
        const DeviceValue& item = queues.waiting.front();
        const auto queue = queues.known.find(item.variable);
        const LONG status = queue == queues.known.end() ? kUnknownVariable : PutItem(link, queue->second, item);
        if (link.lost) break; // the item is appended at the next connection
        if (result.status == kDone && status != kDone) result = {status, item.variable, item.origin};
        queues.waiting.pop_front();
    }
    return result;
}

void CloseQueues(Queues& queues) {
    queues.mutex.Reset();
}
