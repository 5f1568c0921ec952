// No state but the record's.
#include "queues.h"

#include <algorithm>
#include <iterator>
#include <string.h>

using namespace product;

namespace {

constexpr char kModelsKey[] = "SOFTWARE\\Tavik\\Oriel\\Printers\\";
constexpr char kVariablesKey[] = "\\Status Variables";
constexpr DWORD kTypeMask = 0x300000FF; // of the flags of a model's variable
constexpr DWORD kTypeQueue = 0x80;
constexpr SIZE_T kWaitingMax = 1000; // items; more than that nobody waits for
constexpr SIZE_T kHeader = 2 * sizeof(DWORD);

// A model's queue variable, as its registry value has it.
struct ModelQueue {
    DWORD itemSize;
    DWORD flags;
    DWORD unused;
};
static_assert(sizeof(ModelQueue) == 12);

DWORD WordAt(const Bytes& bytes, SIZE_T at) {
    DWORD word = 0;
    memcpy(&word, &bytes[at], sizeof word);
    return word;
}

void SetWordAt(Bytes& bytes, SIZE_T at, DWORD word) {
    memcpy(&bytes[at], &word, sizeof word);
}

Bytes EmptyQueue() {
    Bytes value(kHeader);
    SetWordAt(value, 0, sizeof(DWORD)); // of the count
    return value;
}

// Anybody may have written the variable: what is no queue of such items is an empty one.
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

std::vector<DeviceQueue> QueuesOfModel(const std::string& driver) {
    std::vector<DeviceQueue> queues;
    HKEY key = nullptr;
    const std::string path = kModelsKey + driver + kVariablesKey;
    if (driver.empty() || RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return queues;
    for (DWORD index = 0;; ++index) {
        char name[kVariableNameMax + 1];
        DWORD nameSize = sizeof name;
        ModelQueue queue{};
        DWORD size = sizeof queue;
        const LSTATUS status =
            RegEnumValueA(key, index, name, &nameSize, nullptr, nullptr, reinterpret_cast<BYTE*>(&queue), &size);
        if (status == ERROR_MORE_DATA) continue; // another kind of variable
        if (status != ERROR_SUCCESS) break;
        if (size != sizeof queue || (queue.flags & kTypeMask) != kTypeQueue || queue.itemSize == 0) continue;
        if (queue.itemSize <= (kValueSizeMax - kHeader) / kQueueLength)
            queues.push_back({.variable = name, .itemSize = queue.itemSize, .length = kQueueLength});
    }
    RegCloseKey(key);
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
    if (!queues.mutex) {
        EveryoneAccess everyone;
        queues.mutex =
            CreateMutexA(&everyone.attributes, FALSE, ObjectName(link.terminalServer, kDatabaseMutexName).text);
    }
    const DWORD wait = queues.mutex ? WaitForSingleObject(queues.mutex, 0) : WAIT_FAILED;
    if (wait != WAIT_OBJECT_0 && wait != WAIT_ABANDONED) return result;
    while (!queues.waiting.empty()) {
        const DeviceValue& item = queues.waiting.front();
        const auto queue = queues.known.find(item.variable);
        const LONG status = queue == queues.known.end() ? kUnknownVariable : PutItem(link, queue->second, item);
        if (link.lost) break; // it is put in once there is another connection
        if (result.status == kDone && status != kDone) result = {status, item.variable, item.origin};
        queues.waiting.pop_front();
    }
    ReleaseMutex(queues.mutex);
    return result;
}

void CloseQueues(Queues& queues) {
    if (queues.mutex) CloseHandle(queues.mutex);
    queues.mutex = nullptr;
}
