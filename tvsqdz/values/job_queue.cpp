// Whose jobs are in a queue. Keeps nothing.
#include "values/job_queue.h"

#include "product/guards.h"
#include "product/name_order.h"

#include <string.h>

namespace {

// Character by character: the second byte of a double-byte character may look like a letter and is none.
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
