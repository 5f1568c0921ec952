// Names are formed in records on the stack; a name that does not fit is empty and makes no object.
#include "machine/object_names.h"

#include "machine/object_security.h"
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
    if (name.text[0] == '\0') return nullptr; // would make an unnamed one
    HANDLE mutex = CreateMutexA(ObjectSecurity(), FALSE, name.text);
    return mutex != nullptr ? mutex : OpenMutexA(SYNCHRONIZE, FALSE, name.text);
}

HANDLE CreateNamedEvent(const product::KernelName& name) {
    if (name.text[0] == '\0') return nullptr;
    return CreateEventA(ObjectSecurity(), TRUE, FALSE, name.text);
}
