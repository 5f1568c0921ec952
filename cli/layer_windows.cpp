// What layer.h asks for, where the system is Windows itself: it has no such directories, and a command of its own for
// .reg text.
#include "layer.h"

#include "failure.h"

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

std::string ShownPath(std::string path) {
    return path;
}

void KeepRunningOnClosedPipes() {} // they do not end processes there

LSTATUS ImportRegistry(const std::string&, DWORD&) {
    throw Failure{Exit::False, "cannot import", "on Windows the system does that itself", "use 'reg import FILE'"};
}

LSTATUS ExportRegistry(HKEY, const std::string&, std::string&) {
    throw Failure{Exit::False, "cannot export", "on Windows the system does that itself", "use 'reg export KEY FILE'"};
}

void TellSupervisor(const char*) {} // what starts services there asks them itself
