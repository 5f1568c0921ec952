// Objects of objects.h. Names are formed in records on the stack; a name that does not fit is empty and creates no
// object. State: g_objectSecurity.
#include "machine/objects.h"

#include "base/memory.h"
#include "machine/process_state.h"

#include <new>
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
    return product::CreateNamedEvent(name.text, ObjectSecurity());
}

namespace {

std::atomic<product::EveryoneAccess*> g_objectSecurity; // in a block of the heap

} // namespace

SECURITY_ATTRIBUTES* ObjectSecurity() {
    product::EveryoneAccess* everyone = g_objectSecurity;
    return everyone != nullptr ? &everyone->attributes : nullptr;
}

bool EnsureObjectSecurity() {
    if (g_objectSecurity != nullptr) return true;
    HeapBlock block(sizeof(product::EveryoneAccess));
    if (block.memory == nullptr) return false;
    auto* everyone = new (block.memory) product::EveryoneAccess;
    // An object without the descriptor would lock out other users: no manager is better than one that only its user can
    // share.
    if (!*everyone) return false;
    block.Take();
    g_objectSecurity = everyone;
    return true;
}

void FreeObjectSecurity() {
    FreeBlock(g_objectSecurity.exchange(nullptr));
}
