// The state and run directories. State: the two names, found once.
#include "directories.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kernel/descriptor.h"

namespace oriel {

namespace {

constexpr const char* kRuntimeFolders[] = {"objects", "rpc", "services", "windows"};

constexpr mode_t kOthersMayWrite = S_IWGRP | S_IWOTH;

// Whether a directory can be relied on: nobody but its owner, who is this user or root, can exchange what is in it.
bool IsTrusted(const struct stat& status) {
    if (!S_ISDIR(status.st_mode)) return false;
    if (status.st_uid != geteuid() && status.st_uid != 0) return false;
    return (status.st_mode & kOthersMayWrite) == 0 || (status.st_mode & S_ISVTX) != 0;
}

// Makes the directory if it is missing, with exactly this mode. True when it is there and can be relied on.
bool MakeDirectory(const std::string& path, mode_t mode) {
    const bool made = mkdir(path.c_str(), 0700) == 0;
    if (!made && errno != EEXIST) return false;
    const Descriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!directory.IsOpen() || fstat(directory.Get(), &status) != 0 || !IsTrusted(status)) return false;
    return !made || fchmod(directory.Get(), mode) == 0;
}

void MakeParents(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
}

std::string Variable(const char* name) {
    const char* value = secure_getenv(name);
    return value != nullptr ? value : "";
}

struct Choice {
    const char* variable;     // names the directory itself
    const char* shared;       // root's, and all users' once it exists
    const char* userVariable; // names the folder of a user's own ones
    const char* underHome;    // that folder otherwise, below the home directory,
    const char* fallback;     // or else this one, with the user's number behind it
};

std::string FindDirectory(const Choice& choice) {
    std::string path = Variable(choice.variable);
    if (!path.empty()) {
        while (path.size() > 1 && path.back() == '/')
            path.pop_back();
        // A link is as good as what it leads to: whoever set the variable chose it.
        struct stat status {};
        if (stat(path.c_str(), &status) == 0) return IsTrusted(status) ? path : "";
        MakeParents(path);
        return MakeDirectory(path, 0755) ? path : "";
    }
    path = choice.shared;
    if (geteuid() == 0) {
        MakeParents(path);
        return MakeDirectory(path, 0755) ? path : "";
    }
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) return IsTrusted(status) ? path : "";

    path = Variable(choice.userVariable);
    const std::string home = Variable("HOME");
    if (path.empty() && choice.underHome != nullptr && !home.empty()) path = home + choice.underHome;
    path = !path.empty() ? path + "/oriel" : choice.fallback + std::to_string(geteuid());
    MakeParents(path);
    return MakeDirectory(path, 0700) ? path : "";
}

// Never destroyed: threads may outlive the end of main().
const std::string& Found(const Choice& choice) {
    return *new std::string(FindDirectory(choice));
}

} // namespace

const std::string& StateDirectory() {
    static const std::string& directory =
        Found({"ORIEL_STATE_DIR", "/var/lib/oriel", "XDG_STATE_HOME", "/.local/state", "/var/tmp/oriel-"});
    return directory;
}

const std::string& RuntimeDirectory() {
    static const std::string& directory =
        Found({"ORIEL_RUNTIME_DIR", "/run/oriel", "XDG_RUNTIME_DIR", nullptr, "/tmp/oriel-"});
    return directory;
}

namespace {

std::string FolderBelow(const std::string& directory, const char* name) {
    struct stat status {};
    if (directory.empty() || stat(directory.c_str(), &status) != 0) return "";
    std::string path = directory + "/" + name;
    // Shared when other users get into the directory at all.
    return MakeDirectory(path, (status.st_mode & S_IXOTH) != 0 ? 01777 : 0700) ? path : "";
}

} // namespace

std::string RuntimeFolder(const char* name) {
    const std::string& directory = RuntimeDirectory();
    // Whoever makes the first makes all: in root's directory no user could make one later.
    struct stat status {};
    if (!directory.empty() && lstat((directory + "/" + name).c_str(), &status) != 0) {
        for (const char* folder : kRuntimeFolders)
            FolderBelow(directory, folder);
    }
    return FolderBelow(directory, name);
}

std::string StateFolder(const char* name) {
    return FolderBelow(StateDirectory(), name);
}

} // namespace oriel
