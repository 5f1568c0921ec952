/* Bindings of clients, and the server: endpoints, interfaces, listening, who calls. Included by rpc.h. */
#ifndef ORIEL_RPCDCE_H
#define ORIEL_RPCDCE_H

#include <windef.h>

#define __RPC_FAR
#define __RPC_API
#define __RPC_USER
#define __RPC_STUB
#define RPC_ENTRY
#define RPCRTAPI WINBASEAPI
#ifndef DECLSPEC_NORETURN
#define DECLSPEC_NORETURN __attribute__((noreturn))
#endif

WINBASE_BEGIN

typedef void* I_RPC_HANDLE;
/* RPC_S_OK, or a positive code of rpcnterr.h. */
typedef LONG RPC_STATUS;
typedef unsigned char* RPC_CSTR;
typedef I_RPC_HANDLE RPC_BINDING_HANDLE;
typedef GUID UUID;
typedef void* RPC_IF_HANDLE;
typedef void* RPC_AUTHZ_HANDLE;
#define RPC_MGR_EPV void

typedef RPC_STATUS RPC_ENTRY RPC_IF_CALLBACK_FN(RPC_IF_HANDLE InterfaceUuid, void* Context);

#define RPC_C_LISTEN_MAX_CALLS_DEFAULT 1234
#define RPC_C_PROTSEQ_MAX_REQS_DEFAULT 10
#define RPC_C_AUTHN_LEVEL_NONE 1
#define RPC_C_AUTHN_LEVEL_PKT_PRIVACY 6
#define RPC_C_AUTHN_NONE 0
#define RPC_C_AUTHN_WINNT 10
#define RPC_C_AUTHZ_NONE 0
#define RPC_IF_ALLOW_LOCAL_ONLY 0x0020

/* ---- Clients
 * ---------------------------------------------------------------------------------------------------------- */

/* Makes "protseq:networkaddr[endpoint,options]" of its parts, any of which may be NULL or empty. ObjUuid must be: else
 * RPC_S_INVALID_STRING_UUID. What the parts say is judged by RpcBindingFromStringBindingA. The string is given back
 * with RpcStringFreeA. RPC_S_OUT_OF_MEMORY. */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcStringBindingComposeA(RPC_CSTR ObjUuid, RPC_CSTR Protseq, RPC_CSTR NetworkAddr,
                                                       RPC_CSTR Endpoint, RPC_CSTR Options, RPC_CSTR* StringBinding);
/* Sets the pointer to NULL. A NULL string is no error. */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcStringFreeA(RPC_CSTR* String);

/* A handle to make calls with. Nothing is sent: whether a server listens shows at the first call. Any number of threads
 * may use the handle.
 *
 * Kept: the protocol sequence "ncalrpc", no network address, an endpoint of 1 to 64 letters, digits, '_', '-', '.' that
 * does not begin with '.', and the option Security=identification|impersonation static true|false (the server always
 * learns who the process was when it connected, from the kernel). RPC_S_INVALID_STRING_BINDING,
 * RPC_S_PROTSEQ_NOT_SUPPORTED (another protocol), RPC_S_INVALID_RPC_PROTSEQ (no protocol's name),
 * RPC_S_INVALID_STRING_UUID, RPC_S_INVALID_NET_ADDR, RPC_S_INVALID_ENDPOINT_FORMAT, RPC_S_INVALID_NETWORK_OPTIONS,
 * RPC_S_OUT_OF_MEMORY. */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcBindingFromStringBindingA(RPC_CSTR StringBinding, RPC_BINDING_HANDLE* Binding);

/* Frees the handle and sets it to NULL; no call may be in progress on it. With the last handle to an endpoint all
 * connections of the process to it end, and the server runs down what it held for the process. RPC_S_INVALID_BINDING.
 */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcBindingFree(RPC_BINDING_HANDLE* Binding);

#define RPC_C_OPT_CALL_TIMEOUT 12

/* How long a call through the handle may take, from its I_RpcGetBuffer on, in milliseconds; 0, as at first: as long as
 * the server needs. A call that takes longer gives RPC_S_CALL_CANCELLED, and the server may carry it out all the same.
 * For calls that begin afterwards. Windows has no such limit for "ncalrpc", and answers RPC_S_CANNOT_SUPPORT, which
 * every other option gets here. RPC_S_INVALID_BINDING, RPC_S_INVALID_ARG (more than 32 bits). */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcBindingSetOption(RPC_BINDING_HANDLE hBinding, ULONG option, ULONG_PTR optionValue);

/* ---- Servers
 * ---------------------------------------------------------------------------------------------------------- */

/* Claims the endpoint for this process until it ends. "ncalrpc" only, no security descriptor: every user of the machine
 * may call, and the interface's procedures ask who it was. MaxCalls is a hint. RPC_S_DUPLICATE_ENDPOINT when another
 * process holds it, RPC_S_CANT_CREATE_ENDPOINT when its place in the run directory is taken by something that is no
 * socket of ours. RPC_S_PROTSEQ_NOT_SUPPORTED, RPC_S_INVALID_ENDPOINT_FORMAT, RPC_S_CANNOT_SUPPORT (a security
 * descriptor). */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcServerUseProtseqEpA(RPC_CSTR Protseq, unsigned int MaxCalls, RPC_CSTR Endpoint,
                                                     void* SecurityDescriptor);

/* Offers the interface that IfSpec (an RPC_SERVER_INTERFACE) describes. It must stay in place until it is unregistered.
 * No manager types, no callback: RPC_S_CANNOT_SUPPORT. MgrEpv reaches the dispatch functions as RPC_MESSAGE.ManagerEpv.
 * Flags: 0 or RPC_IF_ALLOW_LOCAL_ONLY. MaxCalls matters for nothing without RPC_IF_AUTOLISTEN, as in Windows.
 * MaxRpcSize: requests with a longer body are refused with RPC_S_ACCESS_DENIED; (unsigned int)-1 for the run-time's own
 * limit. RPC_S_ALREADY_REGISTERED, RPC_S_OUT_OF_RESOURCES. */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcServerRegisterIf2(RPC_IF_HANDLE IfSpec, UUID* MgrTypeUuid, RPC_MGR_EPV* MgrEpv,
                                                   unsigned int Flags, unsigned int MaxCalls, unsigned int MaxRpcSize,
                                                   RPC_IF_CALLBACK_FN* IfCallbackFn);
/* Ends it: later calls get RPC_S_UNKNOWN_IF. WaitForCallsToComplete: returns when none is in progress any more.
 * NULL for every interface. RPC_S_UNKNOWN_IF, RPC_S_UNKNOWN_MGR_TYPE (a manager type was given). */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcServerUnregisterIf(RPC_IF_HANDLE IfSpec, UUID* MgrTypeUuid,
                                                    unsigned int WaitForCallsToComplete);

/* Starts to take calls on all endpoints. A thread of the run-time serves each connection, so MinimumCallThreads and
 * MaxCalls are hints. With DontWait 0 it returns when another thread stopped the listening and all calls are done.
 * RPC_S_ALREADY_LISTENING, RPC_S_NO_PROTSEQS_REGISTERED, RPC_S_OUT_OF_RESOURCES, RPC_S_OUT_OF_THREADS,
 * RPC_S_CANT_CREATE_ENDPOINT. */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcServerListen(unsigned int MinimumCallThreads, unsigned int MaxCalls,
                                              unsigned int DontWait);
/* No call is taken from now on; those in progress go on and are answered. Binding must be NULL: this process.
 * RPC_S_NOT_LISTENING, RPC_S_WRONG_KIND_OF_BINDING. */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcMgmtStopServerListening(RPC_BINDING_HANDLE Binding);
/* Waits for a stop, then until all calls are done, all connections closed and what belonged to them run down. Without a
 * time limit, since a call may last long. A stop has to be waited for before the process can listen again.
 * RPC_S_NOT_LISTENING; RPC_S_ALREADY_LISTENING when another thread waits already. */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcMgmtWaitServerListen(void);

/* The client of the call in progress. ClientBinding: RPC_MESSAGE.Handle, or NULL for the calling thread's.
 * *Privs: a NUL-terminated text "uid:<decimal number>", the numeric user id that the kernel vouches for, fixed when the
 * client connected; it is valid until the call returns and is not freed. *ServerPrincName: NULL. Level:
 * RPC_C_AUTHN_LEVEL_PKT_PRIVACY, service RPC_C_AUTHN_WINNT, authorisation RPC_C_AUTHZ_NONE. Any output may be NULL.
 * RPC_S_NO_CALL_ACTIVE, RPC_S_INVALID_BINDING. */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcBindingInqAuthClientA(RPC_BINDING_HANDLE ClientBinding, RPC_AUTHZ_HANDLE* Privs,
                                                       RPC_CSTR* ServerPrincName, ULONG* AuthnLevel, ULONG* AuthnSvc,
                                                       ULONG* AuthzSvc);

/* Within a dispatch function: until RpcRevertToSelf, which it calls before it returns, the token of the thread
 * (OpenThreadToken) is the client's: the user and groups that its process had when it connected, as the kernel tells.
 * The thread's ids stay those of the process, so what it opens is opened in the process's name. NULL is the call in
 * progress. RPC_S_NO_CALL_ACTIVE, RPC_S_CANNOT_SUPPORT (the system does not tell), RPC_S_OUT_OF_MEMORY. */
RPCRTAPI RPC_STATUS RPC_ENTRY RpcImpersonateClient(RPC_BINDING_HANDLE BindingHandle);
RPCRTAPI RPC_STATUS RPC_ENTRY RpcRevertToSelf(void);

/* Ends the dispatch function that calls it, and with it the call: the client's I_RpcSendReceive returns the status,
 * which must be positive. Only within a dispatch function. Here it unwinds the stack, on Windows it may not: hold
 * nothing that a destructor would have to release. */
DECLSPEC_NORETURN RPCRTAPI void RPC_ENTRY RpcRaiseException(RPC_STATUS exception);

WINBASE_END

#endif
