// The published state of services: one small file per service in RuntimeFolder("services").
//
// The running service holds a lock on its record, which the system drops when the process ends. The lock, not the
// record, says whether the service runs and in which process. Anybody may put files into a shared folder, so a record
// counts only when its file belongs to root, to the owner of the folder or to the reader, and its contents are checked.
#pragma once

#include "base/descriptor.h"
#include "kernel/handles.h"

#include <string>
#include <sys/types.h>
#include <winsvc.h>

namespace oriel {

// Folds a service's name for files and look-ups. Empty when the name is invalid: 1 to 80 bytes, without slash,
// backslash and control characters.
std::string FoldServiceName(const char* name);

struct ServiceState {
    bool known = false;    // it has run since the machine started
    bool running = false;  // its process exists
    pid_t process = 0;     // while it runs; 0 when not visible to this process
    DWORD lastProcess = 0; // the process that wrote the status
    SERVICE_STATUS status = {};
};

// folded: from FoldServiceName. A service that does not run reads as stopped. ERROR_SUCCESS, or why the record cannot
// be read.
DWORD ReadServiceState(const std::string& folded, ServiceState* state);

// The lock and the record of the one service of this process.
class OwnRecord {
public:
    // ERROR_SERVICE_ALREADY_RUNNING, ERROR_ACCESS_DENIED, and other reasons why the record is not available.
    DWORD Acquire(const std::string& folded, const SERVICE_STATUS& status);
    DWORD Tell(const SERVICE_STATUS& status);
    void Release();
    // True when this process runs the service; its last status.
    bool Holds(const std::string& folded, SERVICE_STATUS* status) const;

private:
    DWORD TryAcquire(const std::string& path, bool* again);

    Descriptor m_file;
    std::string m_folded;
    pid_t m_process = 0; // a fork child holds nothing
    SERVICE_STATUS m_status = {};
};

// Guarded by the dispatcher's lock (dispatcher.cpp); read through OwnStatus.
bool OwnStatus(const std::string& folded, SERVICE_STATUS* status);

struct ManagerObject : Object {};
struct ServiceObject : Object {
    std::string name; // as given by the caller
    std::string folded;
};
extern const ObjectType kManagerType;
extern const ObjectType kServiceType;

// The registry key of a service's configuration, below HKEY_LOCAL_MACHINE.
std::string ServiceKeyPath(const std::string& name);

} // namespace oriel
