// Processes that are started, waited for and ended, and console events.
#include "kernel_kit.h"
#include "private_machine.h"
#include "store_kit.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

constexpr DWORD kSentinel = 0xBEEF;

// This test program by its Windows path, with the child procedure's name and arguments behind it.
std::string SelfCommand(const std::string& rest) {
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, sizeof path);
    return "\"" + std::string(path) + "\" " + rest;
}

struct Started {
    PROCESS_INFORMATION information{};
    BOOL started = FALSE;
    DWORD error = 0;

    explicit Started(std::string commandLine, DWORD flags = NORMAL_PRIORITY_CLASS, LPCSTR application = nullptr) {
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        SetLastError(kSentinel);
        started = CreateProcessA(application, commandLine.empty() ? nullptr : commandLine.data(), nullptr, nullptr,
                                 FALSE, flags, nullptr, nullptr, &startup, &information);
        error = GetLastError();
    }
    Started(const Started&) = delete;
    Started& operator=(const Started&) = delete;
    ~Started() {
        if (!started) return;
        CloseHandle(information.hProcess);
        CloseHandle(information.hThread);
    }
    DWORD ExitCode() const {
        DWORD code = 0xDEAD;
        EXPECT_TRUE(GetExitCodeProcess(information.hProcess, &code)) << GetLastError();
        return code;
    }
    DWORD Finish() const {
        EXPECT_EQ(WaitForSingleObject(information.hProcess, 20000), DWORD{WAIT_OBJECT_0});
        return ExitCode();
    }
};

// What the child wrote, once it is there.
std::string Report(const std::string& name) {
    const std::string path = PrivateDirectory() + "/" + name;
    EXPECT_TRUE(WaitUntil([&] { return ReadWholeFile(path).find("end\n") != std::string::npos; }));
    return ReadWholeFile(path);
}

} // namespace

// Writes its arguments to the file that the first one names, each in brackets.
CHILD_PROCESS(WritesArguments) {
    std::string text;
    for (size_t i = 1; i < child.arguments.size(); ++i)
        text += "[" + child.arguments[i] + "]";
    WriteReport(child.arguments.at(0), text + "\nend\n");
    return 0;
}

TEST(Process, GetsItsArgumentsAsWindowsDividesThem) {
    struct Row {
        const char* given;
        const char* arguments;
    };
    const Row rows[] = {
        {"", ""},
        {"/S", "[/S]"},
        {"a  b\tc ", "[a][b][c]"},
        {R"("a b" c)", "[a b][c]"},
        {R"(a"b c"d)", "[ab cd]"},
        {R"("")", "[]"},
        {R"("a""b")", R"([a"b])"},
        {R"(\"a\" b)", R"(["a"][b])"},
        {R"(C:\dir\file)", R"([C:\dir\file])"},
        {R"("C:\dir\\" x)", R"([C:\dir\][x])"},
        {R"(a\\\"b)", R"([a\"b])"},
        {R"(a\\"b c" d)", R"([a\b c][d])"},
        {R"("unclosed part)", "[unclosed part]"},
        {"\xE9t\xE9 \x80", "[\u00E9t\u00E9][\u20AC]"}, // code page 1252 here, UTF-8 there
    };
    int number = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.given);
        const std::string report = "arguments" + std::to_string(number++);
        const Started process(
            SelfCommand("--child=WritesArguments " + PrivateDirectory() + "/" + report + " " + row.given));
        ASSERT_TRUE(process.started) << process.error;
        EXPECT_EQ(process.error, kSentinel);
        EXPECT_EQ(Report(report), std::string(row.arguments) + "\nend\n");
        EXPECT_EQ(process.Finish(), 0U);
    }
}

CHILD_PROCESS(EndsAsTold) {
    if (child.arguments.at(0) == "crash") CrashHere();
    if (child.arguments.at(0) == "wait") PauseMs(1000000);
    return std::stoi(child.arguments.at(0));
}

TEST(Process, TellsItsEndAndExitCode) {
    const unsigned descriptors = OpenDescriptors();
    {
        const Started normal(SelfCommand("--child=EndsAsTold 42"));
        ASSERT_TRUE(normal.started);
        EXPECT_EQ(normal.Finish(), 42U);
        EXPECT_EQ(WaitForSingleObject(normal.information.hThread, 0), DWORD{WAIT_OBJECT_0});
        EXPECT_FALSE(TerminateProcess(normal.information.hProcess, 1)); // it has ended
        EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});

        const Started crashed(SelfCommand("--child=EndsAsTold crash"));
        EXPECT_GT(crashed.Finish(), 128U);

        // In a wait with other objects, and ended from here.
        const Owned event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        const Started running(SelfCommand("--child=EndsAsTold wait"));
        const HANDLE objects[] = {event, running.information.hProcess, running.information.hThread};
        EXPECT_EQ(running.ExitCode(), DWORD{STILL_ACTIVE});
        EXPECT_EQ(WaitForMultipleObjects(3, objects, FALSE, 20), DWORD{WAIT_TIMEOUT});
        const Owned killer = StartThread([&] {
            PauseMs(20);
            return TerminateProcess(running.information.hProcess, 0xC0FFEE) ? 0 : 1;
        });
        EXPECT_EQ(WaitForMultipleObjects(3, objects, FALSE, 20000), DWORD{WAIT_OBJECT_0 + 1});
        EXPECT_EQ(running.ExitCode(), 0xC0FFEEU);
        EXPECT_TRUE(Join(killer));
    }
    {
        // Nobody waits and nobody keeps a handle: no zombie all the same.
        const Started forgotten(SelfCommand("--child=EndsAsTold 0"));
    }
    EXPECT_TRUE(WaitUntil([] { return Zombies() == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors + 1; })) << "the watcher keeps one";
}

TEST(Process, IsOpenedByItsNumberToBeWaitedFor) {
    TestProcess other("EndsAsTold", {"wait"});
    const Owned process = OpenProcess(SYNCHRONIZE, FALSE, other.Id());
    ASSERT_NE(static_cast<HANDLE>(process), nullptr);
    EXPECT_EQ(WaitForSingleObject(process, 0), DWORD{WAIT_TIMEOUT});
    DWORD code = 0;
    EXPECT_FALSE(GetExitCodeProcess(process, &code));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_FALSE(TerminateProcess(process, 1));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    const Owned waiter = StartThread([&] { return WaitForSingleObject(process, 20000); });
    PauseMs(20);
    other.Kill();
    EXPECT_TRUE(Join(waiter));
    EXPECT_EQ(WaitForSingleObject(process, 0), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(OpenProcess(SYNCHRONIZE, FALSE, other.Id()), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(OpenProcess(EVENT_ALL_ACCESS, FALSE, GetCurrentProcessId()), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_TRUE(GetExitCodeProcess(GetCurrentProcess(), &code));
    EXPECT_EQ(code, DWORD{STILL_ACTIVE});
}

TEST(Process, ThatCannotBeStartedSaysWhy) {
    const std::string notExecutable = PrivateDirectory() + "/plain";
    WriteReport(notExecutable, "plain text");
    const std::string notAFormat = PrivateDirectory() + "/strange";
    WriteReport(notAFormat, std::string("\0\1\2\3", 4));
    MakeExecutable(notAFormat);
    struct Row {
        std::string commandLine;
        DWORD flags;
        DWORD error;
    };
    for (const Row& row :
         {Row{WindowsPath(notExecutable), 0, ERROR_ACCESS_DENIED},
          Row{WindowsPath(notAFormat) + " x", 0, ERROR_BAD_EXE_FORMAT},
          Row{WindowsPath(PrivateDirectory() + "/missing"), 0, ERROR_FILE_NOT_FOUND},
          Row{"\"C:" + WindowsPath(PrivateDirectory() + "/miss ing") + "\" /S", 0, ERROR_FILE_NOT_FOUND},
          Row{WindowsPath(PrivateDirectory() + "/no/where"), 0, ERROR_PATH_NOT_FOUND},
          Row{WindowsPath(PrivateDirectory()), 0, ERROR_ACCESS_DENIED}, Row{"\"\"", 0, ERROR_INVALID_PARAMETER},
          Row{SelfCommand(""), 4, ERROR_NOT_SUPPORTED}}) {
        SCOPED_TRACE(row.commandLine);
        const Started process(row.commandLine, row.flags);
        EXPECT_FALSE(process.started);
        EXPECT_EQ(process.error, row.error);
    }
    const Started nothing("");
    EXPECT_EQ(nothing.error, DWORD{ERROR_INVALID_PARAMETER});

    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = 1;
    PROCESS_INFORMATION information{};
    std::string command = SelfCommand("");
    EXPECT_FALSE(
        CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &information));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_SUPPORTED});
    startup.dwFlags = 0;
    EXPECT_FALSE(
        CreateProcessA(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &information));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_TRUE(WaitUntil([] { return Zombies() == 0; }));
}

CHILD_PROCESS(TellsWhatItStartedWith) {
    WriteReport(child.arguments.at(0), std::to_string(OpenDescriptors()) + " descriptors, " + SignalState() +
                                           (IsSessionLeader() ? ", own session" : "") + "\nend\n");
    return 0;
}

TEST(Process, StartsWithACleanSlate) {
    LeakADescriptor();
    const Owned event = CreateEventA(nullptr, TRUE, FALSE, "E");
    const Owned mutex = CreateMutexA(nullptr, TRUE, "M");
    BlockAllSignals();
    const std::string path = PrivateDirectory() + "/";
    // Standard streams, and the directory that it is counting them in.
    const Started plain(SelfCommand("--child=TellsWhatItStartedWith " + path + "plain"));
    EXPECT_EQ(Report("plain"), "4 descriptors, no signal blocked or ignored\nend\n");
    const Started console(SelfCommand("--child=TellsWhatItStartedWith " + path + "console"), CREATE_NEW_CONSOLE);
    EXPECT_EQ(Report("console"), "4 descriptors, no signal blocked or ignored, own session\nend\n");
    EXPECT_EQ(plain.Finish(), 0U);
    EXPECT_EQ(console.Finish(), 0U);

    // By the application's name, with a command line that says otherwise.
    char self[MAX_PATH];
    GetModuleFileNameA(nullptr, self, sizeof self);
    const Started named("anything --child=TellsWhatItStartedWith " + path + "named", 0, self);
    EXPECT_EQ(named.Finish(), 0U);
}

namespace {

std::atomic<DWORD> g_mainThread{0};
std::atomic<int> g_events{0};

BOOL WINAPI First(DWORD event) {
    std::printf("first %u%s\n", event, GetCurrentThreadId() == g_mainThread.load() ? " on the main thread" : "");
    std::fflush(stdout);
    return g_events.fetch_add(1) < 2; // deals with two
}

BOOL WINAPI Last(DWORD event) {
    const Owned made = CreateEventA(nullptr, TRUE, TRUE, "MadeInHandler"); // anything goes
    std::printf("last %u %s\n", event, WaitForSingleObject(made, 0) == WAIT_OBJECT_0 ? "works" : "fails");
    std::fflush(stdout);
    return FALSE;
}

// Hears on another thread: thread sanitizer takes the signals of a thread that reads only when it has read.
void HearAsleep(Child& child) {
    const Owned hearing = StartThread([&] {
        child.Hear();
        return 0;
    });
    while (WaitForSingleObject(hearing, 0) != WAIT_OBJECT_0)
        PauseMs(1);
}

} // namespace

CHILD_PROCESS(HandlesConsoleEvents) {
    g_mainThread.store(GetCurrentThreadId());
    if (!SetConsoleCtrlHandler(First, TRUE) || !SetConsoleCtrlHandler(Last, TRUE)) return 1;
    if (SetConsoleCtrlHandler(nullptr, TRUE) || GetLastError() != ERROR_NOT_SUPPORTED) return 2;
    child.Say("ready");
    HearAsleep(child);
    if (!SetConsoleCtrlHandler(Last, FALSE)) return 3;
    if (SetConsoleCtrlHandler(Last, FALSE) || GetLastError() != ERROR_INVALID_PARAMETER) return 4;
    if (child.arguments.at(0) == "remove" && !SetConsoleCtrlHandler(First, FALSE)) return 5;
    child.Say("once more");
    HearAsleep(child);
    return 0;
}

TEST(Console, EventsReachTheHandlersLastAddedFirstOnAnotherThread) {
    TestProcess process("HandlesConsoleEvents", {"keep"});
    ASSERT_EQ(process.Hear(), "ready");
    process.Interrupt();
    EXPECT_EQ(process.Hear(), "last 0 works");
    EXPECT_EQ(process.Hear(), "first 0");
    process.Terminate();
    EXPECT_EQ(process.Hear(), "last 1 works");
    EXPECT_EQ(process.Hear(), "first 1");
    process.Tell("go");
    EXPECT_EQ(process.Hear(), "once more");
    process.Terminate(); // nobody deals with the third
    EXPECT_EQ(process.Hear(), "first 1");
    EXPECT_EQ(process.Wait(), 128 + 15);

    TestProcess removed("HandlesConsoleEvents", {"remove"});
    ASSERT_EQ(removed.Hear(), "ready");
    removed.Tell("go");
    EXPECT_EQ(removed.Hear(), "once more");
    removed.Interrupt(); // as if there had never been a handler
    EXPECT_EQ(removed.Wait(), 128 + 2);
}

// A fork child of a program with handlers takes its own signals, not its parent's.
CHILD_PROCESS(ForksWithHandlers) {
    SetConsoleCtrlHandler(Last, TRUE);
    const int end = RunInForkChild([] {
        RaiseTermination();
        PauseMs(20000);
        return 0;
    });
    child.Say(std::to_string(end));
    return 0;
}

TEST(Console, HandlersAreNotInheritedByAForkChild) {
    TestProcess process("ForksWithHandlers");
    EXPECT_EQ(process.Hear(), std::to_string(128 + 15));
    EXPECT_EQ(process.Wait(), 0);
}
