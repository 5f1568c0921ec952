// The user and groups that a thread acts as, and whom it impersonates. State: credentials.cpp.
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

// The current effective ones of a process's first thread. False when there is no such process. Throws std::bad_alloc.
bool ProcessCredentials(pid_t process, Credentials& credentials);

// Makes them the effective ones of the calling thread only; its real and saved ids stay, so that it can return. False,
// with nothing changed, when the system refuses.
bool TakeOn(const Credentials& credentials);

// The credentials of this process, without impersonation by threads. Throws std::bad_alloc.
Credentials OwnCredentials();

// The user and groups that the calling thread impersonates; false when it acts as its process. Throws std::bad_alloc.
bool ImpersonatedCredentials(Credentials& credentials);

// Sets whom the calling thread impersonates for those who ask for its token; its ids do not change. Null: nobody.
void SpeakFor(std::unique_ptr<Credentials> client);

// Makes the calling thread act as these, or as its process again; it then impersonates nobody by token only.
// ERROR_SUCCESS; ERROR_PRIVILEGE_NOT_HELD or ERROR_ACCESS_DENIED, with nothing changed. Throws std::bad_alloc.
DWORD ActAs(const Credentials& credentials);
DWORD ActAsProcess();

// While it exists, the calling thread acts as its process, if it impersonates and may return. Windows does the same for
// threads and processes that it starts and servers that it connects to.
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
