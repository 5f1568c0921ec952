// Objects of objects.h. Names are formed in records on the stack; a name that does not fit is empty and creates no
// object. State: g_objectSecurity.
#include "machine/objects.h"

#include "base/memory.h"
#include "machine/process_state.h"

#include <stdio.h>

product::KernelName ObjectName(const char* baseName) {
    return product::ObjectName(g_terminalServer, baseName);
}

product::KernelName RequestMutexName(const char* databaseName) {
    product::KernelName name;
    const int length = snprintf(name.text, sizeof name.text, "%s%s", kRequestMutexPrefix, databaseName);
    return length < static_cast<int>(sizeof name.text) ? ObjectName(name.text) : product::KernelName{};
}

HANDLE CreateOrOpenMutex(const product::KernelName& name) {
    if (name.text[0] == '\0') return nullptr; // an empty name would create an unnamed object
    HANDLE mutex = CreateMutexA(ObjectSecurity(), FALSE, name.text);
    return mutex != nullptr ? mutex : OpenMutexA(SYNCHRONIZE, FALSE, name.text);
}

HANDLE CreateNamedEvent(const product::KernelName& name) {
    if (name.text[0] == '\0') return nullptr;
    return CreateEventA(ObjectSecurity(), TRUE, FALSE, name.text);
}

namespace {

std::atomic<SECURITY_ATTRIBUTES*> g_objectSecurity;

// An entry is its header and mask, 8 bytes, and its SID.
constexpr DWORD kAceHeaderSize = 8;

} // namespace

bool BuildSecurityDescriptor(const AccessEntry* entries, DWORD count, PSID group, PSECURITY_DESCRIPTOR* descriptor) {
    *descriptor = nullptr;
    SECURITY_DESCRIPTOR absolute;
    if (!InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorOwner(&absolute, nullptr, FALSE) || !SetSecurityDescriptorGroup(&absolute, group, FALSE))
        return false;

    DWORD aclSize = sizeof(ACL);
    for (DWORD i = 0; i < count; ++i)
        aclSize += GetLengthSid(entries[i].sid) + kAceHeaderSize;
    const HeapBlock aclBlock(aclSize);
    if (aclBlock.memory == nullptr) return false;
    ACL* acl = reinterpret_cast<ACL*>(aclBlock.memory);
    if (!InitializeAcl(acl, aclSize, ACL_REVISION)) return false;
    for (DWORD i = 0; i < count; ++i) {
        if (!AddAccessAllowedAce(acl, ACL_REVISION, entries[i].mask, entries[i].sid)) return false;
        if (entries[i].aceFlags == 0) continue;
        void* ace = nullptr;
        if (!GetAce(acl, i, &ace)) return false;
        static_cast<ACE_HEADER*>(ace)->AceFlags = entries[i].aceFlags;
    }
    if (!SetSecurityDescriptorDacl(&absolute, TRUE, acl, FALSE)) return false;

    DWORD size = GetSecurityDescriptorLength(&absolute);
    HeapBlock selfRelative(size);
    if (selfRelative.memory == nullptr || !MakeSelfRelativeSD(&absolute, selfRelative.memory, &size)) return false;
    *descriptor = selfRelative.Take();
    return true;
}

PSECURITY_DESCRIPTOR BuildObjectSecurity() {
    SID_IDENTIFIER_AUTHORITY worldAuthority = SECURITY_WORLD_SID_AUTHORITY;
    PSID world = nullptr;
    if (!AllocateAndInitializeSid(&worldAuthority, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &world)) return nullptr;
    const AccessEntry everyone = {.sid = world, .mask = GENERIC_ALL, .aceFlags = 0};
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    BuildSecurityDescriptor(&everyone, 1, world, &descriptor);
    FreeSid(world);
    return descriptor;
}

SECURITY_ATTRIBUTES* ObjectSecurity() {
    return g_objectSecurity;
}

bool EnsureObjectSecurity() {
    if (g_objectSecurity != nullptr) return true;
    HeapBlock block(sizeof(SECURITY_ATTRIBUTES));
    if (block.memory == nullptr) return false;
    SECURITY_ATTRIBUTES* attributes = reinterpret_cast<SECURITY_ATTRIBUTES*>(block.memory);
    attributes->nLength = sizeof *attributes;
    attributes->lpSecurityDescriptor = BuildObjectSecurity();
    attributes->bInheritHandle = FALSE;
    // An object without the descriptor would lock out other users: no manager is better than one that only its user can
    // share.
    if (attributes->lpSecurityDescriptor == nullptr) return false;
    block.Take();
    g_objectSecurity = attributes;
    return true;
}

void FreeObjectSecurity() {
    SECURITY_ATTRIBUTES* attributes = g_objectSecurity.exchange(nullptr);
    if (attributes == nullptr) return;
    FreeBlock(attributes->lpSecurityDescriptor);
    FreeBlock(attributes);
}
