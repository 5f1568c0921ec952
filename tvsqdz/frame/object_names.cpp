// Names are formed in records on the stack; a name that does not fit is empty and makes no object.
#include "frame/object_names.h"

#include "frame/object_security.h"
#include "frame/process_state.h"

#include <stdio.h>

namespace {

dblink::KernelName Composed(const char* prefix, const char* databaseName, const char* suffix) {
    dblink::KernelName name;
    const int length = snprintf(name.text, sizeof name.text, "%s%s%s", prefix, databaseName, suffix);
    return length < static_cast<int>(sizeof name.text) ? name : dblink::KernelName{};
}

} // namespace

dblink::KernelName ObjectName(const char* baseName) {
    return dblink::ObjectName(g_terminalServer, baseName);
}

dblink::KernelName RequestMutexName(const char* databaseName) {
    return ObjectName(Composed(kRequestMutexPrefix, databaseName, "").text);
}

dblink::KernelName AgentReadyName(const char* databaseName) {
    return Composed("TVOR:", databaseName, ":Nsr:Initialize");
}

HANDLE CreateOrOpenMutex(const dblink::KernelName& name) {
    if (name.text[0] == '\0') return nullptr; // would make an unnamed one
    HANDLE mutex = CreateMutexA(ObjectSecurity(), FALSE, name.text);
    return mutex != nullptr ? mutex : OpenMutexA(SYNCHRONIZE, FALSE, name.text);
}

HANDLE CreateNamedEvent(const dblink::KernelName& name) {
    if (name.text[0] == '\0') return nullptr;
    return CreateEventA(ObjectSecurity(), TRUE, FALSE, name.text);
}
