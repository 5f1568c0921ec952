// What of test_process.h and private_machine.h is the same everywhere, and main() of every test program.
#include "test_process.h"
#include "not_here.h"
#include "private_machine.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>
#include <utility>

namespace {

std::map<std::string, ChildProcedure>& ChildProcedures() {
    static std::map<std::string, ChildProcedure> procedures;
    return procedures;
}

std::string g_privateDirectory;

} // namespace

void Child::Say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

std::string Child::Hear() {
    std::string line;
    int c = 0;
    while ((c = std::getchar()) != EOF && c != '\n')
        line += static_cast<char>(c);
    return line;
}

RegisterChild::RegisterChild(const char* name, ChildProcedure procedure) {
    ChildProcedures()[name] = procedure;
}

TestProcess::TestProcess(const std::string& child, const std::vector<std::string>& arguments,
                         const Environment& environment) {
    std::vector<std::string> all{"--child=" + child};
    all.insert(all.end(), arguments.begin(), arguments.end());
    Start(OwnProgram(), all, environment);
}

TestProcess TestProcess::Program(const std::string& path, const std::vector<std::string>& arguments,
                                 const Environment& environment) {
    TestProcess process;
    process.Start(path, arguments, environment);
    return process;
}

TestProcess::~TestProcess() {
    if (m.process != -1 && !m.ended) Kill();
    if (testing::Test::HasFailure() && m.err != -1 && !Errors().empty())
        std::fprintf(stderr, "--- standard error of process %u:\n%s", m.id, m.errors.c_str());
    for (int* stream : {&m.in, &m.out, &m.err})
        Close(*stream);
}

std::string TestProcess::Hear(int timeoutMs) {
    const double deadline = NowMs() + timeoutMs;
    for (bool open = true;;) {
        const size_t end = m.heard.find('\n');
        if (end != std::string::npos) {
            const std::string line = m.heard.substr(0, end);
            m.heard.erase(0, end + 1);
            if (line == kNotHereText) NeedsTheLayer(Hear().c_str());
            return line;
        }
        if (!open || NowMs() > deadline) {
            ADD_FAILURE() << "process " << m.id << (open ? " said nothing in time" : " closed its output")
                          << " after: " << m.heard << "\n"
                          << Errors();
            return {};
        }
        open = Take(m.out, m.heard, 10);
    }
}

void TestProcess::Tell(const std::string& line) {
    EXPECT_TRUE(Give(m.in, line + "\n")) << "process " << m.id << " takes no input";
}

std::string TestProcess::Ask(const std::string& line) {
    Tell(line);
    return Hear();
}

void TestProcess::End(const std::string& line) {
    Tell(line);
    EXPECT_EQ(Wait(), 0) << Errors();
}

std::string TestProcess::HearAll(int timeoutMs) {
    const double deadline = NowMs() + timeoutMs;
    while (Take(m.out, m.heard, 10)) {
        Errors(); // so that it can write more
        if (NowMs() < deadline) continue;
        ADD_FAILURE() << "process " << m.id << " still runs after " << timeoutMs << " ms";
        break;
    }
    return std::exchange(m.heard, {});
}

std::string TestProcess::Errors() {
    for (size_t before = m.errors.size() + 1; before != m.errors.size();) {
        before = m.errors.size();
        Take(m.err, m.errors, 0);
    }
    return m.errors;
}

void TestProcess::Kill() {
    KillOnly();
    Wait();
}

int TestProcess::Wait(int timeoutMs) {
    if (WaitUntil([this] { return !Running(); }, timeoutMs)) return m.exitCode;
    ADD_FAILURE() << "process " << m.id << " still runs after " << timeoutMs << " ms";
    return -1;
}

ProgramResult RunProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const Environment& environment) {
    TestProcess process = TestProcess::Program(path, arguments, environment);
    process.CloseInput();
    ProgramResult result;
    result.output = process.HearAll();
    result.exitCode = process.Wait();
    result.errors = process.Errors();
    return result;
}

double NowMs() {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void PauseMs(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

const std::string& PrivateDirectory() {
    return g_privateDirectory;
}

std::string SourcePath(const std::string& name) {
    return std::string(ORIEL_SOURCE_DIR "/") + name;
}

std::string WindowsPath(const std::string& path) {
    std::string result = path;
    for (char& c : result)
        if (c == '/') c = '\\';
    return result;
}

int main(int argc, char** argv) {
    PrepareTestProgram();
    if (argc > 1 && std::strncmp(argv[1], "--child=", 8) == 0) {
        const char* directory = std::getenv(kPrivateDirectoryVariable);
        g_privateDirectory = directory != nullptr ? directory : "";
        const auto procedure = ChildProcedures().find(argv[1] + 8);
        if (procedure == ChildProcedures().end()) {
            std::fprintf(stderr, "no child procedure %s\n", argv[1] + 8);
            return 2;
        }
        Child child;
        child.arguments.assign(argv + 2, argv + argc);
        return procedure->second(child);
    }
    testing::InitGoogleTest(&argc, argv);
    if (!RunsAsRoot()) {
        std::string& filter = testing::GTEST_FLAG(filter);
        filter += filter.find('-') == std::string::npos ? "-*AsRoot" : ":*AsRoot";
    }
    if (testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
    g_privateDirectory = MakePrivateMachine();
    const int result = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(g_privateDirectory, ignored);
    return result;
}
