// The user and groups that this system lets a thread act as, and whom a thread impersonates.
#pragma once

#include <memory>
#include <sys/types.h>
#include <vector>
#include <windef.h>

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

// The credentials of this process, without what any thread impersonates. Throws std::bad_alloc.
Credentials OwnCredentials();

// The user and groups that the calling thread impersonates; false when it acts as its process. Throws std::bad_alloc.
bool ImpersonatedCredentials(Credentials& credentials);

// From now on that is what the calling thread impersonates, for who asks for its token; its ids stay as they are. Null:
// no more.
void SpeakFor(std::unique_ptr<Credentials> client);

// Has the calling thread act as these from now on, or as its process again; it then speaks for nobody. ERROR_SUCCESS;
// ERROR_PRIVILEGE_NOT_HELD or ERROR_ACCESS_DENIED, with everything as before. Throws std::bad_alloc.
DWORD ActAs(const Credentials& credentials);
DWORD ActAsProcess();

// Takes the calling thread back to the process's credentials as long as this exists, where it impersonates and may:
// what it then does is done in the process's name. Windows does so for the threads and processes that it starts and the
// servers that it connects to.
class AsOwnProcess {
public:
    AsOwnProcess();
    ~AsOwnProcess();
    AsOwnProcess(const AsOwnProcess&) = delete;
    AsOwnProcess& operator=(const AsOwnProcess&) = delete;

private:
    bool m_changed = false;
    Credentials m_impersonated;
};

} // namespace oriel
