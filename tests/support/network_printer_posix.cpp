#include "network_printer.h"

#include "private_machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

int Listen(int port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{.sin_family = AF_INET, .sin_port = htons(static_cast<uint16_t>(port))};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener, 16), 0);
    return listener;
}

bool Readable(int descriptor, int waitMs) {
    pollfd ready{descriptor, POLLIN, 0};
    return poll(&ready, 1, waitMs) > 0;
}

} // namespace

int FreePort() {
    const int listener = Listen(0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    close(listener);
    return ntohs(address.sin_port);
}

// ---- ippeveprinter

IppPrinter::IppPrinter(const std::string& keys, const std::string& attributes)
    : m_folder(PrivateDirectory() + "/printer"), m_attributes(attributes), m_port(FreePort()),
      // It looks for a D-Bus system bus, and ends without one.
      m_bus(TestProcess::Program("/usr/bin/dbus-daemon", {"--session", "--nofork", "--nopidfile",
                                                          "--address=unix:path=" + PrivateDirectory() + "/bus"})),
      m_process(Start(keys)) {}

TestProcess IppPrinter::Start(const std::string& keys) {
    for (const std::string folder : {"/spool", "/gates"})
        std::filesystem::create_directories(m_folder + folder);
    std::filesystem::create_directories(m_folder + "/" + keys);
    const std::string command = m_folder + "/command";
    std::ofstream(command) << "#!/bin/sh\nwhile read -r word rest; do\n  case $word in\n"
                           << "  wait) while [ -d " << m_folder << "/gates -a ! -e " << m_folder
                           << "/gates/$rest ]; do sleep 0.02; done ;;\n" // the folder goes with the test
                           << "  *) echo \"$word $rest\" >&2 ;;\n  esac\ndone <\"$1\"\n";
    std::filesystem::permissions(command, std::filesystem::perms::owner_all);
    EXPECT_TRUE(WaitUntil([] { return std::filesystem::exists(PrivateDirectory() + "/bus"); }));
    std::vector<std::string> arguments = {
        "-p", std::to_string(m_port), "-n", "localhost",          "-r", "off", "-c", command,
        "-d", m_folder + "/spool",    "-K", m_folder + "/" + keys};
    if (m_attributes.empty()) {
        arguments.insert(arguments.end(),
                         {"-f", "application/octet-stream,text/plain", "-M", "Example", "-m", "Laser 7"});
    } else {
        std::ofstream(m_folder + "/attributes") << m_attributes
                                                << "ATTR mimeMediaType document-format-supported "
                                                   "application/octet-stream,text/plain\n";
        arguments.insert(arguments.end(), {"-a", m_folder + "/attributes"});
    }
    arguments.emplace_back("Laser");
    TestProcess process =
        TestProcess::Program("/usr/sbin/ippeveprinter", arguments,
                             {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + PrivateDirectory() + "/bus"}});
    EXPECT_TRUE(WaitUntil([&] { return !process.Running() || !Attribute("printer-state").empty(); }));
    EXPECT_TRUE(process.Running()) << process.Errors();
    return process;
}

void IppPrinter::Restart(const std::string& keys) {
    m_process.Kill();
    m_process = Start(keys);
}

std::string IppPrinter::Uri(const std::string& scheme) const {
    return scheme + "://localhost:" + std::to_string(m_port) + "/ipp/print";
}

void IppPrinter::Print(const std::string& lines, const std::string& title) {
    std::ofstream(m_folder + "/job.txt") << lines;
    std::ofstream(m_folder + "/print.test") << "{\nOPERATION Print-Job\nGROUP operation-attributes-tag\n"
                                               "ATTR charset attributes-charset utf-8\n"
                                               "ATTR language attributes-natural-language en\n"
                                               "ATTR uri printer-uri $uri\nATTR name requesting-user-name $user\n"
                                               "ATTR name job-name \""
                                            << title
                                            << "\"\nATTR mimeMediaType document-format text/plain\nFILE $filename\n"
                                               "STATUS successful-ok\n}\n";
    const ProgramResult result =
        RunProgram("/usr/bin/ipptool", {"-tf", m_folder + "/job.txt", Uri(), m_folder + "/print.test"});
    EXPECT_EQ(result.exitCode, 0) << result.output << result.errors;
}

void IppPrinter::Open(const std::string& gate) const {
    std::ofstream(m_folder + "/gates/" + gate) << "open";
}

std::string IppPrinter::Attribute(const std::string& name) const {
    const ProgramResult result = RunProgram("/usr/bin/ipptool", {"-tv", Uri(), "get-printer-attributes.test"});
    const size_t at = result.output.find(" " + name + " (");
    if (at == std::string::npos) return "";
    const size_t value = result.output.find(") = ", at) + 4;
    return result.output.substr(value, result.output.find('\n', value) - value);
}

// ---- the fake

FakePrinter::FakePrinter() : m_port(FreePort()), m_listener(Listen(m_port)), m_thread([this] { Serve(); }) {}

FakePrinter::~FakePrinter() {
    m_over = true;
    m_thread.join();
    close(m_listener);
}

std::string FakePrinter::Uri(const std::string& scheme) const {
    return scheme + "://127.0.0.1:" + std::to_string(m_port) + "/ipp/print";
}

void FakePrinter::Answer(Answerer answerer) {
    const std::lock_guard hold(m_lock);
    m_answerer = std::move(answerer);
}

void FakePrinter::Serve() {
    while (!m_over) {
        if (!Readable(m_listener, 50)) continue;
        const int connection = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        ++m_connections;
        constexpr timeval kSendLimit{.tv_sec = 10, .tv_usec = 0}; // to a client that does not read
        setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &kSendLimit, sizeof kSendLimit);
        ServeOne(connection);
        close(connection);
    }
}

void FakePrinter::ServeOne(int connection) {
    std::string request;
    size_t end = std::string::npos;
    char bytes[65536];
    const auto more = [&] {
        while (!m_over && !Readable(connection, 50)) {
        }
        const ssize_t count = m_over ? 0 : recv(connection, bytes, sizeof bytes, 0);
        if (count > 0) request.append(bytes, static_cast<size_t>(count));
        return count > 0;
    };
    size_t length = 0;
    while (end == std::string::npos || request.size() < end + length) {
        if (!more()) return;
        end = request.find("\r\n\r\n");
        if (end == std::string::npos) continue;
        end += 4;
        const size_t field = request.find("Content-Length: ");
        if (field < end) length = std::stoul(request.substr(field + 16));
    }
    FakeAnswer answer;
    {
        const std::lock_guard hold(m_lock);
        answer = m_answerer ? m_answerer(request.substr(end)) : FakeAnswer{.never = true};
    }
    PauseMs(answer.afterMs);
    const auto gone = [&] { return Readable(connection, 0) && recv(connection, bytes, 1, MSG_PEEK) <= 0; };
    if (answer.never) {
        while (!m_over && !gone())
            PauseMs(5);
        return;
    }
    do {
        const size_t step = answer.slowly ? 1 : std::max<size_t>(answer.bytes.size(), 1);
        for (size_t at = 0; at < answer.bytes.size() && !m_over; at += step) {
            if (send(connection, answer.bytes.data() + at, std::min(step, answer.bytes.size() - at), MSG_NOSIGNAL) < 0)
                return;
            if (answer.slowly) PauseMs(100);
        }
    } while (answer.endless && !m_over && !gone());
    shutdown(connection, SHUT_WR);
    for (int i = 0; i < 100 && !m_over && !gone(); ++i)
        PauseMs(1);
}
