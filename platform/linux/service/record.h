// What a service tells of itself, for all to read: one small file for each service in RuntimeFolder("services").
//
// The running service holds a lock on its record that the system drops when the process ends, by whatever cause; the
// lock, and not the record, says whether it runs and which process it is. Anybody may put files into a shared folder,
// so a record counts only when its file belongs to root, to the folder's owner or to the reader; what it holds is
// checked before it is believed.
#pragma once

#include "base/descriptor.h"
#include "kernel/handles.h"

#include <string>
#include <sys/types.h>
#include <winsvc.h>

namespace oriel {

// A service's name as files and look-ups have it. Empty for one that no service can have: 1 to 80 bytes, without slash,
// backslash and control characters.
std::string FoldServiceName(const char* name);

struct ServiceState {
    bool known = false;    // it has run since the machine was started
    bool running = false;  // its process is there
    pid_t process = 0;     // while it runs; 0 when that is beyond this process's view
    DWORD lastProcess = 0; // who told the status
    SERVICE_STATUS status = {};
};

// folded: as FoldServiceName gives it. A service that is not running reads as stopped. ERROR_SUCCESS or why the record
// cannot be read.
DWORD ReadServiceState(const std::string& folded, ServiceState* state);

// The lock and record of the one service of this process.
class OwnRecord {
public:
    // ERROR_SERVICE_ALREADY_RUNNING, ERROR_ACCESS_DENIED, and other reasons why the record cannot be had.
    DWORD Acquire(const std::string& folded, const SERVICE_STATUS& status);
    DWORD Tell(const SERVICE_STATUS& status);
    void Release();
    // Whether this process runs the service, and what it told last.
    bool Holds(const std::string& folded, SERVICE_STATUS* status) const;

private:
    DWORD TryAcquire(const std::string& path, bool* again);

    Descriptor m_file;
    std::string m_folded;
    pid_t m_process = 0; // a fork child holds nothing
    SERVICE_STATUS m_status = {};
};

// Guarded by the dispatcher's lock (dispatcher.cpp); reading goes through OwnStatus.
bool OwnStatus(const std::string& folded, SERVICE_STATUS* status);

struct ManagerObject : Object {};
struct ServiceObject : Object {
    std::string name; // as it was asked for
    std::string folded;
};
extern const ObjectType kManagerType;
extern const ObjectType kServiceType;

// The key of a service's configuration, below HKEY_LOCAL_MACHINE.
std::string ServiceKeyPath(const std::string& name);

} // namespace oriel
