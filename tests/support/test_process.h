// Processes that a test starts, stops and kills.
//
// A child procedure is a function of the test program that runs in a process of its own:
//
//     CHILD_PROCESS(HoldsTheMutex) {          // int (Child& child)
//         ...
//         child.Say("holding");               // one line to the test
//         child.Hear();                       // waits for one line from the test
//         return 0;
//     }
//     TEST(Mutex, ...) {
//         TestProcess holder("HoldsTheMutex", {"argument"});
//         EXPECT_EQ(holder.Hear(), "holding");
//         holder.Kill();
//     }
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

struct Child {
    std::vector<std::string> arguments;

    void Say(const std::string& line);
    std::string Hear(); // empty when the test is gone
};

using ChildProcedure = int (*)(Child& child);
struct RegisterChild {
    RegisterChild(const char* name, ChildProcedure procedure);
};
#define CHILD_PROCESS(name)                                                                                            \
    static int name##Child(Child& child);                                                                              \
    static const RegisterChild name##Registration(#name, name##Child);                                                 \
    static int name##Child([[maybe_unused]] Child& child)

// Environment of a process, on top of the test's own.
using Environment = std::map<std::string, std::string>;

class TestProcess {
public:
    // A child procedure of this test program.
    explicit TestProcess(const std::string& child, const std::vector<std::string>& arguments = {},
                         const Environment& environment = {});
    // Any program, by its path; its standard error is kept apart unless it is merged.
    static TestProcess Program(const std::string& path, const std::vector<std::string>& arguments = {},
                               const Environment& environment = {});
    // One that another process started; its streams are not at hand. Windows only.
    static TestProcess Adopted(unsigned id);
    TestProcess(TestProcess&& other) noexcept { std::swap(m, other.m); }
    TestProcess& operator=(TestProcess&& other) noexcept {
        std::swap(m, other.m);
        return *this;
    }
    ~TestProcess(); // kills what still runs, and waits for it

    unsigned Id() const { return m.id; }
    bool Running();
    // One line of its standard output, without the newline. Fails the test after the deadline.
    std::string Hear(int timeoutMs = 20000);
    void Tell(const std::string& line);
    // Its answer, one line.
    std::string Ask(const std::string& line);
    // Tells it to end, and fails the test unless it ends well.
    void End(const std::string& line = "end");
    void CloseInput() { Close(m.in); }
    // The rest of what it prints, until it closes its standard output.
    std::string HearAll(int timeoutMs = 60000);
    std::string Errors(); // what it wrote to standard error so far
    void Kill();          // and waits until it is gone
    void KillOnly() { Signal(9); }
    void Terminate() { Signal(15); }
    void Interrupt() { Signal(2); }
    void Stop() { Signal(19); } // and waits until it stands still
    void Continue() { Signal(18); }
    // Its exit code; 128 + the signal's number when one ended it. Fails the test after the deadline.
    int Wait(int timeoutMs = 60000);

private:
    TestProcess() = default;
    // These differ between the systems. Descriptors; on Windows handles, of which 32 bits count.
    void Start(const std::string& path, const std::vector<std::string>& arguments, const Environment& environment);
    static bool Give(int stream, const std::string& text);
    // Appends what has come, for which it waits as long. False once the other side has closed and all is read.
    static bool Take(int stream, std::string& text, int waitMs);
    static void Close(int& stream);
    void Signal(int number); // as Linux numbers them

    struct {
        int process = -1;
        unsigned id = 0;
        int in = -1;
        int out = -1;
        int err = -1;
        bool ended = true;
        int exitCode = -1;
        std::string heard;
        std::string errors;
    } m;
};

// Runs a program to its end.
struct ProgramResult {
    int exitCode;
    std::string output;
    std::string errors;
};
ProgramResult RunProgram(const std::string& path, const std::vector<std::string>& arguments = {},
                         const Environment& environment = {});

// Whether it may start processes, and have threads, of other users.
bool RunsAsRoot();

// A test that acts as other users. It exists for root only; nobody else sees it listed, so it is never skipped.
#define TEST_AS_ROOT(suite, name) TEST(suite, name##AsRoot)

// Milliseconds of the monotonic clock.
double NowMs();
void PauseMs(int milliseconds);

// Waits until the condition holds, at most for the time given. True when it held.
template <typename Condition>
bool WaitUntil(Condition condition, int timeoutMs = 10000) {
    const double deadline = NowMs() + timeoutMs;
    while (!condition()) {
        if (NowMs() > deadline) return false;
        PauseMs(1);
    }
    return true;
}
