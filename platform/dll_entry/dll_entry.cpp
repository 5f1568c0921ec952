// Makes a shared object a library of the platform: its DllMain is told when it is loaded and when it is unloaded.
//
// A library compiles this file in. What its DllMain uses of the library's own variables must be constant-initialised:
// there is no order between this constructor and theirs.
//
// The dynamic loader has no load that fails here. An attach that returns FALSE is followed by its detach, as the loader
// of Windows does it, and leaves a library that is there but that must refuse all of its calls by itself.
#include <dlfcn.h>
#include <unistd.h>

#include <windef.h>
#include <winnt.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

namespace {

HINSTANCE g_instance;
// The process that has it attached, 0 for none. A fork child has not: what its parent did at the attach is not its to
// undo.
pid_t g_attachedIn;

// As on Windows, a library's instance is the address that it is loaded at.
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
