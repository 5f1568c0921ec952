// The RPC interface of the status database service: what its clients and the service must agree on. No state.
//
// Local RPC ("ncalrpc", endpoint "TVORSDB_RPC"), interface version 1.0, NDR 2.0. The body of a request holds the in
// parameters in order, the body of a reply the out parameters and then the status.
// The numbers without a row below are not served: RPC_S_PROCNUM_OUT_OF_RANGE. A body that cannot be read raises
// RPC_X_BAD_STUB_DATA. Text is bytes without NUL, compared exactly. docs/service.md has the rows as a table.
//
// Each row says what the procedure answers. Out parameters of a call that failed are zero unless its row says
// otherwise.
#pragma once

#include <windows.h>

#include <rpc.h>

#include <stddef.h>
#include <string_view>
#include <tuple>

namespace product {

inline constexpr char kServiceName[] = "TVORSDB";
inline constexpr char kProtocolSequence[] = "ncalrpc";
inline constexpr char kEndpoint[] = "TVORSDB_RPC";
inline constexpr char kBindingOptions[] = "Security=impersonation static true";

// 57856c31-165f-42cc-8b23-81aad6f3a7b6, version 1.0.
extern const RPC_SYNTAX_IDENTIFIER kInterfaceSyntax;
// NDR, 8a885d04-1ceb-11c9-9fe8-08002b104860, version 2.0.
extern const RPC_SYNTAX_IDENTIFIER kNdrSyntax;

enum DatabaseType : DWORD {
    kTypeByte = 0,
    kTypeWord = 1,
    kTypeNumber = 2,
    kTypeString = 3,
    kTypeRecord = 4,
    kTypeVariableLength = 5,
    kTypeComposite = 6,
    kTypeCount = 7
};

enum WatchMode : DWORD { kEveryWrite = 1, kOnlyChanges = 2 };

// The service's answers. They are unrelated to the status of a library export and, except kAccessDenied, to the
// system's codes.
enum ServiceStatus : LONG {
    kDone = 0,
    kDatabaseExists = -2,    // CreateDatabase: there is one of that name
    kUnknownDatabase = -3,   // no open database of this client has that handle; no database has that name
    kBeingInitialised = -4,  // OpenDatabase: its creator has not made it ready yet
    kUnknownVariable = -5,   // the database has no variable of that name
    kVariableExists = -6,    // CreateVariable: the database has one of that name
    kWrongSize = -7,         // a value of that size does not fit the variable
    kBufferTooSmall = -8,    // ReadVariable: the buffer does not hold the value
    kBadName = -9,           // an empty or over-long name; a backslash in the name of a database
    kBadArgument = -10,      // no such type, mode or request; a reserved parameter that is not 0; not a composite
    kLimitReached = -11,     // a bound of the table below, or of this user's share
    kNotCreator = -12,       // EndDatabaseInitialization: this handle does not initialise the database
    kNotWatched = -13,       // UnwatchVariable: this client does not watch the variable
    kNoPrinterSide = -14,    // ForwardRequest: nothing serves this printer's requests
    kOutOfMemory = -15,      // the service could not get memory; nothing changed
    kEventUnavailable = -17, // WatchVariable: the event cannot be had (its name is too long, or another object has it)
    kNoAnswer = -18,         // ForwardRequest: the printer side did not answer in time
    kNotWritable = -20,      // WriteVariable: the service alone writes it
    kAccessDenied = ERROR_ACCESS_DENIED, // for administrators only: the system's own code
};

// GetServiceInstance: chosen at random when the service starts; never 0.
using ServiceInstance = ULONGLONG;

// GetDatabaseInfo: 24 bytes.
struct DatabaseInfo {
    DWORD openHandles; // of all clients but the printer sides, the caller's own included
    DWORD variables;
    SYSTEMTIME created; // UTC
};
static_assert(sizeof(DatabaseInfo) == 24 && offsetof(DatabaseInfo, openHandles) == 0 &&
              offsetof(DatabaseInfo, variables) == 4 && offsetof(DatabaseInfo, created) == 8);

// GetVariableInfo: 28 bytes.
struct VariableInfo {
    DWORD type;           // DatabaseType
    DWORD size;           // of the present value, in bytes
    DWORD writes;         // how often it was written, wrapping; a composite counts its members' too
    SYSTEMTIME writeTime; // UTC, of the last write (or of its creation); of a composite, the latest of its members'.
                          // Never earlier than the one before, and later for each write of a value
};
static_assert(sizeof(VariableInfo) == 28 && offsetof(VariableInfo, type) == 0 && offsetof(VariableInfo, size) == 4 &&
              offsetof(VariableInfo, writes) == 8 && offsetof(VariableInfo, writeTime) == 12);

// ---- the procedures: one row each, from which the clients' stubs and the service's dispatch are made

using Procedure = UINT; // the number of a procedure

// A byte array within a body.
struct NdrBytes {
    const BYTE* data = nullptr;
    DWORD size = 0;
};

// The forms of parameters, under the names that the rows use. ndr.h has their encoding.
struct WireForms {
    using u32 = DWORD;
    using text = std::string_view; // without NUL inside
    using bytes = NdrBytes;
    // A u32: how many elements the bytes of the same request have. Another number is bad stub data.
    struct count {
        DWORD value;
    };
};

template <typename Declaration>
struct ParametersOf;
template <typename... Forms>
struct ParametersOf<void(Forms...)> {
    using Values = std::tuple<Forms...>;
    using Results = std::tuple<Forms&...>;
};

// What a row declares; numbers without a row are not served.
template <Procedure number>
struct Signature {
    static constexpr bool isServed = false;
};

template <Procedure procedure>
using InOf = typename Signature<procedure>::In::Values;
template <Procedure procedure>
using OutOf = typename Signature<procedure>::Out::Values;
template <Procedure procedure>
using ResultsOf = typename Signature<procedure>::Out::Results;

// PROCEDURE(number, name, (in parameters), (out parameters)). The status follows the out parameters.
#define PROCEDURE(number, name, in, out)                                                                               \
    inline constexpr Procedure k##name = number;                                                                       \
    template <>                                                                                                        \
    struct Signature<k##name> : WireForms {                                                                            \
        static constexpr bool isServed = true;                                                                         \
        using In = ParametersOf<void in>;                                                                              \
        using Out = ParametersOf<void out>;                                                                            \
    }

// Makes a database and begins its initialisation, which EndDatabaseInitialization ends on the handle returned.
// kDatabaseExists: there is one already, ready or still being initialised; the handle is 0. A database whose creator
// went away before it was ready is made anew.
PROCEDURE(0, CreateDatabase, (text name), (u32 handle));

// kBeingInitialised: wait for the event of InitializedEventName() and ask again. kUnknownDatabase: there is none, or
// its creator went away before it was ready; begin again with CreateDatabase. Waiters are woken in either case.
PROCEDURE(1, OpenDatabase, (text name), (u32 handle));

// Ends the handle. A database whose creator closes its handle before it is ready is given up.
PROCEDURE(2, CloseDatabase, (u32 handle), ());

// Which run of the service this is. A handle that the service does not know is one of an earlier run when the instance
// has changed.
PROCEDURE(3, GetServiceInstance, (), (ServiceInstance instance));

PROCEDURE(4, GetDatabaseInfo, (u32 handle), (DatabaseInfo info));

// Works once, and only with the handle that CreateDatabase returned; otherwise kNotCreator.
PROCEDURE(7, EndDatabaseInitialization, (u32 handle), ());

// The size is that of the initial value. Byte, word and number keep it; string and record take values up to it;
// variable-length ones take values up to kValueSizeMax. kWrongSize: 0 for one of the first five. A composite has size 0
// and has no members until SetCompositeMembers. reserved is 0.
PROCEDURE(8, CreateVariable, (u32 handle, text name, u32 type, count size, u32 reserved, bytes value), ());

// kWrongSize: the variable does not take a value of that size. A value of a composite has the composite's size. It goes
// to all members at one moment, and whoever watches the composite or a member is signalled once. A composite that has a
// member twice, or one of variable length, takes no value. A name that does not exist, but is that of a variable
// followed by "W", makes a variable of that variable's type and size limit.
PROCEDURE(9, WriteVariable, (u32 handle, text name, bytes value, count size), ());

// value has as many elements as size says; those behind the variable's value are zero. kBufferTooSmall: size is less
// than the value's and not 0; value is all zero, and valueSize is what is needed. With size 0 the answer is kDone and
// valueSize. A size above kValueSizeMax raises RPC_X_BAD_STUB_DATA.
PROCEDURE(10, ReadVariable, (u32 handle, text name, u32 size), (bytes value, u32 valueSize));

// members: names, each followed by ";". Replaces the list. A member takes the size that it was created with, zeros
// behind a shorter value. One of variable length takes the size of the payload that it was created with, which is none
// for the empty value {4, 0}. So no value moves the members behind it. A member that does not exist contributes
// nothing. One that is a composite itself is composed, up to kCompositeDepthMax levels, and contributes nothing below
// them. kBadArgument: the variable is not a composite. Reading a composite of more than kCompositePartsMax members of
// members, or of more than kValueSizeMax bytes, answers kLimitReached.
PROCEDURE(12, SetCompositeMembers, (u32 handle, text name, text members), ());

PROCEDURE(14, GetVariableInfo, (u32 handle, text name), (VariableInfo info));

// Signals a named event (VariableEventName) when the variable, or a member of it, is written: in mode kEveryWrite its
// "Updated" event at each write, in mode kOnlyChanges its "Changed" event when bytes of its value changed. A signal is
// a pulse: the event is set and reset, after the value and its write time can be read. Watches are counted per client
// process, variable and mode. kBeingInitialised: the database is not ready.
PROCEDURE(15, WatchVariable, (u32 handle, text name, u32 mode), ());

// Ends one watch of this client process: of the mode it used last while that has one, else of the other. kNotWatched:
// there is none.
PROCEDURE(16, UnwatchVariable, (u32 handle, text name), ());

// request: "ReadRequest:<printer>", "WriteRequest:<printer>" or "Refresh:<printer>"; kBadArgument: none of these. Waits
// until the printer side has answered; the status is its result, whatever number that is. kNoPrinterSide: nothing
// serves that printer's requests, or what did has gone. kNoAnswer: the printer side did not answer in time. Requests of
// a printer are carried out one at a time, in the order of the calls.
PROCEDURE(18, ForwardRequest, (text request), ());

// The section that has the database's values (published_values.h): its name, its size in bytes, and the name of the
// section with the LifeRecord of the service. A client that cannot use them reads by calls. Names are empty and the
// size 0 when nothing is published now. kBeingInitialised: the database is not ready.
PROCEDURE(19, FindPublishedValues, (u32 handle), (text section, u32 size, text life));

// CreateDatabase, or OpenDatabase when there is one, whichever applies, with the answers of both; created: 1 when the
// caller initialises it. Also which run of the service this is, and what FindPublishedValues says of a ready database.
PROCEDURE(20, EnterDatabase, (text name),
          (u32 handle, u32 created, ServiceInstance instance, text section, u32 size, text life));

// CreateVariable for each of several, and SetCompositeMembers for each composite, whose value is its list of members.
// variables: one behind the other, each aligned to 4: u32 type, u32 length of the name, u32 size of the value, the
// name without a NUL, the value. Those that can be made are; the status is that of the first that cannot. made: how
// many were. kBadArgument: the bytes end within a variable; those before it were made.
PROCEDURE(21, CreateVariables, (u32 handle, bytes variables), (u32 made));

// CloseDatabase for each of the two that a manager has. kUnknownDatabase: one of them was not open; the other is
// closed.
PROCEDURE(22, LeaveDatabases, (u32 first, u32 second), ());

// Whether the caller may write the variable: kDone, kAccessDenied or kNotWritable. A value may be refused all the same,
// or be taken where others are not ("PrinterName", the printer list).
PROCEDURE(23, MayWrite, (u32 handle, text name), ());

// All that an open needs: EnterDatabase for the database of the printer list, and OpenDatabase for the database that
// the list has for that printer. Its handle is 0, and all after it empty, when there is none that is ready.
PROCEDURE(24, EnterPrinter, (text printer),
          (u32 master, u32 created, ServiceInstance instance, text section, u32 size, text life, u32 handle, text name,
           text printerSection, u32 printerSize));

#undef PROCEDURE

inline constexpr Procedure kProcedureCount = kEnterPrinter + 1;

// The head of a variable in CreateVariables; its name and value follow.
struct NewVariableHead {
    DWORD type; // DatabaseType
    DWORD nameLength;
    DWORD valueSize;
};
static_assert(sizeof(NewVariableHead) == 12);

// Two records in the printer's database carry forwarded requests to the printer side and its answers back. The printer
// side makes both, all zero, when the database is ready; the service refuses any other form. The client that watches
// the mailbox is the printer side. The service writes each request into the mailbox, which pulses its "Updated" event,
// and {0, 0} when there are no more. The printer side writes the request's id with its result into the answer; an id
// that is not that of the request in the mailbox changes nothing. "ReadRequest", "WriteRequest" and "RefreshStatus"
// have the details of the request.
//
// When nobody watches the mailbox any more, however the printer side ended, the service clears bit 0x1 of
// "PrinterExtStatus" and the bits 0xC of "SpoolerStatus". If nobody watches the mailbox again within 2 s, it writes -50
// to "RWResult", provided that somebody watches "RWResult" and a request was written since the last answer. It does the
// same for each request that is written while nobody watches the mailbox.
inline constexpr char kForwardMailbox[] = "ForwardMailbox"; // ForwardedRequest; the service alone writes it
inline constexpr char kForwardAnswer[] = "ForwardAnswer";   // ForwardedAnswer

enum RequestKind : DWORD {
    kNoRequest = 0,
    kReadRequest = 1,
    kWriteRequest = 2,
    kRefreshRequest = 3,
    kEndRequest = 4 // all managers are asked to terminate: the printer side ends, without an answer
};

struct ForwardedRequest {
    DWORD id;   // never 0; of two requests that are not far apart, never the same
    DWORD kind; // RequestKind
};
static_assert(sizeof(ForwardedRequest) == 8 && offsetof(ForwardedRequest, kind) == 4);

struct ForwardedAnswer {
    DWORD id;
    LONG result;
};
static_assert(sizeof(ForwardedAnswer) == 8 && offsetof(ForwardedAnswer, result) == 4);

// Limits; of text in bytes, without the NUL.
inline constexpr DWORD kDatabaseNameMax = 31; // what an entry of the printer list holds
inline constexpr DWORD kVariableNameMax = 255;
inline constexpr DWORD kMemberListMax = 16384;
inline constexpr DWORD kRequestTextMax = 511;
inline constexpr DWORD kCompositeMembersMax = 64;
inline constexpr DWORD kCompositeDepthMax = 4;
inline constexpr DWORD kCompositePartsMax = 256;
// The largest body of a request or reply, and the largest value; the difference is room for the other parameters. A
// printer list of 14,000 entries of 560 bytes fits.
inline constexpr DWORD kBodySizeMax = 8 * 1024 * 1024;
inline constexpr DWORD kValueSizeMax = kBodySizeMax - 64 * 1024;

} // namespace product
