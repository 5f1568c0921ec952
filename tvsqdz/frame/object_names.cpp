// Names are formed in records on the stack; a name that does not fit is empty and makes no object.
#include "frame/object_names.h"

#include "frame/object_security.h"
#include "frame/process_state.h"

#include <stdio.h>

dblink::KernelName ObjectName(const char* baseName) {
    return dblink::ObjectName(g_terminalServer, baseName);
}

dblink::KernelName RequestMutexName(const char* databaseName) {
    dblink::KernelName name;
    const int length = snprintf(name.text, sizeof name.text, "%s%s", kRequestMutexPrefix, databaseName);
    return length < static_cast<int>(sizeof name.text) ? ObjectName(name.text) : dblink::KernelName{};
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
