// No state.
#include "product/object_names.h"

#include "product/guards.h"

#include <initializer_list>
#include <stdint.h>
#include <string.h>

namespace product {

namespace {

constexpr char kSuiteKey[] = "System\\CurrentControlSet\\Control\\ProductOptions";
constexpr char kSuiteValue[] = "ProductSuite";
constexpr char kTerminalServerSuite[] = "Terminal Server";
constexpr DWORD kSuiteListMax = 64 * 1024;

constexpr DWORD kAceHeaderSize = 8; // an entry has its header and mask, and its SID

KernelName Joined(std::initializer_list<std::string_view> parts) {
    KernelName name;
    size_t length = 0;
    for (std::string_view part : parts) {
        if (part.size() >= sizeof name.text - length) return {};
        memcpy(name.text + length, part.data(), part.size());
        length += part.size();
    }
    return name;
}

std::string_view Prefix(bool terminalServer) {
    return terminalServer ? "Global\\" : "";
}

struct ListBlock {
    HANDLE heap;
    char* text;
    ~ListBlock() {
        if (text) HeapFree(heap, 0, text);
    }
};

bool Lists(std::string_view list, std::string_view wanted) {
    while (!list.empty()) {
        const size_t length = list.find('\0');
        const std::string_view entry = list.substr(0, length);
        if (entry.empty()) return false;
        if (entry == wanted) return true;
        if (length == std::string_view::npos) return false;
        list.remove_prefix(length + 1);
    }
    return false;
}

} // namespace

KernelName ObjectName(bool terminalServer, std::string_view baseName) {
    return Joined({Prefix(terminalServer), baseName});
}

KernelName OwnerName(bool terminalServer, std::string_view database) {
    return Joined({Prefix(terminalServer), "TVORSQD:Owner:", database});
}

KernelName InitializedEventName(std::string_view database) {
    return Joined({database, ":Initialized"});
}

KernelName OpenedEventName(bool terminalServer, std::string_view printer) {
    constexpr char kDigits[] = "0123456789abcdef";
    constexpr size_t kLength = 16;
    uint64_t hash = 0xCBF29CE484222325;
    for (const char c : printer)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
    char digits[kLength];
    for (size_t i = 0; i < kLength; ++i)
        digits[i] = kDigits[hash >> (60 - 4 * i) & 15];
    return Joined({Prefix(terminalServer), "TVORSQD:Opened:", {digits, kLength}});
}

KernelName AgentReadyName(std::string_view database) {
    return Joined({"TVOR:", database, ":Nsr:Initialize"});
}

KernelName VariableEventName(bool terminalServer, std::string_view database, std::string_view variable,
                             VariableSignal signal) {
    return Joined({Prefix(terminalServer), "TVOR:", database, ":", variable,
                   signal == VariableSignal::Updated ? ":Updated" : ":Changed"});
}

EveryoneAccess::EveryoneAccess(DWORD access) : attributes{sizeof attributes, nullptr, FALSE} {
    SID_IDENTIFIER_AUTHORITY worldAuthority = SECURITY_WORLD_SID_AUTHORITY;
    PSID world = nullptr;
    if (!AllocateAndInitializeSid(&worldAuthority, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &world)) return;
    SECURITY_DESCRIPTOR absolute;
    alignas(ACL) BYTE list[sizeof descriptor];
    ACL* acl = reinterpret_cast<ACL*>(list);
    const DWORD aclSize = sizeof(ACL) + kAceHeaderSize + GetLengthSid(world);
    DWORD size = sizeof descriptor;
    if (InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION) &&
        SetSecurityDescriptorOwner(&absolute, nullptr, FALSE) && SetSecurityDescriptorGroup(&absolute, world, FALSE) &&
        InitializeAcl(acl, aclSize, ACL_REVISION) && AddAccessAllowedAce(acl, ACL_REVISION, access, world) &&
        SetSecurityDescriptorDacl(&absolute, TRUE, acl, FALSE) && MakeSelfRelativeSD(&absolute, descriptor, &size))
        attributes.lpSecurityDescriptor = descriptor;
    FreeSid(world);
}

HANDLE CreateNamedEvent(const char* name, SECURITY_ATTRIBUTES* attributes) {
    return name[0] != '\0' ? CreateEventA(attributes, TRUE, FALSE, name) : nullptr;
}

HANDLE CreateEventForEveryone(const char* name) {
    EveryoneAccess everyone;
    return everyone ? CreateNamedEvent(name, &everyone.attributes) : nullptr;
}

HANDLE CreateMutexForEveryone(const char* name) {
    EveryoneAccess everyone;
    return everyone && name[0] != '\0' ? CreateMutexA(&everyone.attributes, FALSE, name) : nullptr;
}

bool MachineIsTerminalServer(HANDLE heap) {
    OSVERSIONINFOA version = {};
    version.dwOSVersionInfoSize = sizeof version;
    if (!GetVersionExA(&version)) version = {};
    if (version.dwMajorVersion > 5 || (version.dwMajorVersion == 5 && version.dwMinorVersion != 0)) return true;
    const RegistryKey options = OpenKey(HKEY_LOCAL_MACHINE, kSuiteKey, KEY_QUERY_VALUE);
    if (!options) return false;
    DWORD size = 0;
    if (RegQueryValueExA(options.Get(), kSuiteValue, nullptr, nullptr, nullptr, &size) != ERROR_SUCCESS) return false;
    if (size == 0 || size > kSuiteListMax) return false;
    const ListBlock list{heap, static_cast<char*>(HeapAlloc(heap, HEAP_ZERO_MEMORY, size))};
    if (!list.text) return false;
    DWORD type = REG_NONE;
    if (RegQueryValueExA(options.Get(), kSuiteValue, nullptr, &type, reinterpret_cast<BYTE*>(list.text), &size) !=
            ERROR_SUCCESS ||
        type != REG_MULTI_SZ)
        return false;
    return Lists({list.text, size}, kTerminalServerSuite);
}

bool MachineIsTerminalServer() {
    const HANDLE heap = HeapCreate(0, 0, 0);
    const bool found = heap && MachineIsTerminalServer(heap);
    if (heap) HeapDestroy(heap);
    return found;
}

} // namespace product
