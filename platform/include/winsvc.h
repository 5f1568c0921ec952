/* Services: processes that are known by a name, tell their state, and can be asked to stop. Win32, "Service Functions".
 *
 * A service is configured in HKEY_LOCAL_MACHINE "SYSTEM\CurrentControlSet\Services\<name>" (ImagePath, Type, Start,
 * ErrorControl, DisplayName). There is no controlling process: a running service keeps its status in a record of the
 * run directory under a lock that dies with it (service/record.h), so its end by any cause reads as stopped at once. A
 * service may also be started by hand or by another supervisor; it is the same service then. Calls give FALSE or NULL
 * and set the last error on failure. */
#ifndef ORIEL_WINSVC_H
#define ORIEL_WINSVC_H

#include <winerror.h>
#include <winnt.h>

WINBASE_BEGIN

/* A service manager or a service: a 32-bit value of this process, never 0. Closed by CloseServiceHandle. */
typedef struct SC_HANDLE__* SC_HANDLE;
typedef SC_HANDLE* LPSC_HANDLE;
/* What RegisterServiceCtrlHandlerA gives; it is never closed. */
typedef struct SERVICE_STATUS_HANDLE__* SERVICE_STATUS_HANDLE;

#define SERVICES_ACTIVE_DATABASEA "ServicesActive"

/* Rights of a service manager. */
#define SC_MANAGER_CONNECT 0x0001
#define SC_MANAGER_CREATE_SERVICE 0x0002
#define SC_MANAGER_ENUMERATE_SERVICE 0x0004
#define SC_MANAGER_LOCK 0x0008
#define SC_MANAGER_QUERY_LOCK_STATUS 0x0010
#define SC_MANAGER_MODIFY_BOOT_CONFIG 0x0020
#define SC_MANAGER_ALL_ACCESS                                                                                          \
    (STANDARD_RIGHTS_REQUIRED | SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE | SC_MANAGER_ENUMERATE_SERVICE |        \
     SC_MANAGER_LOCK | SC_MANAGER_QUERY_LOCK_STATUS | SC_MANAGER_MODIFY_BOOT_CONFIG)

/* Rights of a service. */
#define SERVICE_QUERY_CONFIG 0x0001
#define SERVICE_CHANGE_CONFIG 0x0002
#define SERVICE_QUERY_STATUS 0x0004
#define SERVICE_ENUMERATE_DEPENDENTS 0x0008
#define SERVICE_START 0x0010
#define SERVICE_STOP 0x0020
#define SERVICE_PAUSE_CONTINUE 0x0040
#define SERVICE_INTERROGATE 0x0080
#define SERVICE_USER_DEFINED_CONTROL 0x0100
#define SERVICE_ALL_ACCESS                                                                                             \
    (STANDARD_RIGHTS_REQUIRED | SERVICE_QUERY_CONFIG | SERVICE_CHANGE_CONFIG | SERVICE_QUERY_STATUS |                  \
     SERVICE_ENUMERATE_DEPENDENTS | SERVICE_START | SERVICE_STOP | SERVICE_PAUSE_CONTINUE | SERVICE_INTERROGATE |      \
     SERVICE_USER_DEFINED_CONTROL)

#define SERVICE_WIN32_OWN_PROCESS 0x00000010
#define SERVICE_AUTO_START 0x00000002
#define SERVICE_DEMAND_START 0x00000003
#define SERVICE_DISABLED 0x00000004
#define SERVICE_ERROR_IGNORE 0x00000000
#define SERVICE_ERROR_NORMAL 0x00000001

#define SERVICE_CONTROL_STOP 0x00000001
#define SERVICE_CONTROL_INTERROGATE 0x00000004
#define SERVICE_ACCEPT_STOP 0x00000001

#define SERVICE_STOPPED 0x00000001
#define SERVICE_START_PENDING 0x00000002
#define SERVICE_STOP_PENDING 0x00000003
#define SERVICE_RUNNING 0x00000004

/* 28 bytes. dwCheckPoint goes up while a service is starting or stopping; dwWaitHint: milliseconds until it should. */
typedef struct _SERVICE_STATUS {
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;
} SERVICE_STATUS, *LPSERVICE_STATUS;

typedef VOID(WINAPI* LPSERVICE_MAIN_FUNCTIONA)(DWORD argumentCount, LPSTR* arguments);
typedef VOID(WINAPI* LPHANDLER_FUNCTION)(DWORD control);

typedef struct _SERVICE_TABLE_ENTRYA {
    LPSTR lpServiceName;
    LPSERVICE_MAIN_FUNCTIONA lpServiceProc;
} SERVICE_TABLE_ENTRYA, *LPSERVICE_TABLE_ENTRYA;

/* machine: absent or empty, the local one (another: ERROR_NOT_SUPPORTED). database: absent or
 * SERVICES_ACTIVE_DATABASEA. access: rights as above or generic ones; SC_MANAGER_CONNECT is implied.
 * SC_MANAGER_CREATE_SERVICE is refused with ERROR_ACCESS_DENIED when this user may not write HKEY_LOCAL_MACHINE. */
WINBASEAPI SC_HANDLE WINAPI OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access);

/* Opens a configured service, or one that only runs. Names compare without case and have at most 80 bytes, no slash,
 * no backslash and no control characters (ERROR_INVALID_NAME). Rights that change something (all but the query and
 * interrogate rights, and READ_CONTROL) are refused with ERROR_ACCESS_DENIED when this user may not write
 * HKEY_LOCAL_MACHINE. ERROR_SERVICE_DOES_NOT_EXIST. */
WINBASEAPI SC_HANDLE WINAPI OpenServiceA(SC_HANDLE manager, LPCSTR name, DWORD access);

/* Writes a service's configuration; needs SC_MANAGER_CREATE_SERVICE. type is SERVICE_WIN32_OWN_PROCESS, start one of
 * SERVICE_AUTO_START, SERVICE_DEMAND_START, SERVICE_DISABLED (the first starts nothing by itself here), errorControl
 * SERVICE_ERROR_IGNORE or SERVICE_ERROR_NORMAL. path: the command line, quoted where the program's path has spaces;
 * nothing in it is replaced. The last five must be absent. ERROR_SERVICE_EXISTS. */
WINBASEAPI SC_HANDLE WINAPI CreateServiceA(SC_HANDLE manager, LPCSTR name, LPCSTR displayName, DWORD access, DWORD type,
                                           DWORD start, DWORD errorControl, LPCSTR path, LPCSTR loadOrderGroup,
                                           LPDWORD tag, LPCSTR dependencies, LPCSTR account, LPCSTR password);

/* Removes the configuration; needs DELETE. A running service goes on until it is stopped.
 * ERROR_SERVICE_MARKED_FOR_DELETE: it is no longer configured. */
WINBASEAPI BOOL WINAPI DeleteService(SC_HANDLE service);

WINBASEAPI BOOL WINAPI CloseServiceHandle(SC_HANDLE object);

/* Needs SERVICE_QUERY_STATUS. A service that does not run is stopped: with the exit code that it told,
 * ERROR_PROCESS_ABORTED when it ended without telling that it stopped, ERROR_SERVICE_NEVER_STARTED when it did not run
 * since the machine was started. */
WINBASEAPI BOOL WINAPI QueryServiceStatus(SC_HANDLE service, LPSERVICE_STATUS status);

/* Starts the configured program; needs SERVICE_START. Returns when the program is in its dispatcher: its state is
 * start pending, or already what the program told. argumentCount is 0 (else ERROR_NOT_SUPPORTED).
 * ERROR_SERVICE_ALREADY_RUNNING, ERROR_SERVICE_DISABLED, ERROR_SERVICE_REQUEST_TIMEOUT (it did not reach its dispatcher
 * within 30 seconds, and was killed), ERROR_PROCESS_ABORTED (it ended before that), what CreateProcessA gives. */
WINBASEAPI BOOL WINAPI StartServiceA(SC_HANDLE service, DWORD argumentCount, LPCSTR* arguments);

/* SERVICE_CONTROL_STOP (needs SERVICE_STOP) or SERVICE_CONTROL_INTERROGATE (needs SERVICE_INTERROGATE; tells the status
 * that the service published last). A stop returns when the service has reacted: status is stop pending or stopped.
 * ERROR_SERVICE_REQUEST_TIMEOUT: it did not within 30 seconds. ERROR_SERVICE_NOT_ACTIVE, ERROR_INVALID_SERVICE_CONTROL
 * (the service does not accept it), ERROR_SERVICE_CANNOT_ACCEPT_CTRL (it is starting or stopping), ERROR_ACCESS_DENIED
 * (this user may not signal the service's process). */
WINBASEAPI BOOL WINAPI ControlService(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status);

/* The service's own side. Runs the one service of a table of one row and an empty row, its main function on a thread of
 * its own, and returns when it has told SERVICE_STOPPED. SIGTERM and SIGINT to the process become SERVICE_CONTROL_STOP,
 * handled on the thread that called the dispatcher; so call it on the first thread, before any other is started:
 * signals are blocked in threads that are started later. argv[0] of the main function is the service's name. When
 * NOTIFY_SOCKET is set its reader (sd_notify(3)) is told READY=1 and STOPPING=1. A stop that comes while the service is
 * starting is kept until it accepts one. When the main function returns before it told any status, the service stops
 * with ERROR_PROCESS_ABORTED. ERROR_SERVICE_ALREADY_RUNNING: another
 * process runs this service, or the dispatcher was called before. ERROR_INVALID_DATA: an unusable table. */
WINBASEAPI BOOL WINAPI StartServiceCtrlDispatcherA(const SERVICE_TABLE_ENTRYA* table);

/* Called by the main function first. ERROR_SERVICE_NOT_IN_EXE: the process does not run that service. */
WINBASEAPI SERVICE_STATUS_HANDLE WINAPI RegisterServiceCtrlHandlerA(LPCSTR name, LPHANDLER_FUNCTION handler);

/* Publishes the service's status. ERROR_INVALID_DATA: unknown state, type or control. After SERVICE_STOPPED the process
 * has at most the dispatcher's return ahead of it. */
WINBASEAPI BOOL WINAPI SetServiceStatus(SERVICE_STATUS_HANDLE service, LPSERVICE_STATUS status);

#ifdef __cplusplus
static_assert(sizeof(SERVICE_STATUS) == 28);
#endif

WINBASE_END

#endif
