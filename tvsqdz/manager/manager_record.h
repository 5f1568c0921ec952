// The manager record: what a manager handle designates, the list of the process's managers, and the check of a handle.
//
// A handle is the record's address. The list is changed and walked under g_managerLock only, and a record is touched
// only by those who hold a reference to it: the list has one, and each call that found it has one. The last reference
// to go takes the record down, so a manager that is closed while another thread is in a call on it outlives that call.
#pragma once

#include "base/system.h"
#include "machine/process_state.h"
#include "manager/manager_database.h"

#include <atomic>
#include <stddef.h>
#include <stdint.h>
#include <tvsqdz.h>
#include <windows.h>

struct RetiredMutex;
struct StatusVariableDef;
struct ThreadRecord;

// Bits of ManagerRecord.flags, beside those of the platform (platform_version.h).
inline constexpr uint32_t ManagerOwnsPrinter = 0x00010000;    // the printer list entry's owner is this process
inline constexpr uint32_t ManagerServiceRunning = 0x00020000; // the manager service thread runs
inline constexpr uint32_t ManagerTerminating = 0x80000000;    // termination was requested through this manager

inline constexpr DWORD kPrinterNameSize = TVS_PRINTER_NAME_MAX + 1;
inline constexpr DWORD kUserNameSize = TVS_USER_NAME_MAX + 1;
inline constexpr DWORD kDatabaseNameSize = 260;

// A zero-filled block of the heap.
struct ManagerRecord {
    uint32_t flags;
    uint32_t clientKind; // 0 to 12
    // The variables of the printer, built-in and printer-defined ones merged, in the order of their names.
    uint32_t variableCount;
    const StatusVariableDef** variableIndex;
    StatusVariableDef* extraVariables; // the printer-defined rows; ended by a row without flags
    char* userName;                    // kUserNameSize bytes: on whose behalf the manager works
    // What the printer list says of the printer.
    uint32_t printerIndex;
    uint32_t ownerProcessId; // 0: none
    // As it was given at open; an update of a persistent variable takes over a new name. After the open it is read and
    // changed under g_managerLock (CurrentPrinterName).
    char printerName[kPrinterNameSize];
    // Another one when the printer has another number in the list of a new service. Read and changed as printerName is
    // (CurrentDatabaseName).
    char databaseName[kDatabaseNameSize];
    char* driverName; // null: unknown
    ManagerDatabase masterDatabase;
    ManagerDatabase printerDatabase;
    // The manager's threads. A record is added only while the manager is in the list: a close takes them all.
    ThreadRecord* registrations GUARDED_BY(g_managerLock);
    HANDLE databaseMutex;
    std::atomic<HANDLE> requestMutex;
    uint32_t lmFunction; // value of "LMFunction" at open; 0 under Windows NT 3.50 and 3.51
    ManagerRecord* next GUARDED_BY(g_managerLock);
    LONG volatile references;
    // The service that the databases are open in; 0: it does not tell.
    std::atomic<product::ServiceInstance> serviceInstance;
    RetiredMutex* retiredMutexes GUARDED_BY(g_managerLock); // request mutexes of names that the database had before
    std::atomic<DWORD> serviceLookedFor;                    // tick count: when a watcher last looked for a new service
};
static_assert(offsetof(ManagerRecord, flags) == 0 && offsetof(ManagerRecord, clientKind) == 4 &&
              offsetof(ManagerRecord, variableCount) == 8 && sizeof ManagerRecord::printerName == 260 &&
              sizeof ManagerRecord::databaseName == 260 && sizeof ManagerRecord::masterDatabase == 4 &&
              sizeof ManagerRecord::printerDatabase == 4 && sizeof ManagerRecord::lmFunction == 4);
static_assert(sizeof(void*) != 4 ||
              (offsetof(ManagerRecord, variableIndex) == 12 && offsetof(ManagerRecord, extraVariables) == 16 &&
               offsetof(ManagerRecord, userName) == 20 && offsetof(ManagerRecord, printerIndex) == 24 &&
               offsetof(ManagerRecord, ownerProcessId) == 28 && offsetof(ManagerRecord, printerName) == 32 &&
               offsetof(ManagerRecord, databaseName) == 292 && offsetof(ManagerRecord, driverName) == 552 &&
               offsetof(ManagerRecord, masterDatabase) == 556 && offsetof(ManagerRecord, printerDatabase) == 560 &&
               offsetof(ManagerRecord, registrations) == 564 && offsetof(ManagerRecord, databaseMutex) == 568 &&
               offsetof(ManagerRecord, requestMutex) == 572 && offsetof(ManagerRecord, lmFunction) == 576 &&
               offsetof(ManagerRecord, next) == 580));

// The open manager that the handle designates, or null. Only the handle's value is looked at.
ManagerRecord* FindManager(TvsManager handle) REQUIRES(g_managerLock);

// Appends the record to the list, which takes over a reference of the caller's.
void AppendManager(ManagerRecord* manager) EXCLUDES(g_managerLock);

// Takes the record off the list; false when it was not on it. The list's reference passes to the caller.
bool UnlinkManager(ManagerRecord* manager) EXCLUDES(g_managerLock);

inline TvsManager HandleOf(const ManagerRecord* manager) {
    return reinterpret_cast<TvsManager>(manager);
}

// Sets the bit of the platform in the record's flags.
void ClassifyPlatform(ManagerRecord* manager);

// Gives a reference back. Whoever gives back the last one takes the record down (DestroyManager).
void ReleaseManager(ManagerRecord* manager);

// Closes what the record holds and frees it: its databases, its mutexes, its names, its variables. Defined with the
// closing of managers.
void DestroyManager(ManagerRecord* manager);

// The printer's name now.
struct PrinterNameText {
    char text[kPrinterNameSize];
};
PrinterNameText CurrentPrinterName(ManagerRecord* manager) EXCLUDES(g_managerLock);
void ChangePrinterName(ManagerRecord* manager, const PrinterNameText& name) EXCLUDES(g_managerLock);

// The name of the printer's database now.
struct DatabaseNameText {
    char text[product::kDatabaseNameMax + 1];
};
DatabaseNameText CurrentDatabaseName(const ManagerRecord* manager) EXCLUDES(g_managerLock);

// A call on a manager, from the check of the handle to the export's return.
class ManagerCall {
public:
    explicit ManagerCall(TvsManager handle);
    ~ManagerCall();
    ManagerCall(const ManagerCall&) = delete;
    ManagerCall& operator=(const ManagerCall&) = delete;

    // False: the handle is not an open manager of this process (TVS_E_HANDLE).
    explicit operator bool() const { return m_manager != nullptr; }
    ManagerRecord* Manager() const { return m_manager; }

private:
    LibraryCall m_call;
    ManagerRecord* m_manager = nullptr;
};
