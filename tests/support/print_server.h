// A print server of the test's own: cupsd as an ordinary process on a socket in the private directory, and CUPS's own
// commands to look at it.
#pragma once

#include "private_machine.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

class PrintServer {
public:
    // listen: where else, "localhost:PORT".
    explicit PrintServer(const std::string& listen = "")
        : m_folder(PrivateDirectory() + "/cups"), m_listen(listen), m_server(Start()) {
        setenv("CUPS_SERVER", Socket().c_str(), 1);
        EXPECT_TRUE(
            WaitUntil([] { return RunProgram("/usr/bin/lpstat", {"-r"}).output == "scheduler is running\n"; }, 30000));
        Command("/usr/sbin/lpadmin", {"-p", "Office", "-D", "of the office", "-L", "Room 1", "-v", "file:/dev/null"});
        // It takes jobs, and prints none: they stay.
        Command("/usr/sbin/cupsaccept", {"Office"});
    }

    std::string Socket() const { return m_folder + "/socket"; }
    TestProcess& Process() { return m_server; }

    std::string Command(const std::string& path, const std::vector<std::string>& arguments) {
        const ProgramResult result = RunProgram(path, arguments);
        EXPECT_EQ(result.exitCode, 0) << path << ": " << result.errors << Log();
        return result.output;
    }
    // As its own command tells: "job-hold-until-specified" or "none", "" when the job is not in the queue.
    std::string Alerts(int job, const std::string& queue = "Office") {
        const std::string all = Command("/usr/bin/lpstat", {"-l", "-o"});
        const size_t at = all.find(queue + "-" + std::to_string(job) + " ");
        const size_t alerts = all.find("Alerts: ", at);
        return at == std::string::npos ? "" : all.substr(alerts + 8, all.find('\n', alerts) - alerts - 8);
    }
    void Print(const std::string& title, const std::string& queue = "Office") {
        std::ofstream(m_folder + "/document") << title;
        Command("/usr/bin/lp", {"-d", queue, "-t", title, m_folder + "/document"});
    }
    std::string AccessLog() const {
        std::ifstream file(m_folder + "/access_log");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string Log() const {
        std::ifstream file(m_folder + "/error_log");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    // A queue whose printer prints a page of a job, and the rest when it is told so.
    void AddSlowPrinter(const std::string& queue) { Command("/usr/sbin/lpadmin", {"-p", queue, "-E", "-v", "slow:/"}); }
    void PrintOn() { std::ofstream(m_folder + "/go") << "go"; }

    // It keeps its queues and jobs, and loses its subscriptions.
    void Restart() {
        m_server.Terminate(); // which saves the queues
        m_server.Wait();
        std::filesystem::remove(m_folder + "/ServerRoot/subscriptions.conf");
        m_server = Serve();
        EXPECT_TRUE(WaitUntil([] { return RunProgram("/usr/bin/lpstat", {"-r"}).output == "scheduler is running\n"; }));
    }

private:
    // The programs that it runs: its own, and what the tests add.
    void MakePrograms() {
        const std::string own = "/usr/lib/cups", programs = m_folder + "/bin";
        for (const char* folder : {"backend", "notifier"}) {
            std::filesystem::create_directories(programs + "/" + folder);
            for (const auto& entry : std::filesystem::directory_iterator(own + "/" + folder))
                std::filesystem::create_symlink(entry.path(),
                                                programs + "/" + folder + "/" + entry.path().filename().string());
        }
        for (const auto& entry : std::filesystem::directory_iterator(own))
            if (!std::filesystem::exists(programs + "/" + entry.path().filename().string()))
                std::filesystem::create_symlink(entry.path(), programs + "/" + entry.path().filename().string());
        std::filesystem::create_symlink(ProgramPath("../lib/oriel/notifier/oriel-events"),
                                        programs + "/notifier/oriel-events");
        const std::string slow = programs + "/backend/slow";
        std::ofstream(slow) << "#!/bin/sh\n[ $# = 0 ] && exit 0\necho 'PAGE: 1 1' >&2\nwhile [ -d " << m_folder
                            << " -a ! -e " << m_folder << "/go ]; do sleep 0.05; done\n";
        std::filesystem::permissions(slow, std::filesystem::perms::owner_all); // so it runs as root
        // These are of a package that brings filters and drivers too.
        for (const char* scheme : {"socket", "lpd"})
            if (!std::filesystem::exists(programs + "/backend/" + scheme))
                std::filesystem::create_symlink(slow, programs + "/backend/" + scheme);
    }

    TestProcess Start() {
        MakePrograms();
        std::string files = "ServerBin " + m_folder +
                            "/bin\n"
                            "FileDevice Yes\nErrorLog " +
                            m_folder + "/error_log\nAccessLog " + m_folder + "/access_log\nPageLog " + m_folder +
                            "/page_log\n";
        for (const char* name : {"ServerRoot", "RequestRoot", "CacheDir", "StateDir", "TempDir"}) {
            std::filesystem::create_directories(m_folder + "/" + name);
            files += std::string(name) + " " + m_folder + "/" + name + "\n";
        }
        std::string group = RunProgram("/usr/bin/id", {"-gn"}).output;
        files += "SystemGroup " + group;
        std::ofstream(m_folder + "/files.conf") << files;
        std::ofstream(m_folder + "/cupsd.conf")
            << "Listen " << Socket() << (m_listen.empty() ? "" : "\nListen " + m_listen)
            << "\nBrowsing No\nWebInterface No\nLogLevel warn\nMaxJobs 3000\n"
               "<Location />\nOrder allow,deny\nAllow all\n</Location>\n";
        return Serve();
    }

    TestProcess Serve() const {
        return TestProcess::Program("/usr/sbin/cupsd",
                                    {"-f", "-c", m_folder + "/cupsd.conf", "-s", m_folder + "/files.conf"});
    }

    const std::string m_folder;
    const std::string m_listen;
    TestProcess m_server;
};
