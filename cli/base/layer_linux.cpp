// The Linux side of layer.h: the one file of the command that uses headers of the platform layer that Windows does not
// have. No state.
#include "base/layer.h"

#include "base/failure.h"

#include "product/growing_reads.h"

#include <oriel_directories.h>
#include <oriel_programs.h>
#include <oriel_streams.h>
#include <oriel_supervisor.h>
#include <winreg_text.h>

#include <algorithm>
#include <cstring>

namespace {

// The value of --scope; null without one.
const char* WantedScope(int argc, char** argv) {
    constexpr char kOption[] = "--scope";
    constexpr size_t kLength = sizeof kOption - 1;
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strncmp(argv[i], kOption, kLength) != 0) continue;
        if (argv[i][kLength] == '=') return argv[i] + kLength + 1;
        if (argv[i][kLength] == '\0') return argv[i + 1];
    }
    return nullptr;
}

// The library asks for the directories while it is loaded, before main(). Functions of .preinit_array run earlier. The
// parse in main() refuses a value that is not a scope.
void BeforeLibraries(int argc, char** argv, char**) {
    OrielOnlyLook();
    if (const char* scope = WantedScope(argc, argv)) OrielChooseScope(scope);
}
using BeforeLibrariesFunction = void (*)(int argc, char** argv, char** environment);
[[gnu::section(".preinit_array"), gnu::used]] const BeforeLibrariesFunction g_beforeLibraries = BeforeLibraries;

} // namespace

std::string StateDirectoryName() {
    return OrielStateDirectory();
}

std::string RunDirectoryName() {
    return OrielRuntimeDirectory();
}

std::string ScopeName() {
    const char* scope = OrielScope();
    if (scope == nullptr) throw UsageFailure("ORIEL_SCOPE is neither \"system\" nor \"user\"", "correct or unset it");
    return *scope != '\0' ? scope : "environment";
}

bool HasScopes() {
    return true;
}

void ClaimDirectories() {
    if (OrielClaimDirectories()) return;
    Failure failure = SystemFailure(GetLastError(), "cannot create the directories " + StateDirectoryName() + " and " +
                                                        RunDirectoryName());
    if (ScopeName() == "system") failure.next = "run it as root, or start your own with 'oriel up --scope user'";
    throw failure;
}

void TidyDirectories() {
    OrielTidyDirectories();
}

std::string ShownPath(std::string path) {
    std::replace(path.begin(), path.end(), '\\', '/');
    return path;
}

void KeepRunningOnClosedPipes() {
    OrielFailOnClosedPipes();
}

void ReplaceProgram(const std::string& name, const std::vector<std::string>& arguments) {
    std::vector<std::string> texts = arguments; // the call's are not const
    std::vector<char*> words;
    for (std::string& text : texts)
        words.push_back(text.data());
    words.push_back(nullptr);
    OrielReplaceProgram(name.c_str(), words.data());
    throw SystemFailure(GetLastError(), "cannot run " + name);
}

LSTATUS ImportRegistry(const std::string& text, DWORD& errorLine) {
    errorLine = 0;
    return RegImportTextA(text.data(), text.size(), &errorLine);
}

LSTATUS ExportRegistry(HKEY root, const std::string& path, std::string& text) {
    SIZE_T length = 0;
    LSTATUS status = RegExportTextA(root, path.c_str(), nullptr, &length);
    ReadWhileItGrows([&] {
        if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA) return ReadAttempt::Failed;
        text.resize(length);
        status = RegExportTextA(root, path.c_str(), text.data(), &length);
        return status == ERROR_SUCCESS ? ReadAttempt::Done : ReadAttempt::Grew;
    });
    if (status == ERROR_SUCCESS) text.resize(length);
    return status;
}

void TellSupervisor(const char* line) {
    OrielTellSupervisor(line);
}
