// The state and run directories. State: the scope and the two paths, found once; whether each directory was seen to be
// safe; whether this process only looks.
#include "base/directories.h"

#include "base/call.h"
#include "base/descriptor.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <errhandlingapi.h>
#include <fcntl.h>
#include <memory>
#include <oriel_directories.h>
#include <sys/stat.h>
#include <unistd.h>
#include <winerror.h>

namespace oriel {
namespace {

// MakeRuntimeDirectory makes them all together.
struct FolderRow {
    const char* name;
    mode_t shared; // its mode in a directory that all users share
};
constexpr FolderRow kRuntimeFolders[] = {{"rpc", 0755}, {"services", 0755}, {"windows", 01777}};

constexpr mode_t kOthersMayWrite = S_IWGRP | S_IWOTH;

// True when only the owner, who is this user or root, can replace what is in the directory. The sticky bit has the same
// effect as no right to write: others may add entries, but not exchange those of the owner.
bool IsTrusted(const struct stat& status) {
    if (!S_ISDIR(status.st_mode)) return false;
    if (status.st_uid != geteuid() && status.st_uid != 0) return false;
    return (status.st_mode & kOthersMayWrite) == 0 || (status.st_mode & S_ISVTX) != 0;
}

// Makes the directory with exactly this mode, whatever the umask; one of ours that exists loses the rights beyond it.
// True when it exists and can be trusted. The checks use a descriptor: nobody can exchange the directory between them.
bool MakeDirectory(const std::string& path, mode_t mode) {
    const bool made = mkdir(path.c_str(), 0700) == 0;
    if (!made && errno != EEXIST) return false;
    const Descriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!directory.IsOpen() || fstat(directory.Get(), &status) != 0 || !IsTrusted(status)) return false;
    const mode_t wanted = made ? mode : status.st_mode & mode;
    if (status.st_uid != geteuid() || (status.st_mode & 07777) == wanted) return true;
    return fchmod(directory.Get(), wanted) == 0;
}

// Errors are ignored: making the directory itself then fails.
void MakeParents(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
}

// A program that runs with more rights than its caller must not follow the environment of that caller.
std::string Variable(const char* name) {
    const char* value = secure_getenv(name);
    return value != nullptr ? value : "";
}

struct Directory {
    std::string path;
    mode_t mode = 0700;
    bool named = false; // by a variable: links are followed, since whoever set the variable chose the target
    std::atomic<bool> seen = false; // exists and is safe
};

struct Directories {
    Scope scope = Scope::Wrong;
    Directory state;
    Directory runtime;
};

// Set by ChooseScope; Wrong while nobody has chosen.
std::atomic<Scope> g_chosen = Scope::Wrong;
std::atomic<bool> g_found = false;
std::atomic<bool> g_onlyLooks = false;

constexpr const char* kScopeVariable = "ORIEL_SCOPE";
constexpr const char* kSystemState = "/var/lib/oriel";
constexpr const char* kSystemRuntime = "/run/oriel";
constexpr const char* kInUseFile = "/in-use";

// The fallback lies in a directory that everybody may write to, so its name has the user's number; IsTrusted refuses it
// when another user made it first.
std::string UsersDirectory(const char* variable, const char* underHome, const char* fallback) {
    std::string path = Variable(variable);
    const std::string home = Variable("HOME");
    if (path.empty() && underHome != nullptr && !home.empty()) path = home + underHome;
    return !path.empty() ? path + "/oriel" : fallback + std::to_string(geteuid());
}

// A process that looks only queries this lock (F_GETLK). It never takes it, so it cannot block the process that does.
struct flock WholeFile() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

// Whether a process has claimed the directories of this user.
bool IsInUse(const std::string& runtime) {
    struct stat status {};
    if (lstat(runtime.c_str(), &status) != 0 || !IsTrusted(status)) return false;
    const Descriptor file(open((runtime + kInUseFile).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct flock lock = WholeFile();
    return file.IsOpen() && fcntl(file.Get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

Scope FindScope(const std::string& usersRuntime) {
    if (const Scope chosen = g_chosen.load(); chosen != Scope::Wrong) return chosen;
    const std::string wanted = Variable(kScopeVariable);
    if (wanted == "system") return Scope::System;
    if (wanted == "user") return Scope::User;
    if (!wanted.empty()) return Scope::Wrong;
    if (IsInUse(usersRuntime)) return Scope::User;
    struct stat status {};
    return geteuid() == 0 || lstat(kSystemState, &status) == 0 ? Scope::System : Scope::User;
}

void Choose(Directory& directory, const char* variable, Scope scope, const char* systems, const std::string& users) {
    directory.path = Variable(variable);
    directory.named = !directory.path.empty();
    while (directory.path.size() > 1 && directory.path.back() == '/')
        directory.path.pop_back();
    directory.mode = directory.named || scope == Scope::System ? 0755 : 0700;
    if (directory.named || scope == Scope::Wrong) return;
    directory.path = scope == Scope::System ? systems : users;
}

Directories& Find() {
    auto directories = std::make_unique<Directories>();
    Directories& found = *directories;
    const std::string users = UsersDirectory("XDG_RUNTIME_DIR", nullptr, "/tmp/oriel-");
    found.scope = FindScope(users);
    Choose(found.state, "ORIEL_STATE_DIR", found.scope, kSystemState,
           UsersDirectory("XDG_STATE_HOME", "/.local/state", "/var/tmp/oriel-"));
    Choose(found.runtime, "ORIEL_RUNTIME_DIR", found.scope, kSystemRuntime, users);
    if (found.state.named || found.runtime.named) found.scope = Scope::Named;
    g_found = true;
    return *directories.release(); // never destroyed: threads may outlive main()
}

Directories& Found() {
    static Directories& found = Find();
    return found;
}

// The empty path, for functions that return a reference.
const std::string& Nothing() {
    static const std::string& nothing = *new std::string;
    return nothing;
}

enum class Presence { Missing, Safe, Unsafe };

// A directory that was safe once stays safe: nobody else can replace it.
Presence Look(Directory& directory) {
    if (directory.path.empty()) return Presence::Unsafe;
    if (directory.seen.load(std::memory_order_relaxed)) return Presence::Safe;
    struct stat status {};
    const char* path = directory.path.c_str();
    if ((directory.named ? stat(path, &status) : lstat(path, &status)) != 0)
        return errno == ENOENT ? Presence::Missing : Presence::Unsafe;
    if (!IsTrusted(status)) return Presence::Unsafe;
    directory.seen.store(true, std::memory_order_relaxed);
    return Presence::Safe;
}

const std::string& IfThere(Directory& directory) {
    return Look(directory) == Presence::Safe ? directory.path : Nothing();
}

// Makes a directory anew that was removed after it was seen.
const std::string& Made(Directory& directory) {
    struct stat status {};
    if (directory.seen && stat(directory.path.c_str(), &status) != 0) directory.seen = false;
    if (Look(directory) == Presence::Missing) {
        MakeParents(directory.path);
        if (!MakeDirectory(directory.path, directory.mode)) return Nothing();
    }
    return IfThere(directory);
}

} // namespace

Scope TheScope() {
    return Found().scope;
}

bool ChooseScope(Scope scope) {
    if (g_found) return false;
    g_chosen = scope;
    return true;
}

const std::string& StateDirectoryName() {
    return Found().state.path;
}

const std::string& RuntimeDirectoryName() {
    return Found().runtime.path;
}

const std::string& StateDirectory() {
    return IfThere(Found().state);
}

const std::string& RuntimeDirectory() {
    return IfThere(Found().runtime);
}

const std::string& MakeStateDirectory() {
    return Made(Found().state);
}

const std::string& MissingStateDirectory() {
    Directory& state = Found().state;
    return Look(state) == Presence::Missing ? state.path : Nothing();
}

namespace {

std::string FolderBelow(const std::string& directory, const char* name, mode_t shared) {
    struct stat status {};
    if (directory.empty() || stat(directory.c_str(), &status) != 0) return "";
    std::string path = directory + "/" + name;
    // Shared by all users when they can enter the directory.
    return MakeDirectory(path, (status.st_mode & S_IXOTH) != 0 ? shared : 0700) ? path : "";
}

} // namespace

const std::string& MakeRuntimeDirectory() {
    Directory& runtime = Found().runtime;
    if (g_onlyLooks) return IfThere(runtime);
    const std::string& directory = Made(runtime);
    // The first user makes all folders: in a directory of root, other users could not make one later.
    struct stat status {};
    for (const FolderRow& row : kRuntimeFolders)
        if (!directory.empty() && lstat((directory + "/" + row.name).c_str(), &status) != 0)
            FolderBelow(directory, row.name, row.shared);
    return directory;
}

std::string RuntimeFolder(const char* name) {
    const std::string& directory = MakeRuntimeDirectory();
    if (directory.empty()) return "";
    struct stat status {};
    if (g_onlyLooks) {
        std::string path = directory + "/" + name;
        return lstat(path.c_str(), &status) == 0 && IsTrusted(status) ? path : "";
    }
    for (const FolderRow& row : kRuntimeFolders)
        if (std::strcmp(row.name, name) == 0) return FolderBelow(directory, name, row.shared);
    return "";
}

std::string StateFolder(const char* name) {
    return FolderBelow(MakeStateDirectory(), name, 01777);
}

void OnlyLook() {
    g_onlyLooks = true;
}

bool OnlyLooks() {
    return g_onlyLooks;
}

bool ClaimDirectories() {
    g_onlyLooks = false;
    if (MakeStateDirectory().empty() || RuntimeFolder(kRuntimeFolders[0].name).empty()) return false;
    const Scope scope = TheScope();
    // Child processes use the same scope.
    if (scope != Scope::Named) setenv(kScopeVariable, scope == Scope::System ? "system" : "user", 1);
    // The lock lasts until the process ends: its descriptor stays open. If the lock is taken, another process has
    // claimed the same directories.
    const std::string path = RuntimeDirectory() + kInUseFile;
    Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    struct flock lock = WholeFile();
    if (file.IsOpen() && fcntl(file.Get(), F_SETLK, &lock) == 0) file.Release();
    return true;
}

} // namespace oriel

using namespace oriel;

const char* WINAPI OrielStateDirectory() {
    return StateDirectoryName().c_str();
}

const char* WINAPI OrielRuntimeDirectory() {
    return RuntimeDirectoryName().c_str();
}

const char* WINAPI OrielScope() {
    switch (TheScope()) {
    case Scope::System:
        return "system";
    case Scope::User:
        return "user";
    case Scope::Named:
        return "";
    case Scope::Wrong:
        break;
    }
    return nullptr;
}

BOOL WINAPI OrielChooseScope(const char* scope) {
    const bool system = std::strcmp(scope, "system") == 0;
    if (!system && std::strcmp(scope, "user") != 0) return FALSE;
    return ChooseScope(system ? Scope::System : Scope::User);
}

void WINAPI OrielOnlyLook() {
    OnlyLook();
}

BOOL WINAPI OrielClaimDirectories() {
    if (ClaimDirectories()) return TRUE;
    return Fail(ERROR_ACCESS_DENIED);
}
