// What the tests of kernel objects need beside Win32: a look at the objects' files, fork, signals. kernel_kit_posix.cpp
// has it for Linux.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

// A handle that is closed with its guard.
class Owned {
public:
    Owned(HANDLE handle = nullptr) : m_handle(handle) {}
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() { Close(); }
    operator HANDLE() const { return m_handle; }
    bool Close() {
        const bool closed = m_handle == nullptr || CloseHandle(m_handle);
        m_handle = nullptr;
        return closed;
    }

private:
    HANDLE m_handle;
};

// Runs a procedure on a thread of CreateThread. The handle is the caller's.
HANDLE StartThread(std::function<DWORD()> procedure);
bool Join(HANDLE thread, DWORD milliseconds = 20000);

// Names of the files that hold named objects, sorted.
std::vector<std::string> ObjectFiles();
std::string ObjectPath(const std::string& name);
// Puts a file in the place of an object's.
void PlantFile(const std::string& name, const std::string& bytes, unsigned mode = 0666);
void PlantHardLink(const std::string& name, const std::string& path);
// Holds a file of the folder, or the folder itself ("."), as a process holds an object that it has, or while it opens
// one.
class HoldAlive {
public:
    explicit HoldAlive(const std::string& name);
    ~HoldAlive();

private:
    int m_file;
};
void RemoveObjectFile(const std::string& name);

// Runs the procedure in a fork child, which leaves at once with what it returns.
int RunInForkChild(const std::function<int()>& procedure);
// A fork child that does nothing until it is stopped.
class IdleForkChild {
public:
    IdleForkChild();
    ~IdleForkChild();

private:
    int m_pid;
};

// Sends this thread a signal whose handler does nothing, again and again, without SA_RESTART, as long as it lives.
class SignalStorm {
public:
    SignalStorm();
    ~SignalStorm();
    unsigned Sent() const;

private:
    struct State;
    State* m_state;
};

void PauseUs(int microseconds);

// The thread of this process is asleep in the kernel.
bool IsAsleep(DWORD threadId);

// The calling thread blocks every signal that it can block.
void BlockAllSignals();

void WriteReport(const std::string& path, const std::string& text); // whole or not at all
void MakeExecutable(const std::string& path);
void LeakADescriptor(); // one that programs started from here would inherit
[[noreturn]] void CrashHere();
void RaiseTermination();
std::string SignalState();
bool IsSessionLeader();

// How many descriptors are open, and how many children of this process have ended and were not waited for.
unsigned OpenDescriptors();
unsigned Zombies();
