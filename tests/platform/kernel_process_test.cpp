// Processes that are started, waited for and ended.
#include "kit.h"
#include "private_machine.h"

#include <csignal>
#include <filesystem>
#include <unistd.h>

namespace {

// A child procedure of this test program, with arguments.
std::string SelfCommand(const std::string& child) {
    return "\"" + WindowsPath(OwnProgram()) + "\" --child=" + child;
}

struct Started {
    PROCESS_INFORMATION information{};
    DWORD error;

    explicit Started(std::string commandLine, DWORD flags = NORMAL_PRIORITY_CLASS) {
        STARTUPINFOA startup{.cb = sizeof startup};
        error = ErrorOf([&] {
            return CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE, flags, nullptr, nullptr,
                                  &startup, &information);
        });
    }
    ~Started() { CloseHandle(information.hProcess), CloseHandle(information.hThread); }
    DWORD ExitCode() const {
        DWORD code = 0xDEAD;
        EXPECT_TRUE(GetExitCodeProcess(information.hProcess, &code)) << error;
        return code;
    }
    DWORD Finish() const {
        EXPECT_EQ(::Wait(information.hProcess), DWORD{WAIT_OBJECT_0});
        return ExitCode();
    }
};

// Children of this process that have ended and were not waited for.
bool HasZombies() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        if (!std::isdigit(entry.path().filename().string()[0])) continue;
        const std::string line = ReadWholeFile(entry.path() / "stat");
        if (line.find(") Z " + std::to_string(getpid()) + " ") != std::string::npos) return true;
    }
    return false;
}

// "descriptors: 4", and what a process should not have inherited.
std::string ProcessState() {
    std::string state = "descriptors: " + std::to_string(OpenDescriptors());
    if (getsid(0) == getpid()) state += ", own session";
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    for (int number = 1; number < 32; ++number) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        // The test program itself ignores SIGPIPE.
        if (sigismember(&blocked, number) == 1 || (number != SIGPIPE && action.sa_handler == SIG_IGN))
            state += ", held back: " + std::to_string(number);
    }
    return state;
}

} // namespace

// Writes to the file that the first argument names: its other arguments, each in brackets, or else its state.
CHILD_PROCESS(Reports) {
    std::string text;
    for (size_t i = 1; i < child.arguments.size(); ++i)
        text += "[" + child.arguments[i] + "]";
    ReplaceFile(child.arguments.at(0), text.empty() ? ProcessState() : text);
    return 0;
}

CHILD_PROCESS(EndsAsTold) {
    if (child.arguments.at(0) == "wait") PauseMs(1000000);
    if (child.arguments.at(0) == "crash") signal(SIGSEGV, SIG_DFL), raise(SIGSEGV); // a sanitizer's handler would exit
    return std::stoi(child.arguments.at(0));
}

TEST(Process, GetsItsArgumentsAsWindowsDividesThem) {
    const std::string report = PrivateDirectory() + "/arguments";
    // Code page 1252 here; what a program of the layer gets is UTF-8.
    const Started process(
        SelfCommand("Reports " + report +
                    " \"a b\" c \"\" \"a\"\"b\" \\\"a\\\" \"C:\\dir\\\\\" x a\\\\\\\"b a\\\\\"b c\" d \xE9t\xE9 \x80"));
    EXPECT_EQ(GetLastError(), kSentinel);
    EXPECT_EQ(process.Finish(), 0U);
    EXPECT_EQ(ReadWholeFile(report), "[a b][c][][a\"b][\"a\"][C:\\dir\\][x][a\\\"b][a\\b c][d][\u00E9t\u00E9][\u20AC]");
}

TEST(Process, StartsWithACleanSlate) {
    EXPECT_GE(dup(0), 0);                                           // that programs started from here would inherit
    EXPECT_TRUE(NewEvent("E") && CreateMutexA(nullptr, TRUE, "M")); // that have descriptors
    BlockAllSignals();
    const std::string report = PrivateDirectory() + "/report";
    // The standard streams, and the directory that it is counting them in.
    EXPECT_EQ(Started(SelfCommand("Reports " + report)).Finish(), 0U);
    EXPECT_EQ(ReadWholeFile(report), "descriptors: 4");
    EXPECT_EQ(Started(SelfCommand("Reports " + report), CREATE_NEW_CONSOLE).Finish(), 0U);
    EXPECT_EQ(ReadWholeFile(report), "descriptors: 4, own session");
}

TEST(Process, TellsItsEndAndExitCode) {
    const unsigned descriptors = OpenDescriptors();
    {
        const Started normal(SelfCommand("EndsAsTold 42"));
        EXPECT_EQ(normal.Finish(), 42U);
        EXPECT_EQ(Look(normal.information.hThread), DWORD{WAIT_OBJECT_0});
        EXPECT_FAILS(TerminateProcess(normal.information.hProcess, 1), ERROR_ACCESS_DENIED); // it has ended
        EXPECT_GT(Started(SelfCommand("EndsAsTold crash")).Finish(), 128U);

        // In a wait with other objects, and ended from here.
        const Owned event = NewEvent();
        const Started running(SelfCommand("EndsAsTold wait"));
        const HANDLE objects[] = {event, running.information.hProcess, running.information.hThread};
        EXPECT_EQ(running.ExitCode(), DWORD{STILL_ACTIVE});
        EXPECT_EQ(WaitForMultipleObjects(3, objects, FALSE, 20), DWORD{WAIT_TIMEOUT});
        const Owned killer = StartThread([&, waiter = GetCurrentThreadId()] {
            EXPECT_TRUE(WaitUntil([&] { return IsAsleep(waiter); }));
            return Code(TerminateProcess(running.information.hProcess, 0xC0FFEE));
        });
        EXPECT_EQ(WaitForMultipleObjects(3, objects, FALSE, 20000), DWORD{WAIT_OBJECT_0 + 1});
        EXPECT_EQ(running.ExitCode(), 0xC0FFEEU);
        EXPECT_EQ(Finish(killer), 0U);
        // Nobody waits and nobody keeps a handle: no zombie all the same.
        const Started forgotten(SelfCommand("EndsAsTold 0"));
    }
    EXPECT_TRUE(WaitUntil([] { return !HasZombies(); }));
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors + 1; })) << "the watcher keeps one";
}

TEST(Process, IsOpenedByItsNumberToBeWaitedFor) {
    TestProcess other("EndsAsTold", {"wait"});
    const Owned process = OpenProcess(SYNCHRONIZE, FALSE, other.Id());
    DWORD code = 0;
    EXPECT_FAILS(GetExitCodeProcess(process, &code), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(TerminateProcess(process, 1), ERROR_ACCESS_DENIED);
    DWORD id = 0;
    const Owned waiter = StartThread([&] { return Wait(process); }, &id);
    EXPECT_TRUE(WaitUntil([&] { return IsAsleep(id); }));
    EXPECT_EQ(Look(process), DWORD{WAIT_TIMEOUT});
    other.Kill();
    EXPECT_EQ(Finish(waiter), DWORD{WAIT_OBJECT_0});
    EXPECT_FAILS(OpenProcess(SYNCHRONIZE, FALSE, other.Id()), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(OpenProcess(EVENT_ALL_ACCESS, FALSE, GetCurrentProcessId()), ERROR_ACCESS_DENIED);
}

TEST(Process, ThatCannotBeStartedSaysWhy) {
    const std::string folder = WindowsPath(PrivateDirectory());
    ReplaceFile(PrivateDirectory() + "/plain", "plain text");
    ReplaceFile(PrivateDirectory() + "/strange", std::string("\0\1\2\3", 4), 0755);
    const std::pair<std::string, DWORD> rows[] = {
        {folder + "\\plain", ERROR_ACCESS_DENIED},      {folder + "\\strange x", ERROR_BAD_EXE_FORMAT},
        {folder + "\\missing", ERROR_FILE_NOT_FOUND},   {"\"C:" + folder + "\\miss ing\" /S", ERROR_FILE_NOT_FOUND},
        {folder + "\\no\\where", ERROR_PATH_NOT_FOUND},
    };
    for (const auto& [commandLine, error] : rows)
        EXPECT_EQ(Started(commandLine).error, error) << commandLine;
    EXPECT_TRUE(WaitUntil([] { return !HasZombies(); }));
}
