// Finding and killing the service, and a socket of no service: what the platform's own calls do not do.
#include "product.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::string FileText(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

} // namespace

CountedSocket::CountedSocket(const std::string& path) : m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(m_listener, 16), 0);
    m_thread = std::thread([this] {
        for (int client = 0; (client = accept(m_listener, nullptr, nullptr)) >= 0; close(client))
            ++m_connections;
    });
}

CountedSocket::~CountedSocket() {
    shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    close(m_listener);
}

std::vector<int> ProcessesOf(const std::string& program) {
    std::vector<int> processes;
    const std::string state = std::string("ORIEL_STATE_DIR=") + std::getenv("ORIEL_STATE_DIR") + '\0';
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const int process = std::atoi(entry.path().filename().c_str());
        if (process <= 0 || FileText(entry.path() / "cmdline").find(program) == std::string::npos) continue;
        const std::string variables = '\0' + FileText(entry.path() / "environ");
        if (variables.find('\0' + state) != std::string::npos) processes.push_back(process);
    }
    return processes;
}

int ProcessOf(const std::string& program) {
    const std::vector<int> processes = ProcessesOf(program);
    return processes.empty() ? 0 : processes.front();
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
