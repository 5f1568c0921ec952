// The one file of the command that uses headers of the platform layer which Windows does not have.
#include "layer.h"

#include <oriel_directories.h>
#include <oriel_supervisor.h>
#include <winreg_text.h>

namespace {

// A key that grows between the question for its size and its export is asked again; more often is not believable.
constexpr int kAttempts = 8;

} // namespace

std::string StateDirectoryName() {
    return OrielStateDirectory();
}

std::string RunDirectoryName() {
    return OrielRuntimeDirectory();
}

LSTATUS ImportRegistry(const std::string& text, DWORD& errorLine) {
    errorLine = 0;
    return RegImportTextA(text.data(), text.size(), &errorLine);
}

LSTATUS ExportRegistry(HKEY root, const std::string& path, std::string& text) {
    SIZE_T length = 0;
    LSTATUS status = RegExportTextA(root, path.c_str(), nullptr, &length);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA) return status;
        text.resize(length);
        status = RegExportTextA(root, path.c_str(), text.data(), &length);
        if (status == ERROR_SUCCESS) break;
    }
    text.resize(length);
    return status;
}

void TellSupervisor(const char* line) {
    OrielTellSupervisor(line);
}
