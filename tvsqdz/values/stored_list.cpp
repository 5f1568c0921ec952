// Stored lists and job queues. State: the value, in a heap block from Load to the destructor.
#include "values/stored_list.h"

#include "base/memory.h"
#include "product/guards.h"
#include "product/name_order.h"

#include <string.h>

namespace {

struct ListHeader {
    uint32_t length;
    uint32_t count;
};
static_assert(sizeof(ListHeader) == 8);

} // namespace

StoredList::~StoredList() {
    FreeBlock(m_block);
}

SIZE_T StoredList::ItemOffset(uint32_t i) const {
    return sizeof(ListHeader) + SIZE_T{i} * m_itemSize;
}

Status StoredList::Load(uint32_t room) {
    DWORD size = 0;
    Answer answer = ReadVariable(m_database, m_name, nullptr, 0, &size);
    if (answer != Answer::Done) return PassOn(answer);
    const SIZE_T least = size > sizeof(ListHeader) ? size : sizeof(ListHeader);
    m_block = static_cast<BYTE*>(AllocateZeroed(least + SIZE_T{room} * m_itemSize));
    if (m_block == nullptr) return TVS_E_MEMORY;
    DWORD readSize = 0;
    answer = ReadVariable(m_database, m_name, m_block, size, &readSize);
    if (answer != Answer::Done) return PassOn(answer);
    if (size < sizeof(ListHeader)) return TVS_OK;
    ListHeader header;
    memcpy(&header, m_block, sizeof header);
    // A printer model may set an item size of 0; the count is then taken for bytes.
    const uint64_t there = (uint64_t{size} - sizeof header) / (m_itemSize > 0 ? m_itemSize : 1);
    m_count = header.count < there ? header.count : static_cast<uint32_t>(there);
    return TVS_OK;
}

const BYTE* StoredList::Item(uint32_t i) const {
    return m_block + ItemOffset(i);
}

void StoredList::Remove(uint32_t i) {
    BYTE* item = Item(i);
    memmove(item, item + m_itemSize, SIZE_T{m_count - i - 1} * m_itemSize);
    --m_count;
}

Answer StoredList::Store() {
    const uint32_t size = static_cast<uint32_t>(sizeof(ListHeader)) + m_count * m_itemSize;
    // Computed, not copied from what was read, which may have been wrong.
    const ListHeader header = {.length = size - static_cast<uint32_t>(sizeof header.length), .count = m_count};
    memcpy(m_block, &header, sizeof header);
    return WriteVariable(m_database, m_name, m_block, size);
}

uint32_t StoredList::NextNumber() const {
    uint32_t largest = 0;
    for (uint32_t i = 0; i < m_count; ++i) {
        uint32_t number = 0;
        memcpy(&number, Item(i), sizeof number);
        if (number > largest) largest = number;
    }
    return largest + 1;
}

namespace {

// Character by character: the second byte of a double-byte character may equal a letter.
bool IsSameUser(const char* a, const char* b, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        if (IsDBCSLeadByte(static_cast<BYTE>(a[i])) && i + 1 < length) {
            if (a[i] != b[i] || a[i + 1] != b[i + 1]) return false;
            ++i;
        } else if (FoldedLetter(a[i]) != FoldedLetter(b[i])) {
            return false;
        }
    }
    return true;
}

} // namespace

uint32_t CountOwnerJobs(const JobQueue& queue, const char* userName) {
    const size_t length = strlen(userName);
    uint32_t count = 0;
    for (uint32_t i = 0; i < queue.Count(); ++i) {
        const char* owner = queue.Job(i).ownerName;
        if (strnlen(owner, TVS_OWNER_NAME_SIZE) == length && IsSameUser(owner, userName, length)) ++count;
    }
    return count;
}

Status ReadOwnerJobCount(const ManagerDatabase& database, const char* queueName, const char* userName, MutexHold& lock,
                         uint32_t* count) {
    JobQueue queue(database, queueName);
    if (const Status status = queue.Load(); status != TVS_OK) return status;
    lock.Release();
    *count = CountOwnerJobs(queue, userName);
    return TVS_OK;
}
