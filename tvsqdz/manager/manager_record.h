// The manager record, the list of the process's managers, and the check of a manager handle.
//
// A handle is the address of the record. The list is changed and walked only under g_managerLock, and a record is
// accessed only by those who hold a reference to it: the list has one, and so has each call that found it. Releasing
// the last reference destroys the record, so a manager that one thread closes while another is in a call on it outlives
// that call.
#pragma once

#include "base/system.h"
#include "machine/process_state.h"
#include "manager/manager_database.h"
#include "product/guards.h"

#include <atomic>
#include <stddef.h>
#include <stdint.h>
#include <tvsqdz.h>
#include <windows.h>

struct RelayedRegistration;
struct RetiredMutex;
struct StatusVariableDef;
struct ThreadRecord;

// Bits of ManagerRecord.flags, besides those of the platform (base/system.h).
inline constexpr uint32_t ManagerOwnsPrinter = 0x00010000;    // this process is the owner in the printer list
inline constexpr uint32_t ManagerServiceRunning = 0x00020000; // the manager service thread runs
inline constexpr uint32_t ManagerTerminating = 0x80000000;    // termination was requested through this manager

inline constexpr DWORD kPrinterNameSize = TVS_PRINTER_NAME_MAX + 1;
inline constexpr DWORD kUserNameSize = TVS_USER_NAME_MAX + 1;
inline constexpr DWORD kDatabaseNameSize = 260;

// In a zero-filled block of the heap.
struct ManagerRecord {
    uint32_t flags;
    uint32_t clientKind; // 0 to 12
    // The built-in variables merged with those of the printer model, in the order of their names.
    uint32_t variableCount;
    const StatusVariableDef** variableIndex;
    StatusVariableDef* extraVariables; // the rows of the printer model; ended by a row without flags
    char* userName;                    // kUserNameSize bytes: the user on whose behalf the manager works
    // From the printer list.
    uint32_t printerIndex;
    uint32_t ownerProcessId; // 0: none
    HANDLE ownerEvent;       // of a manager that became the owner (product::OwnerName), else null
    // The name given at open; an update of a persistent variable adopts a new one. After the open it is read and
    // changed under g_managerLock (CurrentPrinterName).
    char printerName[kPrinterNameSize];
    // Changes when the printer has another number in the list of a new service. Read and changed like printerName
    // (CurrentDatabaseName).
    char databaseName[kDatabaseNameSize];
    char* driverName; // null: unknown
    ManagerDatabase masterDatabase;
    ManagerDatabase printerDatabase;
    // The manager's threads. Records are added only while the manager is in the list, so a close sees all of them.
    ThreadRecord* registrations GUARDED_BY(g_managerLock);
    RelayedRegistration* relayed GUARDED_BY(g_managerLock); // those that the printer's owner serves for the manager
    HANDLE databaseMutex;
    std::atomic<HANDLE> requestMutex;
    // The event of "CompulsivePolling", of a manager of the polling kind: the printer is polled while one has it open.
    HANDLE pollingEvent;
    uint32_t lmFunction; // value of "LMFunction" at open; 0 under Windows NT 3.50 and 3.51
    ManagerRecord* next GUARDED_BY(g_managerLock);
    LONG volatile references;
    // The instance of the service in which the databases are open; 0: unknown.
    std::atomic<product::ServiceInstance> serviceInstance;
    RetiredMutex* retiredMutexes GUARDED_BY(g_managerLock); // request mutexes of earlier database names
    std::atomic<DWORD> serviceLookedFor;                    // tick count of the last check for a new service
    // Of the thread that rouses the watchers when a service has started: it was begun; it is at work.
    std::atomic<bool> startIsWatched;
    std::atomic<bool> rousesWatchers;
    ThreadRecord* startWatch GUARDED_BY(g_managerLock); // null: none
};

// The open manager that the handle designates, or null. The handle is compared, never dereferenced.
ManagerRecord* FindManager(TvsManager handle) REQUIRES(g_managerLock);

// Appends the record to the list, which takes over one reference of the caller.
void AppendManager(ManagerRecord* manager) EXCLUDES(g_managerLock);

// Removes the record from the list; false when it was not there. The list's reference passes to the caller.
bool UnlinkManager(ManagerRecord* manager) EXCLUDES(g_managerLock);

inline TvsManager HandleOf(const ManagerRecord* manager) {
    return reinterpret_cast<TvsManager>(manager);
}

// Sets the bit of the platform in the flags.
void ClassifyPlatform(ManagerRecord* manager);

// Releases a reference; the last one destroys the record (DestroyManager).
void ReleaseManager(ManagerRecord* manager);

// Closes what the record holds and frees it: databases, mutexes, names, variables. Defined in exports/closing.cpp.
void DestroyManager(ManagerRecord* manager);

// The printer's current name.
struct PrinterNameText {
    char text[kPrinterNameSize];
};
PrinterNameText CurrentPrinterName(ManagerRecord* manager) EXCLUDES(g_managerLock);
void ChangePrinterName(ManagerRecord* manager, const PrinterNameText& name) EXCLUDES(g_managerLock);

// The current name of the printer's database.
struct DatabaseNameText {
    char text[product::kDatabaseNameMax + 1];
};
DatabaseNameText CurrentDatabaseName(const ManagerRecord* manager) EXCLUDES(g_managerLock);

// The database mutex, which is waited for as long as Timings.databaseLockBound says: its holder may have been stopped.
struct DatabaseLock : MutexHold {
    DatabaseLock() = default;
    explicit DatabaseLock(const ManagerRecord& manager) { Acquire(manager); }

    bool Acquire(const ManagerRecord& manager);
};

// A call on a manager, from the check of the handle to the return of the export.
class ManagerCall {
public:
    explicit ManagerCall(TvsManager handle);
    ~ManagerCall();
    ManagerCall(const ManagerCall&) = delete;
    ManagerCall& operator=(const ManagerCall&) = delete;

    // False when the handle is not an open manager of this process (TVS_E_HANDLE).
    explicit operator bool() const { return m_manager != nullptr; }
    ManagerRecord* Manager() const { return m_manager; }

private:
    LibraryCall m_call;
    ManagerRecord* m_manager = nullptr;
};
