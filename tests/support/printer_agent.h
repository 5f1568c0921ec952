// net-snmp's agent, which replays recorded walks of a printer.
#pragma once

#include "network_printer.h"
#include "private_machine.h"
#include "test_process.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>

using Objects = std::map<std::string, std::string>; // below 1.3.6.1.2.1: "TYPE VALUE"

// An idle printer with two trays, two supplies and a display, as its agent was walked.
inline const Objects kIdle = {
    {"25.3.2.1.2.1", "objectid .1.3.6.1.2.1.25.3.1.3"}, // a processor comes first
    {"25.3.2.1.2.4", "objectid .1.3.6.1.2.1.25.3.1.5"},
    {"25.3.2.1.3.4", "string Example Laser 7"},
    {"25.3.2.1.5.4", "integer 2"},
    {"25.3.5.1.1.4", "integer 3"},
    {"25.3.5.1.2.4", "octet 00 00"},
    {"43.5.1.1.1.4", "counter 1"},
    {"43.5.1.1.6.4", "integer 2"},
    {"43.5.1.1.17.4", "string SN-12345"},
    {"43.5.1.1.19.4", "counter 0"},
    {"43.6.1.1.3.4.1", "integer 4"},
    {"43.8.2.1.2.4.1", "integer 3"},
    {"43.8.2.1.2.4.2", "integer 5"},
    {"43.8.2.1.9.4.1", "integer 250"},
    {"43.8.2.1.9.4.2", "integer -2"},
    {"43.8.2.1.10.4.1", "integer 100"},
    {"43.8.2.1.10.4.2", "integer -3"},
    {"43.8.2.1.12.4.1", "string iso_a4_210x297mm"},
    {"43.8.2.1.13.4.1", "string Tray 1"},
    {"43.8.2.1.13.4.2", "string By-pass"},
    {"43.10.2.1.3.4.1", "integer 7"},
    {"43.10.2.1.4.4.1", "counter 4711"},
    {"43.10.2.1.6.4.1", "integer 4"},
    {"43.11.1.1.3.4.1", "integer 1"},
    {"43.11.1.1.5.4.1", "integer 3"},
    {"43.12.1.1.4.4.1", "string black"},
    {"43.11.1.1.6.4.1", "string Black toner"},
    {"43.11.1.1.7.4.1", "integer 19"},
    {"43.11.1.1.8.4.1", "integer -2"},
    {"43.11.1.1.9.4.1", "integer 37"},
    {"43.13.4.1.9.4.1", "integer 3"},
    {"43.16.5.1.2.4.1", "string Ready"},
};

inline Objects Changed(const Objects& changes) {
    Objects all = kIdle;
    for (const auto& [object, value] : changes)
        all[object] = value;
    return all;
}

// A loopback address of the test's own, for an agent at a port that has to be the usual one.
inline std::string OwnLoopbackHost() {
    const int port = FreePort();
    return "127.1." + std::to_string(port / 256) + "." + std::to_string(1 + port % 254);
}

class PrinterAgent {
public:
    explicit PrinterAgent(const std::string& host = "127.0.0.1", int port = FreePort())
        : m_folder(PrivateDirectory() + "/agent"), m_host(host), m_port(port) {
        std::filesystem::create_directories(m_folder + "/persistent");
        Tell(kIdle);
        const std::string program =
            "/usr/bin/python3 " + SourcePath("tests/printer/printer_mib.py") + " " + m_folder + "/mib";
        std::ofstream(m_folder + "/snmpd.conf")
            << "rocommunity public\ncreateUser watcher SHA-256 \"a long passphrase\" AES \"another passphrase\"\n"
            << "rouser watcher priv\npass_persist -p 1 .1.3.6.1.2.1.25.3.2.1 " << program
            << "\npass_persist -p 1 .1.3.6.1.2.1.25.3.5.1 " << program << "\npass_persist -p 1 .1.3.6.1.2.1.43 "
            << program << "\n";
        Start();
    }
    void Start() {
        m_process = std::make_unique<TestProcess>(TestProcess::Program(
            "/usr/sbin/snmpd",
            {"-f", "-Lo", "-C", "-m", "", "-I", "-hr_device,hr_print,hr_proc,hr_network,hr_disk,hr_partition", "-c",
             m_folder + "/snmpd.conf", "udp:" + m_host + ":" + std::to_string(m_port)},
            {{"SNMP_PERSISTENT_DIR", m_folder + "/persistent"}}));
    }
    void End() { m_process.reset(); }
    void Tell(const Objects& objects) {
        std::ofstream file(m_folder + "/new");
        for (const auto& [object, value] : objects)
            file << ".1.3.6.1.2.1." << object << " " << value << "\n";
        file.close();
        std::filesystem::rename(m_folder + "/new", m_folder + "/mib");
    }
    int Port() const { return m_port; }
    std::string Uri(const std::string& more = "") const {
        return "snmp://" + m_host + ":" + std::to_string(m_port) + more;
    }

private:
    const std::string m_folder;
    const std::string m_host;
    const int m_port;
    std::unique_ptr<TestProcess> m_process;
};
