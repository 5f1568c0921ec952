// What the tests of the layer share: calls and their errors, handles and threads, the registry and windows in few
// words; and what they do below the layer (kit_posix.cpp), which tests that run on Windows too leave alone.
#pragma once

#include "not_here.h"
#include "test_process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

using Names = std::vector<std::string>;

// ---- calls, handles, threads

// The last error before a call that leaves it alone.
constexpr DWORD kSentinel = 0xBEEF;

// The error of a call that failed, else ERROR_SUCCESS.
inline DWORD Code(bool succeeded) {
    return succeeded ? ERROR_SUCCESS : GetLastError();
}

template <typename Call>
DWORD ErrorOf(Call call) {
    SetLastError(kSentinel);
    return Code(call());
}

#define EXPECT_FAILS(call, error) EXPECT_EQ(ErrorOf([&] { return bool(call); }), static_cast<DWORD>(error)) << #call

// A handle that is closed with its guard.
class Owned {
public:
    Owned(HANDLE handle = nullptr) : m_handle(handle) {}
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() { Close(); }
    operator HANDLE() const { return m_handle; }
    bool Close() { return m_handle == nullptr || CloseHandle(std::exchange(m_handle, nullptr)); }

private:
    HANDLE m_handle;
};

inline HANDLE NewEvent(const char* name = nullptr, BOOL manual = TRUE) {
    return CreateEventA(nullptr, manual, FALSE, name);
}

inline DWORD Look(HANDLE handle) {
    return WaitForSingleObject(handle, 0);
}

// Waits with a deadline that only a fault lets pass.
inline DWORD Wait(HANDLE handle, DWORD milliseconds = 20000) {
    return WaitForSingleObject(handle, milliseconds);
}

// Runs a procedure on a thread of CreateThread. The handle is the caller's.
inline HANDLE StartThread(std::function<DWORD()> procedure, DWORD* id = nullptr) {
    const auto run = [](LPVOID parameter) -> DWORD {
        const std::unique_ptr<std::function<DWORD()>> owned(static_cast<std::function<DWORD()>*>(parameter));
        return (*owned)();
    };
    return CreateThread(nullptr, 65536, run, new std::function<DWORD()>(std::move(procedure)), 0, id);
}

// What the thread returned; fails the test when it does not end.
inline DWORD Finish(HANDLE thread) {
    EXPECT_EQ(Wait(thread, 60000), DWORD{WAIT_OBJECT_0});
    DWORD code = 0xDEAD;
    EXPECT_TRUE(GetExitCodeThread(thread, &code)) << GetLastError();
    return code;
}

inline DWORD OnAThread(std::function<DWORD()> procedure) {
    return Finish(Owned(StartThread(std::move(procedure))));
}

// A child that has said what it says once it is ready.
inline TestProcess Ready(const char* child, const Names& arguments = {}, const Environment& environment = {}) {
    TestProcess process(child, arguments, environment);
    EXPECT_EQ(process.Hear(), "ready") << child;
    return process;
}

// Says that it is ready, and stays until it is told something; a child's exit code.
inline int StayReady(Child& child) {
    child.Say("ready");
    child.Hear();
    return 0;
}

// One number that the processes of a test share.
inline volatile LONG* SharedNumber(const char* name) {
    const Owned section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 64, name);
    return static_cast<volatile LONG*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0));
}

// Starts a child procedure that never ends, kills it wherever it is, and checks what it left, again and again.
inline void KillStorm(const char* child, const std::string& argument, int rounds, const std::function<void()>& check) {
    for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
        TestProcess victim(child, {argument});
        victim.Hear();
        PauseMs(round % 23);
        victim.Kill();
        check();
    }
}

// The bytes with one to four others among the first `reach`.
inline std::string Damaged(std::string bytes, std::mt19937_64& random, size_t reach = std::string::npos) {
    for (auto changes = bytes.empty() ? 0 : 1 + random() % 4; changes > 0; --changes)
        bytes[random() % std::min(reach, bytes.size())] ^= static_cast<char>(1 + random() % 255);
    return bytes;
}

// ---- the registry

inline HKEY OpenKey(HKEY parent, const std::string& path, REGSAM access = KEY_ALL_ACCESS) {
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(parent, path.c_str(), 0, access, &key), ERROR_SUCCESS) << path;
    return key;
}

inline LSTATUS TryCreateKey(HKEY parent, const std::string& path, HKEY* key) {
    return RegCreateKeyExA(parent, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key, nullptr);
}

inline HKEY CreateKey(HKEY parent, const std::string& path) {
    HKEY key = nullptr;
    EXPECT_EQ(TryCreateKey(parent, path, &key), ERROR_SUCCESS) << path;
    return key;
}

inline LSTATUS SetValue(HKEY key, const std::string& name, const std::string& data, DWORD type = REG_BINARY) {
    const auto* bytes = reinterpret_cast<const BYTE*>(data.data());
    return RegSetValueExA(key, name.c_str(), 0, type, bytes, static_cast<DWORD>(data.size()));
}

struct Value {
    LSTATUS status = ERROR_SUCCESS;
    DWORD type = 0;
    std::string data = {};
    bool operator==(const Value&) const = default;
};

inline Value GetValue(HKEY key, const std::string& name) {
    Value value{.data = std::string((1 << 20) + 1, '\0')};
    auto size = static_cast<DWORD>(value.data.size());
    auto* data = reinterpret_cast<BYTE*>(value.data.data());
    value.status = RegQueryValueExA(key, name.c_str(), nullptr, &value.type, data, &size);
    value.data.resize(value.status == ERROR_SUCCESS ? size : 0);
    return value;
}

enum Listed { kSubKeys, kValues };

inline LSTATUS NameAt(HKEY key, DWORD index, Listed listed, std::string* name = nullptr) {
    char text[256] = "";
    DWORD size = sizeof text;
    const LSTATUS status = listed == kValues
                               ? RegEnumValueA(key, index, text, &size, nullptr, nullptr, nullptr, nullptr)
                               : RegEnumKeyExA(key, index, text, &size, nullptr, nullptr, nullptr, nullptr);
    if (name) *name = text;
    return status;
}

inline Names NamesIn(HKEY key, Listed listed) {
    Names names(1);
    while (NameAt(key, static_cast<DWORD>(names.size() - 1), listed, &names.back()) == ERROR_SUCCESS)
        names.emplace_back();
    names.pop_back();
    return names;
}

// ---- windows

inline ATOM RegisterTestClass(const char* name, WNDPROC procedure) {
    const WNDCLASSEXA windowClass{.cbSize = sizeof windowClass, .lpfnWndProc = procedure, .lpszClassName = name};
    return RegisterClassExA(&windowClass);
}

inline HWND CreateTestWindow(const char* className = "TVORTestClass", const char* title = "") {
    return CreateWindowExA(0, className, title, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
}

inline HWND MakeWindow(const char* title = "", WNDPROC procedure = DefWindowProcA,
                       const char* className = "TVORTestClass") {
    RegisterTestClass(className, procedure);
    const HWND window = CreateTestWindow(className, title);
    EXPECT_NE(window, nullptr) << GetLastError();
    return window;
}

inline HWND WindowOf(ULONG_PTR number) {
    return reinterpret_cast<HWND>(number);
}

// Handles travel between processes as text.
inline std::string ToText(HWND window) {
    return std::to_string(HandleToULong(window));
}

inline HWND ToWindow(const std::string& text) {
    return WindowOf(std::stoul(text));
}

// Takes the next message; false when there is none.
inline bool Take(MSG& message, HWND window = nullptr) {
    return PeekMessageA(&message, window, 0, 0, PM_REMOVE) != FALSE;
}

inline bool QueueIsEmpty() {
    MSG message;
    return PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE) == FALSE;
}

// Reads and dispatches until WM_QUIT; its exit code, or -1.
inline int RunMessageLoop() {
    MSG message;
    BOOL more = FALSE;
    while ((more = GetMessageA(&message, nullptr, 0, 0)) != 0 && more != -1)
        DispatchMessageA(&message);
    return more == 0 ? static_cast<int>(message.wParam) : -1;
}

// ---- below the layer, on Linux alone

// From here on this process is a user without rights. Only root can do it.
bool BecomeNobody();

std::string ReadWholeFile(const std::string& path);
// Replaces the file, as a restored backup would: those who have it open see that it is another.
void ReplaceFile(const std::string& path, const std::string& bytes, unsigned mode = 0644);
// Makes something else than a file of its own in its place.
enum class Plant { kLink, kPipe, kDirectory, kHardLink };
constexpr Plant kPlants[] = {Plant::kLink, Plant::kPipe, Plant::kDirectory}; // that nobody takes for the file
bool PlantInPlace(const std::string& path, Plant plant, const std::string& target = "");
// Locks a file in every way until the process ends: as a writer who does not come to an end, or as any reader can. The
// child procedure HoldsAFile does so too with its argument.
bool LockWholeFile(const std::string& path, bool asReader = false);

// A connection to the object server of this machine; -1 without one.
int ConnectToObjectServer();
// How many objects the server has. Only its user and root learn that.
unsigned ObjectCount();
// The server's processes that are not ending, with their parents: a keeper, and its worker.
std::map<int, int> ObjectServerProcesses();
void SignalObjectServer(int signal);

bool IsAsleep(unsigned threadId); // a thread of this process, in the kernel
void BlockAllSignals();           // of this thread
unsigned OpenDescriptors();

// The registry as text; the code stands for it when there is none.
LSTATUS Import(const std::string& text, DWORD* line = nullptr);
std::string Export(HKEY key, const char* path = nullptr);
