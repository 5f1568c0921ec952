// Names and security of the kernel objects that the library, the status database service and the product's other
// processes share. No state.
//
// Sections that the service alone writes, with a name from ObjectName. RUN: 16 hexadecimal digits, the service's
// instance (interface.h). N: a number that counts its sections.
//   "TVOR:<database>:Values:RUN:N"        published values (published_values.h)
//   "TVORSDB:Life:RUN:N"                  whether the service lives (service_life.h)
//
// Manual-reset events, with a name from ObjectName where they are not called plain:
//   "<database>:Initialized"              plain: set when the database is ready, or given up
//   "TVOR:<database>:<variable>:Updated"  pulsed at every write
//   "TVOR:<database>:<variable>:Changed"  pulsed when the value changed
//   "TVORSQD:Opened:<printer's hash>"     set by each open of a manager for the printer; exists while the start-up
//                                         process waits for that
//   "TVORSQD:Owner:<database>"            exists while the owner of the printer lives and owns it
//   "TVOR:<database>:Nsr:Initialize"      plain too: set when the desktop agent is ready
//   "TVORPWD:INITIALIZED"                 set while the product is up
//   "TVORSDB:Started"                     pulsed by a status database service when it answers calls
//   "TVORSQD:TerminateManager"            set when all managers of the machine are asked to shut down; it stays so for
//                                         as long as somebody has it open
//
// ObjectName: with Terminal Services the name is "Global\" and the base name, so that all logons of the machine share
// the object; without, it is the base name.
#pragma once

#include <windows.h>

#include <string_view>

namespace product {

// A name in a record of its own, so that forming one allocates nothing. A name that does not fit is empty: test text[0]
// before it names an object, since an empty name makes an unnamed one.
struct KernelName {
    char text[320] = {};
};

KernelName ObjectName(bool terminalServer, std::string_view baseName);
KernelName InitializedEventName(std::string_view database);
KernelName AgentReadyName(std::string_view database);
KernelName OwnerName(bool terminalServer, std::string_view database);

inline constexpr char kTerminationName[] = "TVORSQD:TerminateManager";   // the base name
inline constexpr char kProductInitialisedName[] = "TVORPWD:INITIALIZED"; // the base name
inline constexpr char kServiceStartedName[] = "TVORSDB:Started";         // the base name
// The base name of an event, auto-reset, of the start-up process: a printer was added or removed, or has another
// device.
inline constexpr char kPrintersChangedName[] = "TVORSQD:PrintersChanged";
// The base name of the database mutex: held by an open from the printer list to the end, and around the changes of
// shared values.
inline constexpr char kDatabaseMutexName[] = "TVORSQD:Mutex:DabaBase";
// Plain, never by ObjectName. The product's start-up process holds it while it runs.
inline constexpr char kStartUpMutexName[] = "TVORPWDMutex";

// A printer's name may be longer than an object's, and have backslashes: the name has 16
// digits of its 64-bit FNV-1a hash. Two printers whose hashes collide see each other's opens, which costs an open in
// vain.
KernelName OpenedEventName(bool terminalServer, std::string_view printer);

enum class VariableSignal { Updated, Changed };
KernelName VariableEventName(bool terminalServer, std::string_view database, std::string_view variable,
                             VariableSignal signal);

// The security of every object that all users of the machine share: its attributes point to a self-relative descriptor
// in the record (so it cannot be copied) with no owner, the group Everyone, no system list, and a list of one entry
// that grants Everyone GENERIC_ALL, or the access given. False when the system refused to build it; the attributes then
// have no descriptor.
struct EveryoneAccess {
    explicit EveryoneAccess(DWORD access = GENERIC_ALL);
    EveryoneAccess(const EveryoneAccess&) = delete;
    EveryoneAccess& operator=(const EveryoneAccess&) = delete;
    explicit operator bool() const { return attributes.lpSecurityDescriptor != nullptr; }

    SECURITY_ATTRIBUTES attributes;
    alignas(void*) BYTE descriptor[64]; // 60 bytes are used
};

// A manual-reset event with those attributes, not set unless it existed; the caller closes it. Null when it cannot be
// had, or without a name.
HANDLE CreateNamedEvent(const char* name, SECURITY_ATTRIBUTES* attributes);
// The same with the attributes of EveryoneAccess.
HANDLE CreateEventForEveryone(const char* name);
// A mutex with the attributes of EveryoneAccess, not owned unless it existed and was; the caller closes it. Null when
// it cannot be had, or without a name.
HANDLE CreateMutexForEveryone(const char* name);

// Whether this machine runs the product suite "Terminal Server": every Windows from 5.1 on does; an earlier one does
// when the multi-string "ProductSuite" of HKEY_LOCAL_MACHINE\System\CurrentControlSet\Control\ProductOptions lists it
// exactly. What cannot be read counts as no. The list is held in memory of the heap given while it is searched; a
// program without a heap of its own gets one for the time of the call.
bool MachineIsTerminalServer(HANDLE heap);
bool MachineIsTerminalServer();

} // namespace product
