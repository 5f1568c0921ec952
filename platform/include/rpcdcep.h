/* The message level of the run-time, on which stubs stand: buffers, the call, the records that describe an interface,
 * and what a server keeps for a client. Included by rpc.h.
 *
 * A client's stub: fill an RPC_MESSAGE (zeroed) with Handle, RpcInterfaceInformation, ProcNum, BufferLength and
 * DataRepresentation = 0x10; I_RpcGetBuffer; marshal into Buffer; I_RpcSendReceive; unmarshal from Buffer, BufferLength
 * bytes in DataRepresentation; I_RpcFreeBuffer. All three on one thread.
 *
 * A server's stub: a dispatch function gets the message with the request in Buffer, BufferLength bytes. It unmarshals,
 * does the work, sets BufferLength to the size of the reply, calls I_RpcGetBuffer (the request's bytes stay valid),
 * marshals into the new Buffer and returns. It may lower BufferLength afterwards. RpcRaiseException fails the call. */
#ifndef ORIEL_RPCDCEP_H
#define ORIEL_RPCDCEP_H

#include <rpcdce.h>

WINBASE_BEGIN

typedef struct _RPC_VERSION {
    unsigned short MajorVersion;
    unsigned short MinorVersion;
} RPC_VERSION;

/* 20 bytes. */
typedef struct _RPC_SYNTAX_IDENTIFIER {
    GUID SyntaxGUID;
    RPC_VERSION SyntaxVersion;
} RPC_SYNTAX_IDENTIFIER, *PRPC_SYNTAX_IDENTIFIER;

typedef struct _RPC_MESSAGE {
    RPC_BINDING_HANDLE Handle;
    ULONG DataRepresentation; /* bits 4-7: 1 little-endian, 0 big-endian integers; bits 0-3: 0 ASCII; 8-15: 0 IEEE */
    void* Buffer;             /* 8-byte aligned */
    unsigned int BufferLength;
    unsigned int ProcNum;
    PRPC_SYNTAX_IDENTIFIER TransferSyntax;
    void* RpcInterfaceInformation; /* client: RPC_CLIENT_INTERFACE; server: RPC_SERVER_INTERFACE */
    void* ReservedForRuntime;
    RPC_MGR_EPV* ManagerEpv;
    void* ImportContext;
    ULONG RpcFlags; /* 0 */
} RPC_MESSAGE, *PRPC_MESSAGE;

typedef void(__RPC_STUB* RPC_DISPATCH_FUNCTION)(PRPC_MESSAGE Message);

/* A NULL entry is a procedure number that is not offered. */
typedef struct {
    unsigned int DispatchTableCount;
    RPC_DISPATCH_FUNCTION* DispatchTable;
    LONG_PTR Reserved;
} RPC_DISPATCH_TABLE, *PRPC_DISPATCH_TABLE;

typedef struct _RPC_PROTSEQ_ENDPOINT {
    unsigned char* RpcProtocolSequence;
    unsigned char* Endpoint;
} RPC_PROTSEQ_ENDPOINT, *PRPC_PROTSEQ_ENDPOINT;

typedef struct _RPC_SERVER_INTERFACE {
    unsigned int Length; /* sizeof(RPC_SERVER_INTERFACE) */
    RPC_SYNTAX_IDENTIFIER InterfaceId;
    RPC_SYNTAX_IDENTIFIER TransferSyntax;
    PRPC_DISPATCH_TABLE DispatchTable;
    unsigned int RpcProtseqEndpointCount;
    PRPC_PROTSEQ_ENDPOINT RpcProtseqEndpoint;
    RPC_MGR_EPV* DefaultManagerEpv;
    void const* InterpreterInfo;
    unsigned int Flags;
} RPC_SERVER_INTERFACE, *PRPC_SERVER_INTERFACE;

typedef struct _RPC_CLIENT_INTERFACE {
    unsigned int Length; /* sizeof(RPC_CLIENT_INTERFACE) */
    RPC_SYNTAX_IDENTIFIER InterfaceId;
    RPC_SYNTAX_IDENTIFIER TransferSyntax;
    PRPC_DISPATCH_TABLE DispatchTable;
    unsigned int RpcProtseqEndpointCount;
    PRPC_PROTSEQ_ENDPOINT RpcProtseqEndpoint;
    ULONG_PTR Reserved;
    void const* InterpreterInfo;
    unsigned int Flags;
} RPC_CLIENT_INTERFACE, *PRPC_CLIENT_INTERFACE;

/* Client: finds or makes the thread's connection, binds it to the interface and gives a buffer of BufferLength bytes,
 * not zeroed. Server: the buffer of the reply. At most 8 MiB, else RPC_S_OUT_OF_MEMORY; RpcFlags 0, else
 * RPC_S_CANNOT_SUPPORT. RPC_S_INVALID_BINDING, RPC_S_INVALID_ARG, RPC_S_SERVER_UNAVAILABLE (nobody listens, or nobody
 * who is root, the owner of the run directory or the caller's own user, or not answered within 5 s),
 * RPC_S_ACCESS_DENIED, RPC_S_SERVER_TOO_BUSY, RPC_S_UNKNOWN_IF, RPC_S_UNSUPPORTED_TRANS_SYN, RPC_S_PROTOCOL_ERROR,
 * RPC_S_OUT_OF_MEMORY, RPC_S_OUT_OF_RESOURCES (descriptors; more than 8 interfaces on one thread). */
RPCRTAPI RPC_STATUS RPC_ENTRY I_RpcGetBuffer(RPC_MESSAGE* Message);

/* Makes the call and waits for the reply, as long as the server needs: a call has no time limit. On RPC_S_OK Buffer and
 * BufferLength are the reply. On any other result the buffer is gone and I_RpcFreeBuffer is not called. A connection
 * that turns out to be dead before the request could leave is replaced, once; a call that may have reached the server
 * is not repeated. RPC_S_SERVER_UNAVAILABLE, RPC_S_CALL_FAILED (connection lost: the call may have been carried out),
 * RPC_S_CALL_FAILED_DNE (lost, or nothing of the request taken for 30 s, and it was not), RPC_S_PROTOCOL_ERROR (the
 * reply makes no sense), RPC_S_INVALID_BOUND (BufferLength was raised), RPC_S_OUT_OF_MEMORY, those of I_RpcGetBuffer,
 * and what the server raised: RPC_S_PROCNUM_OUT_OF_RANGE, RPC_S_UNKNOWN_IF, RPC_X_BAD_STUB_DATA,
 * RPC_S_SERVER_OUT_OF_MEMORY and others. */
RPCRTAPI RPC_STATUS RPC_ENTRY I_RpcSendReceive(RPC_MESSAGE* Message);

/* Gives the buffer of a successful I_RpcGetBuffer or I_RpcSendReceive back and sets Buffer to NULL. Clients only; a
 * reply's buffer is the run-time's. */
RPCRTAPI RPC_STATUS RPC_ENTRY I_RpcFreeBuffer(RPC_MESSAGE* Message);

/* All connections of one client process form an association; a process of another user is never in it. Handle of
 * both: RPC_MESSAGE.Handle, or NULL for the calling thread's call. RPC_S_NO_CALL_ACTIVE, RPC_S_INVALID_BINDING.
 *
 * Monitor: RundownRoutine(Context) is called once, on a thread of the run-time, when the association's last connection
 * has closed and its calls have returned. A second Monitor replaces the first. Get gives the Context, NULL when there
 * is none. */
typedef void(__RPC_API* PRPC_RUNDOWN)(void* AssociationContext);
RPCRTAPI RPC_STATUS RPC_ENTRY I_RpcMonitorAssociation(RPC_BINDING_HANDLE Handle, PRPC_RUNDOWN RundownRoutine,
                                                      void* Context);
RPCRTAPI RPC_STATUS RPC_ENTRY I_RpcGetAssociationContext(RPC_BINDING_HANDLE BindingHandle, void** AssociationContext);

/* The process id of the client, as the kernel noted it when the client connected; the number may have been given to
 * another process since. Binding as above. */
RPCRTAPI RPC_STATUS RPC_ENTRY I_RpcBindingInqLocalClientPID(RPC_BINDING_HANDLE Binding, ULONG* Pid);

#ifdef __cplusplus
static_assert(sizeof(RPC_SYNTAX_IDENTIFIER) == 20);
#endif

WINBASE_END

#endif
