// The Windows side of layer.h. Windows has no such directories, and a command of its own for .reg text. No state.
#include "base/layer.h"

#include "base/failure.h"

std::string StateDirectoryName() {
    return {};
}

std::string RunDirectoryName() {
    return {};
}

std::string ScopeName() {
    return {};
}

bool HasScopes() {
    return false;
}

void ClaimDirectories() {}
void TidyDirectories() {}

std::string ShownPath(std::string path) {
    return path;
}

void KeepRunningOnClosedPipes() {} // on Windows they do not end processes

void ReplaceProgram(const std::string& name, const std::vector<std::string>&) {
    throw Failure{Exit::False, "cannot run " + name, "there is none for Windows", ""};
}

LSTATUS ImportRegistry(const std::string&, DWORD&) {
    throw Failure{Exit::False, "cannot import", "on Windows the system's own command does this",
                  "use 'reg import FILE'"};
}

LSTATUS ExportRegistry(HKEY, const std::string&, std::string&) {
    throw Failure{Exit::False, "cannot export", "on Windows the system's own command does this",
                  "use 'reg export KEY FILE'"};
}

void TellSupervisor(const char*) {} // the service control manager asks services itself
