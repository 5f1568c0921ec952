// What of test_process.h and private_machine.h is the same everywhere, and main() of every test program.
#include "test_process.h"
#include "private_machine.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

RegisterRootTest::RegisterRootTest(const char* suite, const char* name, const char* file, int line, void (*body)()) {
    struct Test : testing::Test {
        explicit Test(void (*body)()) : m_body(body) {}
        void TestBody() override { m_body(); }
        void (*m_body)();
    };
    if (!RunsAsRoot()) return;
    testing::RegisterTest(suite, name, nullptr, nullptr, file, line,
                          [body]() -> testing::Test* { return new Test(body); });
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

TestProcess::TestProcess(TestProcess&& other) noexcept {
    *this = std::move(other);
}

TestProcess& TestProcess::operator=(TestProcess&& other) noexcept {
    m_pid = std::exchange(other.m_pid, -1);
    m_in = std::exchange(other.m_in, -1);
    m_out = std::exchange(other.m_out, -1);
    m_err = std::exchange(other.m_err, -1);
    m_buffer = std::move(other.m_buffer);
    m_errors = std::move(other.m_errors);
    m_ended = std::exchange(other.m_ended, true);
    m_exitCode = other.m_exitCode;
    return *this;
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
    if (testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
    g_privateDirectory = MakePrivateMachine();
    const int result = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(g_privateDirectory, ignored);
    return result;
}
