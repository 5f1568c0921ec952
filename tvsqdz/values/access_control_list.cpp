// One value of the service, held in the record while it is small and in a block of the heap beyond that.
#include "values/access_control_list.h"

#include <string.h>

namespace {

constexpr char kName[] = "AccessControlList";
// A list that outgrows the room that was just asked for, time after time, is not believable.
constexpr int kAttempts = 8;

} // namespace

void AccessControlList::Drop() {
    FreeBlock(m_block);
    m_block = nullptr;
    m_size = 0;
}

Status AccessControlList::Load(const ManagerDatabase& database) {
    Drop();
    DWORD size = 0;
    Answer answer = ReadVariable(database, kName, m_small, sizeof m_small, &size);
    for (int i = 0; i < kAttempts && answer == Answer::BufferTooSmall; ++i) {
        FreeBlock(m_block);
        const DWORD room = size;
        m_block = static_cast<BYTE*>(AllocateZeroed(room));
        if (m_block == nullptr) return TVS_E_MEMORY;
        answer = ReadVariable(database, kName, m_block, room, &size);
    }
    if (answer != Answer::Done) {
        Drop();
        return PassOn(answer);
    }
    m_size = size;
    return TVS_OK;
}

bool AccessControlList::operator==(const AccessControlList& other) const {
    return m_size == other.m_size && memcmp(Value(), other.Value(), m_size) == 0;
}
