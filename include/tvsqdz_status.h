/* tvsqdz_status.h: a text for each status of the library.
 *
 * Header only, for C and C++. An export returns numbers of three kinds: its own codes, answers of the status database
 * service, and codes of the system and of its RPC run-time. They do not overlap. */
#ifndef TVSQDZ_STATUS_H
#define TVSQDZ_STATUS_H

#include <tvsqdz.h>

/* X(status, text). A text is part of a sentence: no capital at the start, no full stop at the end. */
#define TVS_STATUS_TEXTS(X) \
    X(TVS_OK, "done") \
    /* The library's own. */ \
    X(TVS_E_HANDLE, "the manager or the registration is not open") \
    X(TVS_E_UNAVAILABLE, "no manager can be opened: the product is not up, or it has not opened the printer yet") \
    X(TVS_E_UNKNOWN, "unknown variable, or one that this operation does not serve") \
    X(TVS_E_MEMORY, "out of memory, or the printer has no driver, so its variables are unknown") \
    X(TVS_E_FAULT, "memory cannot be read or written") \
    X(TVS_E_SIZE, "the buffer is too small, or the value has another size") \
    X(TVS_E_REQUEST_LOCK, "the printer's request lock is not available") \
    X(TVS_E_NOT_READY, "the printer side is not ready") \
    X(TVS_E_NO_OWNER, "no process owns the printer, or the spooler does not know it") \
    X(TVS_E_NOT_NOW, "the printer takes no such request now, or the job is not there") \
    X(TVS_E_UNREGISTERED, "the printer's model is not registered") \
    X(TVS_E_SERVICE_TIMEOUT, "the status database service did not come up in time") \
    X(TVS_E_AUTHORITY, "you lack the authority for this on this printer") \
    /* Answers of the service, passed on. */ \
    X(-2, "another printer has that name") \
    X(-3, "the service has no such database: it was restarted meanwhile") \
    X(-4, "the printer's database is still being initialised") \
    X(-5, "the printer's database has no such variable") \
    X(-6, "a variable of that name exists already") \
    X(-7, "the variable does not take a value of this size") \
    X(-8, "the value grew while it was read") \
    X(-9, "the service does not accept that name") \
    X(-10, "the service does not accept that argument") \
    X(-11, "a limit of the service is reached") \
    X(-12, "another process initialises the printer's database") \
    X(-13, "the variable is not watched") \
    X(-14, "no printer side serves the printer") \
    X(-15, "the service is out of memory") \
    X(-17, "the service cannot create the variable's event") \
    X(-18, "the printer side did not answer") \
    X(-20, "only the service writes that variable") \
    /* Of the system (winerror.h) and of its RPC run-time (RPC_S_..., RPC_X_...), passed on. */ \
    X(5, "access denied")                                                  /* ERROR_ACCESS_DENIED */ \
    X(8, "out of memory")                                                  /* ERROR_NOT_ENOUGH_MEMORY */ \
    X(14, "out of memory")                                                 /* RPC_S_OUT_OF_MEMORY */ \
    X(87, "the system refused it as invalid")                              /* ERROR_INVALID_PARAMETER */ \
    X(1130, "the service is out of memory")                                /* RPC_S_SERVER_OUT_OF_MEMORY */ \
    X(1460, "it took too long")                                            /* ERROR_TIMEOUT */ \
    X(1702, "the library is being unloaded, or did not load completely") /* RPC_S_INVALID_BINDING */ \
    X(1717, "the status database service has another version")           /* RPC_S_UNKNOWN_IF */ \
    X(1721, "the system has no resources left for the call")               /* RPC_S_OUT_OF_RESOURCES */ \
    X(1722, "the status database service is not running")                  /* RPC_S_SERVER_UNAVAILABLE */ \
    X(1723, "the status database service did not answer in time")          /* RPC_S_SERVER_TOO_BUSY */ \
    X(1726, "the connection to the status database service broke")         /* RPC_S_CALL_FAILED */ \
    X(1727, "the connection to the status database service broke")         /* RPC_S_CALL_FAILED_DNE */ \
    X(1728, "the status database service sent an invalid answer")    /* RPC_S_PROTOCOL_ERROR */ \
    X(1745, "the status database service does not support that call")        /* RPC_S_PROCNUM_OUT_OF_RANGE */ \
    X(1783, "the status database service sent an invalid answer")    /* RPC_X_BAD_STUB_DATA */ \
    X(1818, "the call was cancelled")                                      /* RPC_S_CALL_CANCELLED */ \
    X(1820, "the connection to the status database service broke")         /* RPC_S_COMM_FAILURE */

/* The text of a status, never null; a status without a row has a text for its kind. Constant; do not free it. */
static inline const char* TvsStatusText(int32_t status) {
    switch (status) {
#define TVS_STATUS_CASE(code, text) \
    case code: return text;
        TVS_STATUS_TEXTS(TVS_STATUS_CASE)
#undef TVS_STATUS_CASE
    default: return status < 0 ? "the status database service refused it" : "system error";
    }
}

#endif
