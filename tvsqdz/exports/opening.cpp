// OpenManager and OpenManagerEx, A and W. Under the machine-wide database mutex an open finds or adds the printer in
// the printer list, creates or opens the printer's database, and opens the mutexes that later calls need. State: the
// manager's record.
#include "exports/opening.h"

#include "base/memory.h"
#include "base/system.h"
#include "exports/attach.h"
#include "exports/closing.h"
#include "machine/objects.h"
#include "machine/status_service.h"
#include "manager/kind_effects.h"
#include "manager/printer_list.h"
#include "manager/printer_registration.h"
#include "manager/variable_index.h"
#include "product/client_kinds.h"
#include "product/guards.h"
#include "product/variable_names.h"
#include "requests/owner.h"
#include "values/database_creation.h"

#include <string.h>

namespace {

constexpr DWORD kServiceSeconds = 60;
// The start-up process, the service and this process: with fewer processes the service may still be starting.
constexpr uint32_t kProcessesOfARunningProduct = 3;
constexpr DWORD kLogonNameSize = 80;

using names::kCompulsivePolling;

// A manager that is being opened, with the database mutex. Unless it is kept, the destructor undoes everything. The
// open has its own reference: another thread could close the manager once it is in the list.
class Opening {
public:
    explicit Opening(ManagerRecord* record) : m_manager(record) { m_manager->references = 1; }
    ~Opening() {
        if (!m_kept) {
            if ((m_manager->flags & ManagerOwnsPrinter) != 0) ReleasePrinterOwnership(m_manager);
            CloseDatabases(m_manager); // before another open can come between
        }
        databaseLock.Release();
        ReleaseManager(m_manager);
    }
    Opening(const Opening&) = delete;
    Opening& operator=(const Opening&) = delete;

    ManagerRecord* Manager() const { return m_manager; }
    // Puts the manager into the list, which takes a reference.
    void Keep() {
        InterlockedIncrement(&m_manager->references);
        AppendManager(m_manager);
        m_kept = true;
    }

    DatabaseLock databaseLock;

private:
    ManagerRecord* m_manager;
    bool m_kept = false;
};

bool HasObjectSecurity(const ManagerRecord* manager) {
    if ((manager->flags & OsNtAny) == 0) return true; // the default of the platform
    const ManagerLockHold lock;
    return EnsureObjectSecurity();
}

bool ProductIsInitialised() {
    // Only the product's own user may change it.
    const KernelHandle initialised(OpenEventA(SYNCHRONIZE, FALSE, ObjectName(product::kProductInitialisedName).text));
    return initialised && WaitForSingleObject(initialised.Get(), 0) == WAIT_OBJECT_0;
}

// Windows NT 3.50 and 3.51 let applications start before the services are up. Later systems do not, and under Windows
// 95/98/Me the creation of a database restarts a missing service.
bool StatusServiceIsUp(const ManagerRecord* manager) {
    if ((manager->flags & (OsNt350 | OsNt351)) == 0) return true;
    if (ProcessCount() >= kProcessesOfARunningProduct || g_openManagerCount != 0) return true;
    return WaitForStatusService(kServiceSeconds);
}

// Written twice, with the name of the driver in between: watchers of the variable are notified when all of it is there.
void WritePrinterName(ManagerRecord* manager) {
    WriteVariable(manager->printerDatabase, names::kPrinterName, manager->printerName, sizeof manager->printerName);
    LookUpDriverName(manager);
    WriteVariable(manager->printerDatabase, names::kPrinterName, manager->printerName, sizeof manager->printerName);
}

} // namespace

Status ObtainPrinterDatabase(ManagerRecord* manager) {
    if (manager->printerDatabase.handle != 0) return TVS_OK; // was there when the list was opened
    EnteredDatabase database;
    if (CreateOrOpenDatabase(manager->databaseName, &database) != Answer::Done) return TVS_E_UNAVAILABLE;
    TakeDatabase(manager->printerDatabase, database);
    if (!database.created) return TVS_OK;
    switch (CreatePrinterVariables(manager)) {
    case Population::Done:
        WritePrinterName(manager);
        return TVS_OK;
    case Population::NoMemory:
        return TVS_E_MEMORY; // the destructor closes the database, and the next open creates it
    case Population::NotReady:
        break;
    }
    return TVS_E_UNAVAILABLE;
}

void AskForPolling(ManagerRecord* manager) {
    const uint32_t on = 1;
    if (manager->clientKind != TVS_KIND_POLLING) return;
    manager->pollingEvent = CreateNamedEvent(product::VariableEventName(
        g_terminalServer, manager->databaseName, kCompulsivePolling, product::VariableSignal::Updated));
    WriteVariable(manager->printerDatabase, kCompulsivePolling, &on, sizeof on);
}

namespace {

bool SetUserName(ManagerRecord* manager, const char* userName) {
    manager->userName = static_cast<char*>(AllocateZeroed(kUserNameSize));
    if (manager->userName == nullptr) return false;
    char logonName[kLogonNameSize];
    DWORD size = sizeof logonName;
    const char* name = userName;
    if (*name == '\0') name = GetUserNameA(logonName, &size) ? logonName : "";
    memcpy(manager->userName, name, strnlen(name, kUserNameSize - 1)); // a longer logon name is cut
    return true;
}

void ReadLmFunction(ManagerRecord* manager) {
    if ((manager->flags & (OsNt350 | OsNt351)) != 0) return; // stays 0
    DWORD valueSize = 0;
    ReadVariable(manager->printerDatabase, names::kLMFunction, &manager->lmFunction, sizeof manager->lmFunction,
                 &valueSize);
}

// Its printer side may have ended when all managers were asked to shut down; whoever starts it again waits for this
// event.
void TellOfOpen(const ManagerRecord* manager) {
    const DWORD lastError = GetLastError();
    const KernelHandle opened(
        OpenEventA(EVENT_MODIFY_STATE, FALSE, product::OpenedEventName(g_terminalServer, manager->printerName).text));
    if (opened) SetEvent(opened.Get());
    SetLastError(lastError);
}

// From what needs no lock to the manager in the list.
Status JoinTheProduct(Opening& opening, const OpenNames& names) {
    ManagerRecord* manager = opening.Manager();
    // Before the mutex, since it may take ten seconds.
    if ((manager->flags & OsNtAny) != 0 && g_openManagerCount == 0 &&
        kClientKinds[manager->clientKind].repairsDefaultPrinter)
        RepairDefaultPrinter(manager->printerName);
    manager->databaseMutex = CreateOrOpenMutex(ObjectName(kDatabaseMutexName));
    if (manager->databaseMutex == nullptr || !opening.databaseLock.Acquire(*manager)) return TVS_E_UNAVAILABLE;
    if (!StatusServiceIsUp(manager)) return TVS_E_SERVICE_TIMEOUT;
    if (!AttachPrinterDatabase(manager, nullptr)) return TVS_E_UNAVAILABLE;
    if (!BuildVariableIndex(manager)) return TVS_E_MEMORY; // also when the driver of the printer is unknown
    if (const Status status = ObtainPrinterDatabase(manager); status != TVS_OK) return status;
    if (!SetUserName(manager, names.user)) return TVS_E_MEMORY;
    manager->requestMutex = CreateOrOpenMutex(RequestMutexName(manager->databaseName));
    if (manager->requestMutex == nullptr) return TVS_E_UNAVAILABLE;
    ReadLmFunction(manager);
    // Its record has to be the first, so it is created before anybody can register.
    if ((manager->flags & ManagerOwnsPrinter) != 0 && !StartManagerService(manager)) return TVS_E_MEMORY;

    opening.Keep();
    AskForPolling(manager);
    ++g_openManagerCount;
    TellOfOpen(manager);
    return TVS_OK;
}

// Creates the record and opens it; *handle designates it on success.
Status OpenRecord(const OpenNames& names, uint32_t clientKind, TvsManager* handle) {
    ManagerRecord* manager = static_cast<ManagerRecord*>(AllocateZeroed(sizeof(ManagerRecord)));
    if (manager == nullptr) return TVS_E_MEMORY;
    Opening opening(manager);
    ClassifyPlatform(manager);
    manager->clientKind = clientKind;
    memcpy(manager->printerName, names.printer, sizeof manager->printerName);
    if (!HasObjectSecurity(manager)) return TVS_E_UNAVAILABLE;
    if (kClientKinds[clientKind].needsProduct && !ProductIsInitialised() && !IsOwnProcess()) return TVS_E_UNAVAILABLE;
    const Status status = JoinTheProduct(opening, names);
    if (status == TVS_OK) *handle = HandleOf(manager);
    return status;
}

bool StartAgent(TvsManager handle) {
    const ManagerCall call(handle);
    return call && LaunchDesktopAgent(call.Manager());
}

} // namespace

Status OpenManager(const OpenNames& names, uint32_t clientKind, TvsManager* handleOutput) {
    if (IsForkChild() && !AttachForkChild()) return TVS_E_UNAVAILABLE;
    const LibraryCall call;
    if (!call || !g_installed) return TVS_E_UNAVAILABLE; // before any argument is checked
    if (clientKind == TVS_KIND_REGISTERED_MODELS) {
        if (names.printerStatus != TVS_OK) return names.printerStatus;
        if (IsUnsupportedPrinter(names.printer)) return TVS_E_UNREGISTERED;
    }
    if (clientKind > TVS_KIND_HIGHEST) return TVS_E_UNKNOWN;
    if (names.printerStatus != TVS_OK) return names.printerStatus;
    if (names.printer[0] == '\0')
        return TVS_E_UNAVAILABLE; // no printer has an empty name, but the list would keep it for good
    if (names.userStatus != TVS_OK) return names.userStatus;
    // They stay set even when a later step fails.
    AddKindBits(kClientKinds[clientKind].bit);
    g_processKindMask |= kClientKinds[clientKind].bit;

    // The manager is open now. Two steps may still fail: writing the handle to the caller, and starting the agent.
    TvsManager handle = 0;
    if (const Status status = OpenRecord(names, clientKind, &handle); status != TVS_OK) return status;
    if (!CopyToCaller(handleOutput, &handle, sizeof handle) ||
        (kClientKinds[clientKind].startsAgent && !StartAgent(handle))) {
        CloseManagerOf(handle);
        return TVS_E_UNAVAILABLE;
    }
    return TVS_OK;
}

namespace {

template <SIZE_T size>
CallerText ReadName(char (&name)[size], const char* callersName) {
    return ReadCallerText(name, size, callersName);
}

template <SIZE_T size>
CallerText ReadName(char (&name)[size], const WCHAR* callersName) {
    return ReadCallerName(name, callersName);
}

Status StatusOf(CallerText read) {
    switch (read) {
    case CallerText::Read:
        return TVS_OK;
    case CallerText::Fault:
        return TVS_E_FAULT;
    case CallerText::TooLong:
        break;
    }
    return TVS_E_UNAVAILABLE;
}

template <typename Character>
OpenNames ReadNames(const Character* printerName, const Character* userName) {
    OpenNames names;
    names.printerStatus = StatusOf(ReadName(names.printer, printerName));
    names.userStatus = StatusOf(ReadName(names.user, userName));
    if (names.userStatus == TVS_E_FAULT) {
        names.user[0] = '\0'; // counts as absent
        names.userStatus = TVS_OK;
    }
    return names;
}

} // namespace

int32_t TVS_CALL OpenManagerExA(const char* printerName, const char* userName, uint32_t clientKind,
                                TvsManager* manager) {
    return OpenManager(ReadNames(printerName, userName), clientKind, manager);
}

int32_t TVS_CALL OpenManagerA(const char* printerName, const char* userName, TvsManager* manager) {
    return OpenManagerExA(printerName, userName, 0, manager);
}

int32_t TVS_CALL OpenManagerW(const TvsWideChar* printerName, const TvsWideChar* userName, TvsManager* manager) {
    return OpenManager(ReadNames(printerName, userName), 0, manager);
}

int32_t TVS_CALL OpenManagerExW(const TvsWideChar* printerName, const TvsWideChar* userName, uint32_t clientKind,
                                TvsManager* manager) {
    return OpenManager(ReadNames(printerName, userName), clientKind, manager);
}
