// Finding and killing the service: what the platform's own calls do not do.
#include "product.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

std::string FileText(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

} // namespace

int ProcessOf(const std::string& program) {
    const std::string state = std::string("ORIEL_STATE_DIR=") + std::getenv("ORIEL_STATE_DIR") + '\0';
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const int process = std::atoi(entry.path().filename().c_str());
        if (process <= 0 || FileText(entry.path() / "cmdline").find(program) == std::string::npos) continue;
        const std::string variables = '\0' + FileText(entry.path() / "environ");
        if (variables.find('\0' + state) != std::string::npos) return process;
    }
    return 0;
}

int ServiceProcess() {
    return ProcessOf("TVSDBN.EXE");
}

void KillProcess(int process) {
    kill(process, SIGKILL);
}

void StopProcess(int process) {
    kill(process, SIGSTOP);
}

void ContinueProcess(int process) {
    kill(process, SIGCONT);
}
