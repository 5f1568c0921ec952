// The user and groups that this system lets a thread act as: what tokens are made of.
#pragma once

#include <sys/types.h>
#include <vector>

namespace oriel {

struct Credentials {
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups; // supplementary, sorted

    bool operator==(const Credentials&) const = default;
};

// The effective ones of the calling thread. Throws std::bad_alloc.
Credentials ThreadCredentials();

// The effective ones of the first thread of a process, now. False when there is no such process. Throws std::bad_alloc.
bool ProcessCredentials(pid_t process, Credentials& credentials);

// Makes them the effective ones of the calling thread, and of no other; its real and saved ids stay, so that it can go
// back. False, with everything as before, when the system refuses it.
bool TakeOn(const Credentials& credentials);

} // namespace oriel
