// Processes that are started, waited for and ended, and console events.
#include "memory_kit.h"
#include "posix_kit.h"
#include "private_machine.h"
#include "win32_kit.h"

#include <atomic>
#include <fstream>

namespace {

// This test program by its Windows path.
std::string Self() {
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, sizeof path);
    return path;
}

// A child procedure of it, with arguments.
std::string SelfCommand(const std::string& child) {
    return "\"" + Self() + "\" --child=" + child;
}

struct Started {
    PROCESS_INFORMATION information{};
    BOOL started = FALSE;
    DWORD error = 0;

    explicit Started(std::string commandLine, DWORD flags = NORMAL_PRIORITY_CLASS, LPCSTR application = nullptr,
                     DWORD startupFlags = 0, BOOL inherit = FALSE) {
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = startupFlags;
        SetLastError(kSentinel);
        started = CreateProcessA(application, commandLine.empty() ? nullptr : commandLine.data(), nullptr, nullptr,
                                 inherit, flags, nullptr, nullptr, &startup, &information);
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
        EXPECT_EQ(::Wait(information.hProcess), DWORD{WAIT_OBJECT_0});
        return ExitCode();
    }
};

} // namespace

// Writes its arguments to the file that the first one names, each in brackets.
CHILD_PROCESS(WritesArguments) {
    std::string text;
    for (size_t i = 1; i < child.arguments.size(); ++i)
        text += "[" + child.arguments[i] + "]";
    std::ofstream(child.arguments.at(0), std::ios::binary) << text;
    return 0;
}

TEST(Process, GetsItsArgumentsAsWindowsDividesThem) {
    const struct {
        const char* given;
        const char* arguments;
    } rows[] = {
        {"", ""},
        {R"("a b" c)", "[a b][c]"},
        {R"("")", "[]"},
        {R"("a""b")", R"([a"b])"},
        {R"(\"a\" b)", R"(["a"][b])"},
        {R"("C:\dir\\" x)", R"([C:\dir\][x])"},
        {R"(a\\\"b)", R"([a\"b])"},
        {R"(a\\"b c" d)", R"([a\b c][d])"},
        // Code page 1252 here; what a program of the layer gets is UTF-8.
        {"\xE9t\xE9 \x80", OnTheLayer() ? "[\u00E9t\u00E9][\u20AC]" : "[\xE9t\xE9][\x80]"},
    };
    const std::string report = PrivateDirectory() + "/arguments";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.given);
        const Started process(SelfCommand("WritesArguments " + report + " " + row.given));
        ASSERT_TRUE(process.started) << process.error;
        EXPECT_TRUE(process.error == kSentinel || !OnTheLayer());
        EXPECT_EQ(process.Finish(), 0U);
        EXPECT_EQ(ReadWholeFile(report), row.arguments);
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
        const Started normal(SelfCommand("EndsAsTold 42"));
        ASSERT_TRUE(normal.started);
        EXPECT_EQ(normal.Finish(), 42U);
        EXPECT_EQ(Look(normal.information.hThread), DWORD{WAIT_OBJECT_0});
        EXPECT_FAILS(TerminateProcess(normal.information.hProcess, 1), ERROR_ACCESS_DENIED); // it has ended
        EXPECT_GT(Started(SelfCommand("EndsAsTold crash")).Finish(), 128U);

        // In a wait with other objects, and ended from here.
        const Owned event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
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
    EXPECT_TRUE(WaitUntil([] { return Zombies() == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors + 1; })) << "the watcher keeps one";
}

TEST(Process, IsOpenedByItsNumberToBeWaitedFor) {
    TestProcess other("EndsAsTold", {"wait"});
    const Owned process = OpenProcess(SYNCHRONIZE, FALSE, other.Id());
    ASSERT_NE(static_cast<HANDLE>(process), nullptr);
    DWORD code = 0;
    EXPECT_FAILS(GetExitCodeProcess(process, &code), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(TerminateProcess(process, 1), ERROR_ACCESS_DENIED);
    DWORD id = 0;
    const Owned waiter = StartThread([&] { return Wait(process); }, &id);
    EXPECT_TRUE(WaitUntil([&] { return IsAsleep(id); }));
    EXPECT_EQ(Look(process), DWORD{WAIT_TIMEOUT});
    other.Kill();
    EXPECT_EQ(Finish(waiter), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(Look(process), DWORD{WAIT_OBJECT_0});
    if (OnTheLayer()) { // Windows keeps what somebody has a handle of
        EXPECT_FAILS(OpenProcess(SYNCHRONIZE, FALSE, other.Id()), ERROR_INVALID_PARAMETER);
        EXPECT_FAILS(OpenProcess(EVENT_ALL_ACCESS, FALSE, GetCurrentProcessId()), ERROR_ACCESS_DENIED);
    }
    EXPECT_TRUE(GetExitCodeProcess(GetCurrentProcess(), &code));
    EXPECT_EQ(code, DWORD{STILL_ACTIVE});
}

TEST(Process, ThatCannotBeStartedSaysWhy) {
    const std::string folder = PrivateDirectory();
    ReplaceFile(folder + "/plain", "plain text");
    ReplaceFile(folder + "/strange", std::string("\0\1\2\3", 4), 0755);
    const struct {
        std::string commandLine;
        DWORD error;
        DWORD flags = 0;
        DWORD startupFlags = 0;
        BOOL inherit = FALSE;
    } rows[] = {
        {WindowsPath(folder + "/plain"), ERROR_ACCESS_DENIED},
        {WindowsPath(folder + "/strange") + " x", ERROR_BAD_EXE_FORMAT},
        {WindowsPath(folder + "/missing"), ERROR_FILE_NOT_FOUND},
        {"\"C:" + WindowsPath(folder + "/miss ing") + "\" /S", ERROR_FILE_NOT_FOUND},
        {WindowsPath(folder + "/no/where"), ERROR_PATH_NOT_FOUND},
        {"", ERROR_INVALID_PARAMETER},
        {Self(), ERROR_NOT_SUPPORTED, 4},
        {Self(), ERROR_NOT_SUPPORTED, 0, 1},
        {Self(), ERROR_NOT_SUPPORTED, 0, 0, TRUE},
    };
    for (const auto& row : rows) {
        const Started process(row.commandLine, row.flags, nullptr, row.startupFlags, row.inherit);
        EXPECT_FALSE(process.started) << row.commandLine;
        EXPECT_EQ(process.error, row.error) << row.commandLine;
    }
    EXPECT_TRUE(WaitUntil([] { return Zombies() == 0; }));
}

CHILD_PROCESS(TellsWhatItStartedWith) {
    ReplaceFile(child.arguments.at(0), ProcessState());
    return 0;
}

TEST(Process, StartsWithACleanSlate) {
    LeakADescriptor();
    const Owned event = CreateEventA(nullptr, TRUE, FALSE, "E");
    const Owned mutex = CreateMutexA(nullptr, TRUE, "M");
    BlockAllSignals();
    const std::string report = PrivateDirectory() + "/report";
    // The standard streams, and the directory that it is counting them in.
    EXPECT_EQ(Started(SelfCommand("TellsWhatItStartedWith " + report)).Finish(), 0U);
    EXPECT_EQ(ReadWholeFile(report), "descriptors: 4");
    EXPECT_EQ(Started(SelfCommand("TellsWhatItStartedWith " + report), CREATE_NEW_CONSOLE).Finish(), 0U);
    EXPECT_EQ(ReadWholeFile(report), "descriptors: 4, own session");
    // By the application's name, with a command line that says otherwise.
    EXPECT_EQ(Started("anything --child=EndsAsTold 7", 0, Self().c_str()).Finish(), 7U);
}

namespace {

std::atomic<DWORD> g_mainThread{0};
std::atomic<int> g_events{0};

BOOL WINAPI First(DWORD event) {
    std::printf("first %u%s\n", event, GetCurrentThreadId() == g_mainThread ? " on the main thread" : "");
    std::fflush(stdout);
    return g_events++ < 2; // deals with two
}

BOOL WINAPI Last(DWORD event) {
    const Owned made = CreateEventA(nullptr, TRUE, TRUE, "MadeInHandler"); // anything goes
    std::printf("last %u %s\n", event, Look(made) == WAIT_OBJECT_0 ? "works" : "fails");
    std::fflush(stdout);
    return FALSE;
}

// Hears on another thread: thread sanitizer takes the signals of a thread that reads only when it has read.
void HearAsleep(Child& child) {
    const Owned hearing = StartThread([&] { return child.Hear(), 0; });
    while (Look(hearing) != WAIT_OBJECT_0)
        PauseMs(1);
}

} // namespace

CHILD_PROCESS(HandlesConsoleEvents) {
    g_mainThread = GetCurrentThreadId();
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
    NeedsTheLayer("console events that come as signals");
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
    return RunForked([] {
        RaiseTermination();
        PauseMs(20000);
        return 0;
    });
}

TEST(Console, HandlersAreNotInheritedByAForkChild) {
    NeedsTheLayer("fork children");
    EXPECT_EQ(TestProcess("ForksWithHandlers").Wait(), 128 + 15);
}
