// Makes a shared object a library of the platform: calls its DllMain when it is loaded and when it is unloaded. State:
// the instance, and the process in which the library is attached.
//
// A library compiles this file in. Variables of the library that its DllMain uses must be constant-initialised: their
// constructors have no fixed order with the one here.
//
// A load cannot fail here, unlike on Windows. After an attach that returns FALSE, DllMain gets the detach, as on
// Windows, but the library stays loaded and must refuse its calls by itself.
#include <dlfcn.h>
#include <unistd.h>

#include <windef.h>
#include <winnt.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

namespace {

HINSTANCE g_instance;
// The process in which it is attached, 0 for none. A fork child is not: it must not undo what its parent did.
pid_t g_attachedIn;

// As on Windows, the instance is the address at which the library is loaded.
HINSTANCE Instance() {
    Dl_info info{};
    return dladdr(reinterpret_cast<void*>(&DllMain), &info) != 0 ? info.dli_fbase : nullptr;
}

__attribute__((constructor)) void Attach() {
    g_instance = Instance();
    if (DllMain(g_instance, DLL_PROCESS_ATTACH, nullptr))
        g_attachedIn = getpid();
    else
        DllMain(g_instance, DLL_PROCESS_DETACH, nullptr);
}

__attribute__((destructor)) void Detach() {
    if (g_attachedIn == getpid()) DllMain(g_instance, DLL_PROCESS_DETACH, nullptr);
    g_attachedIn = 0;
}

} // namespace
