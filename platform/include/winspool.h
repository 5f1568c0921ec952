/* Printers and jobs of the print spooler. Win32, "Print Spooler API Functions".
 *
 * There are two sources of printers. The embedded spool is a database in the state directory (spooler/embedded.h) that
 * all users of the machine read; its jobs are files of their users (spooler/job_files.h). A printer of it whose name
 * starts with two backslashes is a connection to another machine's; the others are local, and have their driver and
 * port also in HKEY_LOCAL_MACHINE "System\CurrentControlSet\Control\Print\Printers\<name>" (backslashes of the name as
 * commas), values "Printer Driver" and "Port", as Windows NT keeps them. Queues of the system's print server (CUPS;
 * spooler/print_server.h) are local printers too, unless the embedded spool has one of that name. A call that needs
 * that server waits two seconds for it at most: ERROR_TIMEOUT, RPC_S_SERVER_UNAVAILABLE. Names compare without case.
 * Calls give FALSE and set the last error on failure. */
#ifndef ORIEL_WINSPOOL_H
#define ORIEL_WINSPOOL_H

#include <minwinbase.h>
#include <windef.h>
#include <winerror.h>
#include <winnt.h>

WINBASE_BEGIN

#define PRINTER_ENUM_LOCAL 0x00000002
#define PRINTER_ENUM_CONNECTIONS 0x00000004
#define PRINTER_ENUM_NETWORK 0x00000040

/* A printer's Status. The print server tells these two; the embedded spool has none. */
#define PRINTER_STATUS_PAUSED 0x00000001
#define PRINTER_STATUS_NOT_AVAILABLE 0x00001000 /* accepts no jobs */

#define PRINTER_ATTRIBUTE_SHARED 0x00000008
#define PRINTER_ATTRIBUTE_NETWORK 0x00000010
#define PRINTER_ATTRIBUTE_LOCAL 0x00000040

/* Device settings are not kept: the type is opaque and its pointers are absent. */
typedef struct _devicemodeA DEVMODEA, *PDEVMODEA, *LPDEVMODEA;

/* What a printer is opened for; pDatatype and pDevMode must be absent. */
typedef struct _PRINTER_DEFAULTSA {
    LPSTR pDatatype;
    LPDEVMODEA pDevMode;
    ACCESS_MASK DesiredAccess;
} PRINTER_DEFAULTSA, *PPRINTER_DEFAULTSA, *LPPRINTER_DEFAULTSA;

#define PRINTER_ACCESS_ADMINISTER 0x00000004
#define PRINTER_ACCESS_USE 0x00000008
#define PRINTER_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | PRINTER_ACCESS_ADMINISTER | PRINTER_ACCESS_USE)

/* Rights on jobs, as entries of a printer's list give them. */
#define JOB_ACCESS_ADMINISTER 0x00000010
#define JOB_ACCESS_READ 0x00000020

/* Level 2. On a 64-bit machine 136 bytes: 13 pointers and 8 words; with 32 bits 84. Strings are in the ANSI code page.
 * What the spool does not keep is absent (pDevMode, pSecurityDescriptor) or an empty string. */
typedef struct _PRINTER_INFO_2A {
    LPSTR pServerName; /* with two leading backslashes; absent for a local printer */
    LPSTR pPrinterName;
    LPSTR pShareName;
    LPSTR pPortName;
    LPSTR pDriverName;
    LPSTR pComment;
    LPSTR pLocation;
    LPDEVMODEA pDevMode;
    LPSTR pSepFile;
    LPSTR pPrintProcessor;
    LPSTR pDatatype;
    LPSTR pParameters;
    PSECURITY_DESCRIPTOR pSecurityDescriptor;
    DWORD Attributes; /* PRINTER_ATTRIBUTE_* */
    DWORD Priority;
    DWORD DefaultPriority;
    DWORD StartTime;
    DWORD UntilTime;
    DWORD Status;
    DWORD cJobs;
    DWORD AveragePPM;
} PRINTER_INFO_2A, *PPRINTER_INFO_2A, *LPPRINTER_INFO_2A;

#ifdef __cplusplus
static_assert(sizeof(PRINTER_INFO_2A) == 13 * sizeof(void*) + 32);
#endif

/* A job's Status. The embedded spool's jobs are paused, deleting or spooling; the print server's may be printing,
 * blocked or printed too. The others are those of other systems. */
#define JOB_STATUS_PAUSED 0x00000001
#define JOB_STATUS_ERROR 0x00000002
#define JOB_STATUS_DELETING 0x00000004 /* it goes as soon as whoever spools it notices */
#define JOB_STATUS_SPOOLING 0x00000008 /* its document is not complete yet */
#define JOB_STATUS_PRINTING 0x00000010
#define JOB_STATUS_OFFLINE 0x00000020
#define JOB_STATUS_PAPEROUT 0x00000040
#define JOB_STATUS_PRINTED 0x00000080
#define JOB_STATUS_DELETED 0x00000100
#define JOB_STATUS_BLOCKED_DEVQ 0x00000200
#define JOB_STATUS_USER_INTERVENTION 0x00000400
#define JOB_STATUS_RESTART 0x00000800

/* What SetJobA does to a job. */
#define JOB_CONTROL_PAUSE 1
#define JOB_CONTROL_RESUME 2
#define JOB_CONTROL_CANCEL 3
#define JOB_CONTROL_DELETE 5

/* A job, level 1. On a 64-bit machine 96 bytes, with 32 bits 64. Strings are in the ANSI code page; what is not known
 * is an empty string. */
typedef struct _JOB_INFO_1A {
    DWORD JobId; /* 1 to 0x7FFFFFFF */
    LPSTR pPrinterName;
    LPSTR pMachineName; /* with two leading backslashes */
    LPSTR pUserName;    /* whose it is: the account's name, else the user's number */
    LPSTR pDocument;
    LPSTR pDatatype;
    LPSTR pStatus; /* absent: Status says all */
    DWORD Status;  /* JOB_STATUS_* */
    DWORD Priority;
    DWORD Position;   /* in the printer's queue, from 1 */
    DWORD TotalPages; /* 0: not known */
    DWORD PagesPrinted;
    SYSTEMTIME Submitted; /* UTC */
} JOB_INFO_1A, *PJOB_INFO_1A, *LPJOB_INFO_1A;

#ifdef __cplusplus
static_assert(sizeof(JOB_INFO_1A) == (sizeof(void*) == 8 ? 96 : 64));
#endif

/* A document that is to be a job, level 1. */
typedef struct _DOC_INFO_1A {
    LPSTR pDocName;    /* up to 1,023 bytes; may be absent */
    LPSTR pOutputFile; /* must be absent */
    LPSTR pDatatype;   /* up to 63 bytes; absent: "RAW" */
} DOC_INFO_1A, *PDOC_INFO_1A, *LPDOC_INFO_1A;

/* Lists printers in the order in which they were added, then those of the print server if it answers. flags:
 * PRINTER_ENUM_LOCAL, PRINTER_ENUM_CONNECTIONS or both; or PRINTER_ENUM_NETWORK alone: printers that announce
 * themselves in the network and those of the print server, found within some seconds. name is absent; level is 2.
 * buffer: *returned records one behind the other, then their strings. size: bytes. *needed: the bytes that it takes (on
 * success those used). ERROR_INSUFFICIENT_BUFFER: the buffer is too small, *returned is 0. ERROR_INVALID_LEVEL,
 * ERROR_INVALID_FLAGS. */
WINBASEAPI BOOL WINAPI EnumPrintersA(DWORD flags, LPSTR name, DWORD level, LPBYTE buffer, DWORD size, LPDWORD needed,
                                     LPDWORD returned);

/* Opens a printer by its name; *printer is a 32-bit value of this process. defaults absent: PRINTER_ACCESS_USE.
 * Deleting a printer needs PRINTER_ACCESS_ADMINISTER (in PRINTER_ALL_ACCESS), refused with ERROR_ACCESS_DENIED when
 * this user may not write the spool. Printers are looked up when they are used: one that is deleted under the handle
 * gives ERROR_PRINTER_DELETED. ERROR_INVALID_PRINTER_NAME: there is no such printer.
 *
 * "<printer>, Job <number>" opens the document of a complete job of the embedded spool, for ReadPrinter and no other
 * call; its rights are JOB_ACCESS_READ. ERROR_INVALID_PARAMETER: the printer has no such job. ERROR_ACCESS_DENIED: it
 * is another user's, and this one is not root. */
WINBASEAPI BOOL WINAPI OpenPrinterA(LPSTR name, LPHANDLE printer, LPPRINTER_DEFAULTSA defaults);

/* One record as EnumPrintersA gives it. level is 2. */
WINBASEAPI BOOL WINAPI GetPrinterA(HANDLE printer, DWORD level, LPBYTE buffer, DWORD size, LPDWORD needed);

WINBASEAPI BOOL WINAPI ClosePrinter(HANDLE printer);

/* Adds a printer and opens it with PRINTER_ALL_ACCESS; level is 2, record a PRINTER_INFO_2A, server absent. Taken from
 * the record: pServerName (connections only; else from the name), pPrinterName, pShareName, pPortName, pDriverName,
 * pComment, pLocation, pPrintProcessor ("winprint" when absent), pDatatype ("RAW"); a name has 1 to 220 characters
 * without comma, a connection's is \\server\printer, the others have up to 259 (pComment 1,023). Name, port and driver
 * must be there. Attributes: PRINTER_ATTRIBUTE_SHARED may be set, and what the name says anyway (LOCAL, NETWORK). All
 * other fields must be 0 or empty. Drivers and ports are not looked up. NULL on failure: ERROR_PRINTER_ALREADY_EXISTS,
 * ERROR_INVALID_PRINTER_NAME, ERROR_INVALID_PARAMETER, ERROR_ACCESS_DENIED (this user may not write the spool or the
 * registry). */
WINBASEAPI HANDLE WINAPI AddPrinterA(LPSTR server, DWORD level, LPBYTE record);

/* Removes the printer, and its registry key with all that is below it; needs PRINTER_ACCESS_ADMINISTER. The handle
 * stays to be closed. */
WINBASEAPI BOOL WINAPI DeletePrinter(HANDLE printer);

/* Jobs of a printer in the order of its queue, those that are complete and those still spooled. first: how many to pass
 * over; count: how many at most. level is 1. buffer, size, *needed and *returned as EnumPrintersA has them. */
WINBASEAPI BOOL WINAPI EnumJobsA(HANDLE printer, DWORD first, DWORD count, DWORD level, LPBYTE buffer, DWORD size,
                                 LPDWORD needed, LPDWORD returned);

/* Does something to a job (JOB_CONTROL_*). level must be 0 and record absent. A job that is still spooled is cancelled
 * by whoever spools it, and is JOB_STATUS_DELETING until then. Pausing a paused job, or resuming one that is not,
 * succeeds. ERROR_INVALID_PARAMETER: the printer has no such job, or there is no such command. ERROR_ACCESS_DENIED: it
 * is another user's. */
WINBASEAPI BOOL WINAPI SetJobA(HANDLE printer, DWORD job, DWORD level, LPBYTE record, DWORD command);

/* Begins a job of the calling thread's user; level is 1, record a DOC_INFO_1A. The job's number, 0 on failure:
 * ERROR_ACCESS_DENIED (this user may not spool), ERROR_NOT_ENOUGH_QUOTA (this user has 1,000 jobs or 4 GiB in the
 * spool), ERROR_BUSY (this handle spools one already), ERROR_NOT_SUPPORTED (a printer that is not the embedded
 * spool's). The job is dropped when the handle is closed, or the process ends, before EndDocPrinter. */
WINBASEAPI DWORD WINAPI StartDocPrinterA(HANDLE printer, DWORD level, LPBYTE record);

/* Adds to the document. *written: bytes that were taken, also on failure. ERROR_SPL_NO_STARTDOC; ERROR_PRINT_CANCELLED:
 * the job was cancelled meanwhile; ERROR_DISK_FULL; ERROR_NOT_ENOUGH_QUOTA: this user's 4 GiB are spooled. */
WINBASEAPI BOOL WINAPI WritePrinter(HANDLE printer, LPVOID buffer, DWORD size, LPDWORD written);

/* The document is complete. ERROR_SPL_NO_STARTDOC, ERROR_PRINT_CANCELLED. */
WINBASEAPI BOOL WINAPI EndDocPrinter(HANDLE printer);

/* Reads on in a job's document, which OpenPrinterA opened. *read: bytes; 0 at the end. */
WINBASEAPI BOOL WINAPI ReadPrinter(HANDLE printer, LPVOID buffer, DWORD size, LPDWORD read);

#define PRINTER_CHANGE_SET_PRINTER 0x00000002
#define PRINTER_CHANGE_JOB 0x0000FF00

/* A handle to wait for: it is signalled once a job of the printer came, was completed, paused, resumed or cancelled.
 * filter: PRINTER_CHANGE_JOB, with PRINTER_CHANGE_SET_PRINTER also once the state of a printer of the print server has
 * changed; options 0, notifyOptions absent. INVALID_HANDLE_VALUE on failure: ERROR_NOT_SUPPORTED (a printer of a print
 * server that tells no changes), ERROR_INVALID_PARAMETER, the errors of CreateEventA and of the print server. Jobs that
 * go with the process that spooled them, or whose files somebody removed, are not told. */
WINBASEAPI HANDLE WINAPI FindFirstPrinterChangeNotification(HANDLE printer, DWORD filter, DWORD options,
                                                            LPVOID notifyOptions);

/* From here on the handle waits for the next change, for all who wait for this printer's: look at the jobs afterwards.
 * *change, which may be absent: PRINTER_CHANGE_JOB. notifyOptions and info are absent. */
WINBASEAPI BOOL WINAPI FindNextPrinterChangeNotification(HANDLE notification, LPDWORD change, LPVOID notifyOptions,
                                                         LPVOID* info);

WINBASEAPI BOOL WINAPI FindClosePrinterChangeNotification(HANDLE notification);

WINBASE_END

#endif
