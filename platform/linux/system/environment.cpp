// The surroundings of a process: user name, environment variables, executable, files that can be opened. State: a
// record for each open file.
#include "base/call.h"
#include "kernel/handles.h"
#include "security/accounts.h"
#include "text/names.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fileapi.h>
#include <libloaderapi.h>
#include <link.h>
#include <new>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sysinfoapi.h>
#include <unistd.h>

namespace oriel {
namespace {

struct FileObject : Object {
    int descriptor;
};

void DropFile(Object* object) {
    if (!LastReference(object)) return;
    auto* file = static_cast<FileObject*>(object);
    close(file->descriptor);
    delete file;
}

constexpr ObjectType kFileType{.name = "file", .drop = DropFile};

HANDLE NoFile(DWORD error) {
    return Fail(error, INVALID_HANDLE_VALUE);
}

// The error of Windows for a file that cannot be opened. It distinguishes a missing folder from a missing file.
DWORD OpenError(int error, const std::string& path) {
    if (error == ENOTDIR) return ERROR_PATH_NOT_FOUND;
    if (error != ENOENT) return SystemError(error);
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    return access(folder.c_str(), F_OK) == 0 ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

HANDLE OpenFile(const std::string& path) {
    // O_NONBLOCK: the file may be a FIFO. O_NOCTTY: a terminal must not become the controlling one.
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) return NoFile(OpenError(errno, path));
    struct stat status {};
    if (fstat(descriptor, &status) != 0 || S_ISDIR(status.st_mode)) {
        close(descriptor);
        return NoFile(ERROR_ACCESS_DENIED);
    }
    auto* file = new (std::nothrow) FileObject{{&kFileType}, descriptor};
    if (file == nullptr) {
        close(descriptor);
        return NoFile(ERROR_NOT_ENOUGH_MEMORY);
    }
    HANDLE handle = NewHandle(file, GENERIC_READ);
    return handle != nullptr ? handle : INVALID_HANDLE_VALUE;
}

// In UTF-8; empty on failure.
std::string ExecutablePath() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    if (length <= 0 || length == sizeof path) return {};
    std::string_view name(path, static_cast<size_t>(length));
    // An executable that was replaced while it ran, by an update of the product, has this suffix.
    constexpr std::string_view kDeleted = " (deleted)";
    if (name.ends_with(kDeleted) && access(std::string(name).c_str(), F_OK) != 0) name.remove_suffix(kDeleted.size());
    return std::string(name);
}

// The module that has the address in its memory, with a reference; null when there is none.
void* TakeModule(const void* address, void** base) {
    Dl_info information{};
    link_map* map = nullptr;
    if (address == nullptr || dladdr1(address, &information, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0)
        return nullptr;
    *base = information.dli_fbase;
    // The loader finds it by the name that it gave it, also when the file is gone. The program itself has none.
    return dlopen(*map->l_name != '\0' ? map->l_name : nullptr, RTLD_LAZY | RTLD_NOLOAD);
}

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI GetUserNameA(LPSTR buffer, LPDWORD size) {
    if (size == nullptr || (buffer == nullptr && *size != 0)) return Fail(ERROR_INVALID_PARAMETER);
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        const char* set = std::getenv("ORIEL_LOGON_NAME");
        const std::string name = set != nullptr && *set != '\0' ? std::string(set) : NameOfUser(geteuid());
        if (name.empty()) return Fail(ERROR_NONE_MAPPED);
        const DWORD room = *size;
        *size = static_cast<DWORD>(name.size() + 1);
        if (room <= name.size()) return Fail(ERROR_INSUFFICIENT_BUFFER);
        std::memcpy(buffer, name.c_str(), name.size() + 1);
        return TRUE;
    });
}

HANDLE WINAPI CreateFileA(LPCSTR fileName, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES security,
                          DWORD disposition, DWORD attributes, HANDLE templateFile) {
    // Other ways to open a file are refused rather than ignored.
    const bool asked = access == GENERIC_READ && shareMode == FILE_SHARE_READ && security == nullptr &&
                       disposition == OPEN_EXISTING && templateFile == nullptr &&
                       (attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL | FILE_FLAG_NO_BUFFERING)) == 0;
    if (!asked || fileName == nullptr) return NoFile(ERROR_INVALID_PARAMETER);
    return Call<HANDLE>(INVALID_HANDLE_VALUE, [&]() -> HANDLE {
        const std::string path = UnixPath(fileName);
        return path.empty() ? NoFile(ERROR_INVALID_NAME) : OpenFile(path);
    });
}

DWORD WINAPI GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size) {
    if (module != nullptr) return Fail<DWORD>(ERROR_MOD_NOT_FOUND);
    if (fileName == nullptr || size == 0) return Fail<DWORD>(ERROR_INSUFFICIENT_BUFFER);
    return Call<DWORD>(0, [&]() -> DWORD {
        std::string path = ExecutablePath();
        std::replace(path.begin(), path.end(), '/', '\\'); // in UTF-8: no other character contains a slash
        path = Utf8ToAnsi(path);
        if (path.empty()) return Fail<DWORD>(ERROR_PATH_NOT_FOUND);
        const size_t length = std::min<size_t>(path.size(), size - 1);
        std::memcpy(fileName, path.data(), length);
        fileName[length] = '\0';
        if (length == path.size()) return static_cast<DWORD>(length);
        return Fail(ERROR_INSUFFICIENT_BUFFER, size);
    });
}

BOOL WINAPI GetModuleHandleExA(DWORD flags, LPCSTR name, HMODULE* module) {
    if (module == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    *module = nullptr;
    if (flags != GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS) return Fail(ERROR_INVALID_PARAMETER);
    return TakeModule(name, module) != nullptr ? TRUE : Fail(ERROR_MOD_NOT_FOUND);
}

HMODULE WINAPI LoadLibraryExA(LPCSTR name, HANDLE reserved, DWORD flags) {
    if (name == nullptr || *name == '\0' || std::strpbrk(name, "/\\.:") != nullptr || reserved != nullptr ||
        flags != LOAD_LIBRARY_SEARCH_APPLICATION_DIR)
        return Fail<HMODULE>(ERROR_INVALID_PARAMETER, nullptr);
    return Call<HMODULE>(nullptr, [&]() -> HMODULE {
        Dl_info here{};
        if (dladdr(&kFileType, &here) == 0 || here.dli_fname == nullptr)
            return Fail<HMODULE>(ERROR_MOD_NOT_FOUND, nullptr);
        std::string path = here.dli_fname;
        path.resize(path.rfind('/') + 1);
        path += "oriel/lib" + std::string(name) + ".so";
        auto* map = static_cast<link_map*>(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
        if (map == nullptr) return Fail<HMODULE>(ERROR_MOD_NOT_FOUND, nullptr);
        return reinterpret_cast<HMODULE>(map->l_addr);
    });
}

FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name) {
    if (name == nullptr || reinterpret_cast<uintptr_t>(name) <= 0xFFFF)
        return Fail<FARPROC>(ERROR_INVALID_PARAMETER, nullptr);
    void* base = nullptr;
    void* const handle = TakeModule(module, &base);
    if (handle == nullptr) return Fail<FARPROC>(ERROR_MOD_NOT_FOUND, nullptr);
    void* const address = base == module ? dlsym(handle, name) : nullptr;
    dlclose(handle);
    return address != nullptr ? reinterpret_cast<FARPROC>(address) : Fail<FARPROC>(ERROR_PROC_NOT_FOUND, nullptr);
}

BOOL WINAPI FreeLibrary(HMODULE module) {
    void* base = nullptr;
    void* const handle = TakeModule(module, &base);
    if (handle == nullptr) return Fail(ERROR_MOD_NOT_FOUND);
    const bool isModule = base == module; // and not just any address in one
    if (isModule) dlclose(handle);
    dlclose(handle);
    return isModule ? TRUE : Fail(ERROR_MOD_NOT_FOUND);
}

BOOL WINAPI DisableThreadLibraryCalls(HMODULE module) {
    // Libraries of the platform get no thread notifications, so there are none to disable.
    return module != nullptr ? TRUE : Fail(ERROR_MOD_NOT_FOUND);
}
