#include "kit.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <iterator>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <winreg_text.h>

namespace fs = std::filesystem;

bool BecomeNobody() {
    constexpr uid_t kNobody = 65534;
    return setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0;
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void ReplaceFile(const std::string& path, const std::string& bytes, unsigned mode) {
    const std::string fresh = path + ".new";
    std::ofstream(fresh, std::ios::binary) << bytes;
    fs::permissions(fresh, fs::perms(mode));
    fs::remove_all(path);
    fs::rename(fresh, path);
}

bool PlantInPlace(const std::string& path, Plant plant, const std::string& target) {
    fs::remove_all(path);
    return (plant == Plant::kLink       ? symlink(target.c_str(), path.c_str())
            : plant == Plant::kHardLink ? link(target.c_str(), path.c_str())
            : plant == Plant::kPipe     ? mkfifo(path.c_str(), 0666)
                                        : mkdir(path.c_str(), 0777)) == 0;
}

bool LockWholeFile(const std::string& path, bool asReader) {
    const int file = open(path.c_str(), (asReader ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = asReader ? F_RDLCK : F_WRLCK;
    return file >= 0 && fcntl(file, F_SETLK, &lock) == 0 && flock(file, LOCK_EX) == 0;
}

bool HoldObject(const std::string& name) {
    return flock(open(ObjectPath(name).c_str(), O_RDONLY | O_CLOEXEC), name == "." ? LOCK_EX : LOCK_SH) == 0;
}

CHILD_PROCESS(HoldsAFile) {
    const std::string& path = child.arguments[0];
    return (path == "." ? HoldObject(path) : LockWholeFile(path)) ? StayReady(child) : 1;
}

std::string ObjectPath(const std::string& name) {
    return std::string(std::getenv("ORIEL_RUNTIME_DIR")) + "/objects/" + name;
}

Names ObjectFiles() {
    Names names;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(ObjectPath(""), none))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

bool IsAsleep(unsigned threadId) {
    return ReadWholeFile("/proc/self/task/" + std::to_string(threadId) + "/stat").find(") S") != std::string::npos;
}

void BlockAllSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

unsigned OpenDescriptors() {
    return static_cast<unsigned>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

LSTATUS Import(const std::string& text, DWORD* line) {
    return RegImportTextA(text.data(), text.size(), line);
}

std::string Export(HKEY key, const char* path) {
    SIZE_T length = 0;
    LSTATUS status = RegExportTextA(key, path, nullptr, &length);
    std::string text(length, '\0');
    if (status == ERROR_SUCCESS) status = RegExportTextA(key, path, text.data(), &length);
    return status == ERROR_SUCCESS ? text : std::to_string(status);
}
