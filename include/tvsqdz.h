/* tvsqdz.h: reading and changing the status of monitored printers.
 *
 * The contract of the library. If a function does not appear in this file, it is not published.
 *
 * A printer's status is a set of named variables. tvsqdz_variables.h lists the built-in ones, and tvsqdz_records.h has the
 * layouts of those that are records; a printer model may add and replace some. A program opens a manager for one printer,
 * and reads and updates variables through it:
 *
 *     #include <stdio.h>
 *     #include <tvsqdz_status.h>
 *
 *     int main(void) {
 *         TvsManager manager;
 *         uint32_t jam, size;
 *         int32_t status = OpenManagerA("Front desk", NULL, &manager);
 *         if (status == TVS_OK) {
 *             status = GetPrinterStatusA(manager, "ErrPaperJam", &jam, sizeof jam, &size);
 *             if (status == TVS_OK) printf("paper jam: %s\n", jam != 0 ? "yes" : "no");
 *             CloseManager(manager);
 *         }
 *         if (status != TVS_OK) fprintf(stderr, "Front desk: %s\n", TvsStatusText(status));
 *         return status != TVS_OK;
 *     }
 *
 * The product has to be up ("oriel up") and to know the printer ("oriel printers").
 *
 * Every function returns a signed 32-bit status: 0 for success, a negative code, or a positive code of the RPC run-time or
 * the system, passed on unchanged (1722: the status database service cannot be reached). The table below lists the library's
 * own codes, and tvsqdz_status.h says in words what each status means. A pointer that cannot be read or written gives
 * TVS_E_FAULT, unless the function says otherwise, and never a crash. Functions may be called from any thread; when a manager
 * is closed during a call of another thread, that call still completes.
 *
 * Text of the A functions is in the ANSI code page of the system, text of the W functions in UTF-16. All numbers in values
 * are little-endian. */
#ifndef TVSQDZ_H
#define TVSQDZ_H

#include <tvsqdz_records.h>

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define TVS_CALL __stdcall
#define TVS_EXPORT
#else
#define TVS_CALL
#define TVS_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Designates an open manager; valid in the process that opened it, until it is closed. */
typedef uintptr_t TvsManager;

/* 16 bytes, UTC: the platform's SYSTEMTIME, which <windows.h> declares. */
struct _SYSTEMTIME;

/* Status codes. */
#define TVS_OK 0
#define TVS_E_HANDLE (-1)            /* the handle is not an open manager of this process */
#define TVS_E_UNAVAILABLE (-16)      /* a manager cannot be opened: not installed, not initialised, no mutex, list or database */
#define TVS_E_UNKNOWN (-19)          /* unknown variable, or one that the operation does not serve; client kind above 12 */
#define TVS_E_MEMORY (-33)           /* out of memory; the printer's variables cannot be determined; a wide value too short */
#define TVS_E_FAULT (-34)            /* the caller's memory cannot be read or written */
#define TVS_E_SIZE (-36)             /* no buffer, or one too small: the returned size tells what is needed or was written */
#define TVS_E_REQUEST_LOCK (-38)     /* the request lock cannot be had */
#define TVS_E_NOT_READY (-48)        /* a wait timed out; the printer side is not ready; the port takes no direct requests */
#define TVS_E_NO_OWNER (-49)         /* no process owns the printer; the spooler cannot open it */
#define TVS_E_NOT_NOW (-50)          /* the printer takes no direct requests now; the job or printer is not there */
#define TVS_E_UNREGISTERED (-80)     /* client kind 1, and the printer's model is not registered */
#define TVS_E_SERVICE_TIMEOUT (-96)  /* the status database service did not come up in time */
#define TVS_E_AUTHORITY (-256)       /* the caller lacks the authority for direct access */

/* Answers of the status database service. A function whose description names some of them passes them on unchanged. They are
 * the service's own numbers, separate from the codes above; docs/service.md lists all of them.
 *
 *    -2  another printer has this name already
 *    -3  the printer's database is not open: after a restart of the service it could not be opened again
 *    -5  the printer's database has no such variable: another model made the database, or nobody has made this queue
 *    -7  the variable does not take a value of this size
 *    -8  the stored value is larger than the variable, or grew during the call
 *   -11  a limit of the service, or the user's share of it, is used up; a composite value is too large
 *   -14  nothing serves this printer's forwarded requests
 *   -15  the service is out of memory; nothing changed
 *   -18  the printer side did not answer a forwarded request in time
 *
 * When the service is down, and after it has come back.
 *
 * A call that does not reach the service gives 1722; one in progress when the service ends gives 1726 or 1727 (with 1726 it may
 * have been carried out). Calls do not wait for the service. With a new service, the next call through a manager opens its
 * databases there and is carried out; applications need not open anything again. Values with a copy in the printer's driver
 * data return; all others have their initial values until somebody writes them. Requests in progress end with 1726, and results
 * not yet taken with ResSetPrinterStatus are lost. Registrations continue: each is notified once, within two seconds, since it
 * may have missed a write. An owner (client kind 6) becomes the owner again, unless another process was faster.
 *
 * A service that stands still is not waited for without end either: a call ends with 1818 after 60 seconds, and may have been
 * carried out. Only direct reads and writes that are forwarded wait as long as the printer needs. Opens, and calls that change
 * or read what several processes change (lists, queues, values of variable length), wait at most 30 seconds for the lock that
 * guards it, and then give TVS_E_NOT_READY; an open gives TVS_E_UNAVAILABLE.
 *
 * While the service is down, these differ from 1722:
 *
 *   OpenManager...            TVS_E_UNAVAILABLE
 *   GetPrinterStatusW         TVS_OK, and an empty text or record, for strings and records of fixed size; their conversion
 *                             hides the code. To tell, read a number, or use GetPrinterStatusA.
 *   GetPrinterStatusInfo...   TVS_E_UNKNOWN
 *   direct reads and writes   TVS_E_NOT_NOW; TVS_E_AUTHORITY where requests are forwarded
 *   UpdatePrinterStatus...    TVS_OK for "Port", "SendingJobInfo" without a job, "PrintingJobInfo", "PrintingJobInfo2" and
 *                             "SetJob", which store nothing then; TVS_E_NOT_NOW for "PrinterName"
 *   ResSetPrinterStatus       TVS_OK, and TVS_E_UNKNOWN as the result
 *   SetNotification...        TVS_OK; delivery begins when the service is back
 *   CloseManager              TVS_OK */

/* Client kinds. 0, 7, 8, 9 and 10 need an initialised product (or one of its own executables); 1 needs a printer of a
 * registered model; 4 asks for compulsive polling; 6 becomes the printer's owner. */
#define TVS_KIND_DEFAULT 0
#define TVS_KIND_REGISTERED_MODELS 1
#define TVS_KIND_POLLING 4
#define TVS_KIND_OWNER 6
#define TVS_KIND_HIGHEST 12

/* Bounds of the names that an open takes, in bytes without the terminator. */
#define TVS_PRINTER_NAME_MAX 259
#define TVS_USER_NAME_MAX 63

/* Bits of "UserAuthority": what the calling user may do with the printer. */
#define TVS_AUTHORITY_PRINT 0x01u
#define TVS_AUTHORITY_OWN_JOBS 0x02u     /* manage jobs of one's own */
#define TVS_AUTHORITY_ALL_JOBS 0x04u     /* manage everybody's jobs */
#define TVS_AUTHORITY_DIRECT_READ 0x08u  /* ask the printer itself */
#define TVS_AUTHORITY_DIRECT_WRITE 0x10u /* change settings of the printer itself */

/* Bits that requests to the printer depend on: of "PrinterExtStatus", of "SpoolerStatus", of a port's portKind. */
#define TVS_EXT_STATUS_TAKES_REQUESTS 0x1u
#define TVS_SPOOLER_READY 0x4u /* for forwarded requests */
#define TVS_SPOOLER_RUNS 0x8u  /* refresh requests are taken */
#define TVS_PORT_NO_REQUESTS 0x8u

/* Opens a manager for a printer.
 *
 * printerName  name of the printer, 1 to 259 bytes; case counts
 * userName     on whose behalf the manager works, at most 63 bytes; null, unreadable or empty: the logon name of the caller
 * clientKind   0 to 12
 * manager      receives the handle; TVS_E_UNAVAILABLE when it cannot be written
 *
 * The first open of a printer adds it to the printer list and fills its database with the initial value of every variable.
 * A name that is empty or too long, also after its conversion from the wide form, is TVS_E_UNAVAILABLE.
 * OpenManagerA and OpenManagerW are the Ex forms with client kind 0.
 * Returns TVS_OK, TVS_E_UNAVAILABLE, TVS_E_UNKNOWN, TVS_E_MEMORY, TVS_E_FAULT, TVS_E_UNREGISTERED or TVS_E_SERVICE_TIMEOUT. */
TVS_EXPORT int32_t TVS_CALL OpenManagerA(const char* printerName, const char* userName, TvsManager* manager);
TVS_EXPORT int32_t TVS_CALL OpenManagerExA(const char* printerName, const char* userName, uint32_t clientKind,
                                           TvsManager* manager);
TVS_EXPORT int32_t TVS_CALL OpenManagerW(const TvsWideChar* printerName, const TvsWideChar* userName,
                                         TvsManager* manager);
TVS_EXPORT int32_t TVS_CALL OpenManagerExW(const TvsWideChar* printerName, const TvsWideChar* userName,
                                           uint32_t clientKind, TvsManager* manager);

/* Closes a manager and everything that was registered through it. Managers that are still open when the process ends, or when
 * the library is unloaded, are closed then; a service that is stopped delays the end of a process by less than 3 seconds. The
 * library stays loaded until the last asynchronous request has ended: close the managers before you unload it. After a fork,
 * the handles of the parent are unknown in the child, which may open managers of its own.
 * Returns TVS_OK, or TVS_E_HANDLE. */
TVS_EXPORT int32_t TVS_CALL CloseManager(TvsManager manager);

/* Reads the current value of a variable.
 *
 * buffer        receives the value; null to ask for its size
 * size          of the buffer, in bytes
 * returnedSize  receives the bytes written, or with no buffer the size needed; always written
 *
 * A number or record is returned unchanged, a string up to its NUL, a variable-length value as its payload, and of a queue the
 * oldest item, which is removed. A buffer that is too small receives the first part (a string stays terminated), with status
 * TVS_E_SIZE.
 * Returns TVS_OK, TVS_E_HANDLE, TVS_E_UNKNOWN, TVS_E_MEMORY, TVS_E_FAULT, TVS_E_SIZE, an answer of the service (-3, -5, -8 or
 * -11, for a queue also -15) or a positive RPC code. */
TVS_EXPORT int32_t TVS_CALL GetPrinterStatusA(TvsManager manager, const char* variable, void* buffer, uint32_t size,
                                              uint32_t* returnedSize);

/* Reads the wide form of a value. The name has up to 31 characters.
 *
 * Strings and the records of tvsqdz_records.h are returned in their wide form, all other values as by GetPrinterStatusA. A
 * string ends at its NUL; in a buffer that is too small it is cut at a whole character and terminated, with status TVS_E_SIZE.
 * Its returned size is twice that of the buffer; without a buffer it is that of the whole wide field, with status TVS_E_MEMORY.
 * A record or a queue is returned whole or not at all: without a buffer, or with one that is too small, the status is
 * TVS_E_MEMORY and the returned size is the size needed; of a queue the count is still written.
 *
 * Returns what GetPrinterStatusA returns; but when the service does not return a string or record of fixed size, the result is
 * an empty one with the status of its conversion. */
TVS_EXPORT int32_t TVS_CALL GetPrinterStatusW(TvsManager manager, const TvsWideChar* variable, void* buffer,
                                              uint32_t size, uint32_t* returnedSize);

/* Reads the current value from the printer itself: the printer side asks the printer, and the call waits for the answer,
 * however long that takes. A printer handles one request at a time, in the whole system.
 *
 * buffer, size, returnedSize  as for GetPrinterStatusA; with no buffer the printer is not asked. A string that is cut is not
 *                             terminated.
 *
 * A printer can be asked for variables with names of up to 31 characters, the limit of a request; a longer name gives
 * TVS_E_UNKNOWN.
 *
 * A variable that a printer cannot be asked for is read as by GetPrinterStatusA. The wide form returns the wide form of the
 * value, as GetPrinterStatusW does.
 * Returns, in the order in which they are tested, TVS_E_HANDLE, TVS_E_UNKNOWN, TVS_E_NOT_NOW (the printer side takes no
 * requests), TVS_E_NOT_READY (the port takes none, or the spooler that forwards them is not ready), TVS_E_AUTHORITY,
 * TVS_E_SIZE, the result of the printer side if it is not 0, TVS_E_MEMORY, TVS_E_FAULT, TVS_OK; or an answer of the service
 * (-3, -5, -7, -8, -11, -15; -14 or -18 of a forwarded request) or a positive RPC code. */
TVS_EXPORT int32_t TVS_CALL GetPrinterStatusDirectA(TvsManager manager, const char* variable, void* buffer, uint32_t size,
                                                    uint32_t* returnedSize);
TVS_EXPORT int32_t TVS_CALL GetPrinterStatusDirectW(TvsManager manager, const TvsWideChar* variable, void* buffer,
                                                    uint32_t size, uint32_t* returnedSize);

/* Writes a value to the printer, and waits for the answer of the printer side, however long that takes. The value in the
 * database changes when the printer side writes it. A write of "RefreshStatus", a text, requests a refresh instead, and needs
 * no authority. A variable that printers do not take goes to the library's handler for it, if there is one.
 *
 * data, size  the value as the variable's type has it; of a variable-length value its payload. A text of a refresh ends at its
 *             NUL or at the size. The wide form takes the wide form of the value, as UpdatePrinterStatusW does.
 *
 * A printer takes variables with names of up to 30 characters, one less than in a read, because the request names another
 * variable, with a "W" appended. A longer name gives TVS_E_UNKNOWN.
 *
 * Returns, in the order in which they are tested, TVS_E_HANDLE, TVS_E_UNKNOWN, TVS_E_NOT_NOW, TVS_E_AUTHORITY, TVS_E_SIZE (not
 * the size that the variable has), TVS_E_NOT_READY, TVS_E_MEMORY, TVS_E_FAULT, TVS_E_NOT_NOW (a refresh, and the spooler takes
 * none), TVS_E_UNKNOWN (the value is not one that the variable takes), the result of the printer side, which is TVS_OK when
 * it has done it, or what UpdatePrinterStatusA tells of "SetJob" and "DeleteJobId"; or an answer of the service (-3, -5, -7,
 * -8, -11, -15; -14 or -18 of a forwarded request) or a positive RPC code. */
TVS_EXPORT int32_t TVS_CALL SetPrinterStatusDirectA(TvsManager manager, const char* variable, const void* data,
                                                    uint32_t size);
TVS_EXPORT int32_t TVS_CALL SetPrinterStatusDirectW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                                    uint32_t size);

/* Tells when a variable was last written, readable or not. The wide form takes names of up to 31 characters.
 * Returns TVS_OK, TVS_E_HANDLE, TVS_E_UNKNOWN (also when the service does not tell) or TVS_E_FAULT. */
TVS_EXPORT int32_t TVS_CALL GetPrinterStatusInfoA(TvsManager manager, const char* variable,
                                                  struct _SYSTEMTIME* writeTime);
TVS_EXPORT int32_t TVS_CALL GetPrinterStatusInfoW(TvsManager manager, const TvsWideChar* variable,
                                                  struct _SYSTEMTIME* writeTime);

/* Stores a value. A string is terminated in its last byte; a variable-length value is given as its payload. The service refuses
 * a size that the variable does not take. For a persistent variable the copy in the printer's driver data is updated too,
 * whatever the service answers.
 *
 * Writes of some variables do more than store a value. They use the first part of a value that is too long:
 *
 *   SendingJobInfo    a job other than 0 is appended to "PrinterQueue" too, which keeps the newest 50
 *   PrintingJobInfo   jobId 0: printing has ended, and the job goes from "PrinterQueue" if it is at its head. progress 0: the
 *                     first report of a job, which gets its names from the head; a later one gets them from the first
 *   PrintingJobInfo2  the same
 *   SetJob            1 pauses, 2 resumes in the print spooler the job that is being sent; TVS_E_UNKNOWN for other numbers
 *   DeleteJobId       cancels the job of that number; TVS_E_NOT_NOW when there is none, or when it is being deleted
 *   Port              another port than the one before takes the configuration variables back to their initial values
 *   PrinterName       renames the printer for all processes, in the printer list too; TVS_E_NOT_NOW when it is not there
 *   TerminateManager  asks all managers to shut down
 *
 * The commands to the spooler return TVS_E_NO_OWNER when it does not open the printer or does not list its jobs. The outcome of
 * a command is not reported.
 *
 * Returns TVS_OK, TVS_E_HANDLE, TVS_E_UNKNOWN, TVS_E_MEMORY, TVS_E_FAULT, TVS_E_NO_OWNER, TVS_E_NOT_NOW, an answer of the
 * service (-2 for "PrinterName", -3, -5, -7, -8, -11 or -15) or a positive RPC code. */
TVS_EXPORT int32_t TVS_CALL UpdatePrinterStatusA(TvsManager manager, const char* variable, const void* data,
                                                 uint32_t size);

/* Stores the wide form of a value. The name has up to 31 characters.
 *
 * data, size  a string with its NUL (without one it loses its last character); a record of its wide size at least; a queue
 *             of as many entries as it counts; any other value as UpdatePrinterStatusA takes it
 *
 * Text that does not fit its field in the ANSI code page is cut at a whole character and terminated; a character that the code
 * page lacks becomes its default character.
 * Returns what UpdatePrinterStatusA returns, and TVS_E_MEMORY for a value that ends before its record does. */
TVS_EXPORT int32_t TVS_CALL UpdatePrinterStatusW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                                 uint32_t size);

/* Asynchronous requests: a direct read or write on a thread of the library, while the caller goes on.
 *
 * Completion sets an event (a HANDLE of the platform, with the right to modify it, which must stay open until then) or posts a
 * message (a number) with both parameters 0 to a window (an HWND). A request may outlive its manager; one that is still in
 * progress when the library is unloaded ends as not answered. A printer handles one request at a time in the whole system, and
 * a call of the read forms or of SetReqPrinterStatusMsgA waits until the previous request has ended.
 *
 * A read ends when the printer side has answered, or after 60 seconds; the value is then read with GetPrinterStatusA. In a
 * process that has opened only managers of kinds 0, 7 and 9, a read that completes with a message is carried out by the process
 * that owns the printer: TVS_E_NO_OWNER when there is none, or when it takes no requests for 10 seconds.
 *
 * A write returns its number at once; *requestId is 0 on failure. ResSetPrinterStatus returns its result: that of the printer
 * side; TVS_E_REQUEST_LOCK when it did not get its turn within 5 seconds or was not answered within 60; an answer of the
 * service (as of SetPrinterStatusDirectA) or a positive RPC code. Until the write ends the result is TVS_REQUEST_PENDING, or 0
 * for the message form. A message for a window that is gone is not posted, and the result is dropped. Values, and a write of
 * "RefreshStatus", are as for SetPrinterStatusDirectA and SetPrinterStatusDirectW.
 *
 * Return, in the order in which they are tested, TVS_E_FAULT (requestId), TVS_E_HANDLE, TVS_E_NO_OWNER (message forms),
 * TVS_E_UNKNOWN (also for what no printer can be asked for, or a name of more than 31 characters, for a write 30), TVS_E_NOT_NOW
 * (the printer side takes no requests), then for a read TVS_E_NOT_READY (the port takes none) and TVS_E_AUTHORITY, for a write the
 * authority first; TVS_E_NOT_READY (the spooler is not ready), TVS_E_MEMORY and TVS_E_FAULT (the data), TVS_E_REQUEST_LOCK,
 * TVS_E_NOT_NOW (a refresh, and the spooler takes none), TVS_E_UNKNOWN (the value is not one that the variable takes),
 * TVS_E_MEMORY (also when no thread can be started), TVS_OK; or an answer of the service (-3, -5, -7, -8, -11 or -15) or a
 * positive RPC code. */
TVS_EXPORT int32_t TVS_CALL GetReqPrinterStatusEventA(TvsManager manager, const char* variable, void* event);
TVS_EXPORT int32_t TVS_CALL GetReqPrinterStatusMsgA(TvsManager manager, const char* variable, void* window,
                                                    uint32_t message);
TVS_EXPORT int32_t TVS_CALL GetReqPrinterStatusEventW(TvsManager manager, const TvsWideChar* variable, void* event);
TVS_EXPORT int32_t TVS_CALL GetReqPrinterStatusMsgW(TvsManager manager, const TvsWideChar* variable, void* window,
                                                    uint32_t message);
TVS_EXPORT int32_t TVS_CALL SetReqPrinterStatusEventA(TvsManager manager, const char* variable, const void* data,
                                                      uint32_t size, void* event, uint32_t* requestId);
TVS_EXPORT int32_t TVS_CALL SetReqPrinterStatusMsgA(TvsManager manager, const char* variable, const void* data,
                                                    uint32_t size, void* window, uint32_t message, uint32_t* requestId);
TVS_EXPORT int32_t TVS_CALL SetReqPrinterStatusEventW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                                      uint32_t size, void* event, uint32_t* requestId);
TVS_EXPORT int32_t TVS_CALL SetReqPrinterStatusMsgW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                                    uint32_t size, void* window, uint32_t message, uint32_t* requestId);

#define TVS_REQUEST_PENDING (-1)

/* Takes the result of an asynchronous write request, once; that of an unfinished request is taken too. *result receives it, or
 * TVS_E_UNKNOWN when no such request is recorded. A result that cannot be written to *result is not taken.
 * Returns TVS_OK, TVS_E_HANDLE, TVS_E_MEMORY, TVS_E_FAULT or TVS_E_NOT_READY. */
TVS_EXPORT int32_t TVS_CALL ResSetPrinterStatus(TvsManager manager, uint32_t requestId, int32_t* result);

/* Notification: a program is notified of every change of a variable by an event that is set, a message that is posted, or a
 * function that is called. Each registration has a thread of the library, which waits and delivers. A write during a delivery
 * is delivered afterwards, so whoever then reads the variable gets the last value, but several writes in a row may be delivered
 * once. Some variables deliver every write, most only writes that change the value.
 *
 * Names of more than 31 characters give TVS_E_UNKNOWN. On failure nothing is registered, and a handle that cannot be written
 * (TVS_E_FAULT) undoes its registration. Registrations end with their manager. */

/* Designates a registration of a manager. Valid until it is cancelled or its manager is closed. */
typedef uintptr_t TvsRegistration;

/* A function that is called after a variable was written.
 *
 * manager   the one that it was registered through
 * index     the variable's place in the list of an Ex registration, from 0; else 0. "CurrentStatus", "JobStatus",
 *           "SendingJobInfo" and "SpoolerQueue" have 0 in a list too: they are told apart by their names
 * variable  its name
 * value     the value as the database stores it: a variable-length one with a u32 length (of what follows it) in front; good
 *           during the call only. Null, with size 0, when it was registered without value or the value cannot be had
 *
 * It runs on the registration's thread, which has a stack of 64 KiB and does nothing else meanwhile. It may call this library,
 * also to cancel its registration or to close the manager; it is then not called again. */
typedef void(TVS_CALL* TvsCallback)(TvsManager manager, uint32_t index, const char* variable, const void* value,
                                    uint32_t size);

/* Sets an event (a HANDLE of the platform, with the right to modify it, open as long as the registration lives) whenever the
 * variable was written. The Ex form watches the first `count` variables of a list of names separated by ";", an event each.
 *
 * registration  receives the handle
 *
 * Returns TVS_OK, TVS_E_HANDLE, TVS_E_UNKNOWN (a name is unknown or missing, or a list has more than 63 variables beside the
 * job records and queues, "PrinterStatus", "PrinterExtStatus", "CurrentStatus" and "JobStatus", which have a thread of their
 * own each), TVS_E_MEMORY (also when no thread can be started) or TVS_E_FAULT. */
TVS_EXPORT int32_t TVS_CALL SetNotificationEventA(TvsManager manager, const char* variable, void* event,
                                                  TvsRegistration* registration);
TVS_EXPORT int32_t TVS_CALL SetNotificationEventExA(TvsManager manager, uint32_t count, const char* variables,
                                                    void* const* events, TvsRegistration* registration);
TVS_EXPORT int32_t TVS_CALL SetNotificationEventW(TvsManager manager, const TvsWideChar* variable, void* event,
                                                  TvsRegistration* registration);
TVS_EXPORT int32_t TVS_CALL SetNotificationEventExW(TvsManager manager, uint32_t count, const TvsWideChar* variables,
                                                    void* const* events, TvsRegistration* registration);

/* The same by a message that is posted to a window (an HWND) with both parameters 0. The Ex form has a message number for each
 * variable. A window that is gone or whose queue is full gets no message.
 *
 * In a process that has opened only managers of kinds 0, 7 and 9, the process that owns the printer serves the registrations
 * and posts the messages: TVS_E_NO_OWNER when no manager of kind 6 is open. The handle is then a number that all entries of a
 * list share, the single form accepts any name, a list is limited by its text only (64 KiB), and answers of the service (-3,
 * -5, -7, -8, -11 or -15) are passed on. Such a registration ends with its manager too, and about a second after its window
 * or its process is gone. */
TVS_EXPORT int32_t TVS_CALL SetNotificationMsgA(TvsManager manager, const char* variable, void* window, uint32_t message,
                                                TvsRegistration* registration);
TVS_EXPORT int32_t TVS_CALL SetNotificationMsgExA(TvsManager manager, uint32_t count, const char* variables, void* window,
                                                  const uint32_t* messages, TvsRegistration* registration);
TVS_EXPORT int32_t TVS_CALL SetNotificationMsgW(TvsManager manager, const TvsWideChar* variable, void* window,
                                                uint32_t message, TvsRegistration* registration);
TVS_EXPORT int32_t TVS_CALL SetNotificationMsgExW(TvsManager manager, uint32_t count, const TvsWideChar* variables,
                                                  void* window, const uint32_t* messages, TvsRegistration* registration);

/* The same by a function call. withoutValue: not 0 when the function needs no value, which saves reading it. A null function
 * gives TVS_E_FAULT. */
TVS_EXPORT int32_t TVS_CALL SetNotificationCallbackA(TvsManager manager, const char* variable, TvsCallback callback,
                                                     uint32_t withoutValue, TvsRegistration* registration);
TVS_EXPORT int32_t TVS_CALL SetNotificationCallbackExA(TvsManager manager, uint32_t count, const char* variables,
                                                       const TvsCallback* callbacks, const uint32_t* withoutValue,
                                                       TvsRegistration* registration);

/* Cancels a registration; nothing is delivered after the call has returned. The call waits for a running function, for at most
 * 3 seconds; then its thread is terminated, wherever it is. Cancelling a registration in its own function returns at once.
 *
 * KillNotificationEvent and KillNotificationCallback do the same: each cancels any registration that this process serves.
 * KillNotificationMsg cancels message registrations, also those that the printer's owner serves; of these an unknown number
 * gives TVS_OK. It cancels them also after the process has opened a manager of another kind; an unknown number is then
 * TVS_E_HANDLE.
 * Returns TVS_OK, or TVS_E_HANDLE when the manager has no such registration; KillNotificationMsg also TVS_E_NO_OWNER,
 * TVS_E_MEMORY, an answer of the service (-3, -5, -7, -8, -11 or -15) or a positive RPC code for those that the owner serves. */
TVS_EXPORT int32_t TVS_CALL KillNotificationEvent(TvsManager manager, TvsRegistration registration);
TVS_EXPORT int32_t TVS_CALL KillNotificationCallback(TvsManager manager, TvsRegistration registration);
TVS_EXPORT int32_t TVS_CALL KillNotificationMsg(TvsManager manager, TvsRegistration registration);

#ifdef __cplusplus
}
#endif

#endif
