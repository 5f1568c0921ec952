// Processes: CreateProcessA, OpenProcess, exit codes; reads and writes of this process's memory with the fault guard.
//
// State: a record for each process with a handle. A pidfd identifies the process: its number may belong to another
// process after its end.
#include "kernel/process.h"

#include "base/call.h"
#include "kernel/named_object.h"
#include "memory/guard.h"
#include "security/credentials.h"
#include "text/names.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <errhandlingapi.h>
#include <fcntl.h>
#include <handleapi.h>
#include <memoryapi.h>
#include <new>
#include <oriel_programs.h>
#include <processthreadsapi.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace oriel {
namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

// The program name has rules of its own on Windows: a backslash never escapes.
std::string FirstWord(const char*& next) {
    std::string word;
    if (*next == '"') {
        ++next;
        while (*next != '\0' && *next != '"')
            word += *next++;
        if (*next == '"') ++next;
        return word;
    }
    while (*next != '\0' && !IsBlank(*next))
        word += *next++;
    return word;
}

// The rules of Windows programs: 2n backslashes and a quote are n backslashes and a quotation mark; with 2n + 1 the
// quote is literal; a doubled quote inside quotation marks is one quote.
std::string Argument(const char*& next) {
    std::string word;
    bool quoted = false;
    while (*next != '\0' && (quoted || !IsBlank(*next))) {
        size_t backslashes = 0;
        for (; *next == '\\'; ++next)
            ++backslashes;
        if (*next != '"') {
            word.append(backslashes, '\\');
            if (backslashes == 0) word += *next++;
            continue;
        }
        word.append(backslashes / 2, '\\');
        if (backslashes % 2 != 0 || (quoted && next[1] == '"')) {
            word += '"';
            if (backslashes % 2 == 0) ++next;
        } else {
            quoted = !quoted;
        }
        ++next;
    }
    return word;
}

} // namespace

std::vector<std::string> DivideCommandLine(const char* commandLine) {
    const char* next = commandLine;
    while (IsBlank(*next))
        ++next;
    std::vector<std::string> words{FirstWord(next)};
    for (;;) {
        while (IsBlank(*next))
            ++next;
        if (*next == '\0') return words;
        words.push_back(Argument(next));
    }
}

namespace {

void DropProcess(Object* object) {
    if (!LastReference(object)) return;
    auto* process = static_cast<ProcessObject*>(object);
    StopWatching(*process);
    close(process->descriptor);
    delete process;
}

Grab GrabProcess(Object* object, WaitPoint& point, bool goingToSleep) {
    auto& process = *static_cast<ProcessObject*>(object);
    if (HasEnded(process)) return Grab::Got;
    if (goingToSleep && !WatchProcess(process)) return Grab::Failed;
    point.word = &process.ended;
    return process.ended.load(std::memory_order_acquire) != 0 ? Grab::Got : Grab::Busy;
}

} // namespace

const ObjectType kProcessType{.name = "process", .drop = DropProcess, .grab = GrabProcess};

namespace {

// Only the handle of CreateProcessA has it; OpenProcess never grants it.
constexpr DWORD kTerminateRight = 0x0001;

struct SpawnActions {
    posix_spawn_file_actions_t actions;
    SpawnActions() { posix_spawn_file_actions_init(&actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
};

struct SpawnAttributes {
    posix_spawnattr_t attributes;
    SpawnAttributes() { posix_spawnattr_init(&attributes); }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
};

// 0, or a value of errno. A program that is not found leaves no child behind.
int Spawn(const std::string& path, std::vector<std::string>& words, bool ownConsole, pid_t& id) {
    SpawnActions file;
    SpawnAttributes start;
    short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    if (ownConsole) {
        // The child gets no signals of the terminal, and does not keep open a pipe that others read to its end.
        flags |= POSIX_SPAWN_SETSID;
        posix_spawn_file_actions_addopen(&file.actions, 0, "/dev/null", O_RDWR, 0);
        posix_spawn_file_actions_adddup2(&file.actions, 0, 1);
        posix_spawn_file_actions_adddup2(&file.actions, 0, 2);
    }
    // No handle is inherited: descriptors of the host program and of the layer stay here.
    posix_spawn_file_actions_addclosefrom_np(&file.actions, 3);
    sigset_t signals;
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&start.attributes, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&start.attributes, &signals);
    posix_spawnattr_setflags(&start.attributes, flags);
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return posix_spawn(&id, path.c_str(), &file.actions, &start.attributes, argv.data(), environ);
}

DWORD SpawnError(int error, const std::string& path) {
    if (error != ENOENT) return SystemError(error);
    // ENOENT does not say what is missing. If the script exists, its interpreter is missing.
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) return ERROR_BAD_EXE_FORMAT;
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    return stat(folder.c_str(), &status) == 0 ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

bool AsksForNothing(const STARTUPINFOA& startup) {
    return startup.cb == sizeof startup && startup.lpReserved == nullptr && startup.lpDesktop == nullptr &&
           startup.lpTitle == nullptr && startup.dwX == 0 && startup.dwY == 0 && startup.dwXSize == 0 &&
           startup.dwYSize == 0 && startup.dwXCountChars == 0 && startup.dwYCountChars == 0 &&
           startup.dwFillAttribute == 0 && startup.dwFlags == 0 && startup.wShowWindow == 0 &&
           startup.cbReserved2 == 0 && startup.lpReserved2 == nullptr && startup.hStdInput == nullptr &&
           startup.hStdOutput == nullptr && startup.hStdError == nullptr;
}

// Handles for a running child. If they cannot be made, the child is killed: nobody could wait for it.
BOOL GiveHandles(pid_t id, LPPROCESS_INFORMATION information) {
    auto* process = new (std::nothrow) ProcessObject{{&kProcessType}};
    const int descriptor = process != nullptr ? static_cast<int>(syscall(SYS_pidfd_open, id, 0)) : -1;
    // It ended, and the host program lets the kernel reap its children.
    const bool gone = descriptor < 0 && process != nullptr && errno == ESRCH;
    if (descriptor < 0 && !gone) {
        const int error = process != nullptr ? errno : ENOMEM;
        delete process;
        kill(id, SIGKILL);
        waitpid(id, nullptr, 0);
        return Fail(SystemError(error));
    }
    process->id = static_cast<DWORD>(id);
    process->descriptor = descriptor;
    process->child = true;
    process->ended.store(gone ? 1 : 0);
    process->references.store(3); // two handles, and this call
    const bool watched = WatchProcess(*process);
    const HANDLE processHandle = NewHandle(process, kAllRights);
    const HANDLE threadHandle = NewHandle(process, SYNCHRONIZE);
    const bool given = watched && processHandle != nullptr && threadHandle != nullptr;
    if (given) {
        *information = {processHandle, threadHandle, process->id, process->id};
    } else {
        if (!gone) syscall(SYS_pidfd_send_signal, descriptor, SIGKILL, nullptr, 0);
        if (!watched) waitpid(id, nullptr, 0);
        if (processHandle != nullptr) CloseHandle(processHandle);
        if (threadHandle != nullptr) CloseHandle(threadHandle);
    }
    DropReference(process);
    return given ? TRUE : Fail(ERROR_NO_SYSTEM_RESOURCES);
}

BOOL StartProcess(LPCSTR application, LPCSTR commandLine, bool ownConsole, LPPROCESS_INFORMATION information) {
    std::vector<std::string> words;
    if (commandLine != nullptr) words = DivideCommandLine(commandLine);
    if (words.empty()) words.emplace_back(application);
    const std::string path = UnixPath(application != nullptr ? application : words.front().c_str());
    if (path.empty()) return Fail(ERROR_INVALID_PARAMETER);
    for (std::string& word : words)
        word = AnsiToUtf8(word);
    const AsOwnProcess ourselves; // the child belongs to the process, even if the thread impersonates another user
    pid_t id = 0;
    const int error = Spawn(path, words, ownConsole, id);
    return error == 0 ? GiveHandles(id, information) : Fail(SpawnError(error, path));
}

BOOL Report(bool whole, size_t copied, SIZE_T* count) {
    if (count != nullptr) *count = copied;
    if (!whole) SetLastError(copied > 0 ? ERROR_PARTIAL_COPY : ERROR_NOACCESS);
    return whole ? TRUE : FALSE;
}

bool IsOwnProcess(HANDLE process) {
    if (process == GetCurrentProcess()) return true;
    return Fail(process == nullptr ? ERROR_INVALID_HANDLE : ERROR_NOT_SUPPORTED, false);
}

} // namespace
} // namespace oriel

using namespace oriel;

DWORD WINAPI GetCurrentProcessId() {
    return static_cast<DWORD>(getpid());
}

BOOL WINAPI CreateProcessA(LPCSTR application, LPSTR commandLine, LPSECURITY_ATTRIBUTES processAttributes,
                           LPSECURITY_ATTRIBUTES threadAttributes, BOOL inheritHandles, DWORD flags, LPVOID environment,
                           LPCSTR directory, LPSTARTUPINFOA startup, LPPROCESS_INFORMATION information) {
    if (information == nullptr || startup == nullptr || (application == nullptr && commandLine == nullptr))
        return Fail(ERROR_INVALID_PARAMETER);
    if (!AttributesAreSupported(processAttributes) || !AttributesAreSupported(threadAttributes)) return FALSE;
    if (inheritHandles || (flags & ~DWORD{CREATE_NEW_CONSOLE | NORMAL_PRIORITY_CLASS}) != 0 || environment != nullptr ||
        directory != nullptr || !AsksForNothing(*startup))
        return Fail(ERROR_NOT_SUPPORTED);
    return Call<BOOL>(
        FALSE, [&] { return StartProcess(application, commandLine, (flags & CREATE_NEW_CONSOLE) != 0, information); });
}

HANDLE WINAPI OpenProcess(DWORD access, BOOL inherit, DWORD id) {
    TerminationHold hold;
    const bool known = access != 0 && (access & ~DWORD{SYNCHRONIZE | PROCESS_QUERY_INFORMATION}) == 0;
    const DWORD refusal = inherit ? ERROR_NOT_SUPPORTED : known ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
    if (refusal != ERROR_SUCCESS) return Fail(refusal, nullptr);
    auto* process = new (std::nothrow) ProcessObject{{&kProcessType}};
    if (process == nullptr) return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    process->descriptor = static_cast<int>(syscall(SYS_pidfd_open, id, 0));
    if (process->descriptor < 0) {
        // No such process, or a thread that is not the first of its process.
        const bool none = errno == ESRCH || errno == EINVAL || errno == ENOENT;
        SetLastError(none ? ERROR_INVALID_PARAMETER : SystemError(errno));
        delete process;
        return nullptr;
    }
    process->id = id;
    return NewHandle(process, access);
}

BOOL WINAPI GetExitCodeProcess(HANDLE handle, LPDWORD exitCode) {
    if (exitCode == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    if (handle == GetCurrentProcess()) {
        *exitCode = STILL_ACTIVE;
        return TRUE;
    }
    HandleUse<ProcessObject> process(handle, kProcessType, PROCESS_QUERY_INFORMATION);
    if (!process) return FALSE;
    const bool ended = HasEnded(*process.Get());
    // The exit code is known only for children that this process reaped.
    if (ended && !process->exitCodeKnown.load()) return Fail(ERROR_ACCESS_DENIED);
    *exitCode = ended ? process->exitCode.load() : STILL_ACTIVE;
    return TRUE;
}

BOOL WINAPI TerminateProcess(HANDLE handle, UINT exitCode) {
    if (handle == GetCurrentProcess()) _exit(static_cast<int>(exitCode));
    HandleUse<ProcessObject> process(handle, kProcessType, kTerminateRight);
    if (!process) return FALSE;
    if (HasEnded(*process.Get())) return Fail(ERROR_ACCESS_DENIED);
    // Before the signal: the watcher reads it as soon as the process has ended.
    process->exitCodeGiven.store(exitCode);
    if (syscall(SYS_pidfd_send_signal, process->descriptor, SIGKILL, nullptr, 0) != 0) return Fail(ERROR_ACCESS_DENIED);
    return TRUE;
}

BOOL WINAPI ReadProcessMemory(HANDLE process, LPCVOID baseAddress, LPVOID buffer, SIZE_T size, SIZE_T* bytesRead) {
    if (!IsOwnProcess(process)) return FALSE;
    size_t copied = 0;
    const bool whole = GuardedRead(buffer, baseAddress, size, &copied);
    return Report(whole, copied, bytesRead);
}

BOOL WINAPI WriteProcessMemory(HANDLE process, LPVOID baseAddress, LPCVOID buffer, SIZE_T size, SIZE_T* bytesWritten) {
    if (!IsOwnProcess(process)) return FALSE;
    size_t copied = 0;
    const bool whole = GuardedWrite(baseAddress, buffer, size, &copied);
    return Report(whole, copied, bytesWritten);
}

BOOL WINAPI OrielReplaceProgram(LPCSTR name, LPSTR const* arguments) {
    char own[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", own, sizeof own);
    if (name == nullptr || arguments == nullptr || length <= 0 || length == ssize_t{sizeof own})
        return Fail(ERROR_INVALID_PARAMETER);
    const std::string path(own, static_cast<size_t>(length));
    std::string program = path.substr(0, path.rfind('/') + 1) + name;
    std::vector<char*> words{program.data()};
    for (; *arguments != nullptr; ++arguments)
        words.push_back(*arguments);
    words.push_back(nullptr);
    execv(program.c_str(), words.data());
    return Fail(SystemError(errno));
}
