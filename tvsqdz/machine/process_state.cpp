// State: everything that process_state.h declares, the mapping of the shared counters, and the number of calls inside
// the library.
#include "machine/process_state.h"

#include "base/memory.h"
#include "base/system.h"
#include "machine/objects.h"

#include <utility>

ManagerLock g_managerLock;
ManagerRecord* g_managerList;
std::atomic<uint32_t> g_openManagerCount;
std::atomic<uint32_t> g_processKindMask;
uint32_t g_variableCount;
bool g_installed;
bool g_terminalServer;
SharedCounters* g_sharedCounters;

namespace {

constexpr char kSharedCountersName[] = "TVORSQD:SharedCounters";

HANDLE g_countersMapping;
std::atomic<bool> g_attached;
std::atomic<uint32_t> g_callsInside;
std::atomic<bool> g_isForkChild;

HANDLE CreateCountersMapping(SECURITY_ATTRIBUTES* security) {
    const product::KernelName name = ObjectName(kSharedCountersName);
    HANDLE mapping =
        CreateFileMappingA(INVALID_HANDLE_VALUE, security, PAGE_READWRITE, 0, sizeof(SharedCounters), name.text);
    if (mapping != nullptr || GetLastError() != ERROR_ACCESS_DENIED) return mapping;
    // On Windows an ordinary user cannot create a mapping in the global namespace; the session then has a block of its
    // own.
    return CreateFileMappingA(INVALID_HANDLE_VALUE, security, PAGE_READWRITE, 0, sizeof(SharedCounters),
                              kSharedCountersName);
}

} // namespace

bool OpenSharedCounters() {
    if (g_sharedCounters != nullptr) UnmapViewOfFile(std::exchange(g_sharedCounters, nullptr)); // a fork parent's
    const bool secured = (PlatformBit() & OsNtAny) != 0;
    product::EveryoneAccess everyone;
    if (secured && !everyone) return false;
    g_countersMapping = CreateCountersMapping(secured ? &everyone.attributes : nullptr);
    if (g_countersMapping == nullptr) return false;
    g_sharedCounters =
        static_cast<SharedCounters*>(MapViewOfFile(g_countersMapping, FILE_MAP_WRITE, 0, 0, sizeof(SharedCounters)));
    if (g_sharedCounters == nullptr) {
        CloseHandle(g_countersMapping);
        g_countersMapping = nullptr;
        return false;
    }
    return true;
}

void JoinProcessCount() {
    InterlockedIncrement(&g_sharedCounters->processCount);
}

void LeaveProcessCount() {
    InterlockedDecrement(&g_sharedCounters->processCount);
}

void CloseSharedCounters() {
    UnmapViewOfFile(g_sharedCounters);
    g_sharedCounters = nullptr;
    CloseHandle(g_countersMapping);
    g_countersMapping = nullptr;
}

uint32_t ProcessCount() {
    return static_cast<uint32_t>(InterlockedOr(&g_sharedCounters->processCount, 0));
}

uint32_t KindMask() {
    return static_cast<uint32_t>(InterlockedOr(&g_sharedCounters->kindMask, 0));
}

void AddKindBits(uint32_t bits) {
    InterlockedOr(&g_sharedCounters->kindMask, static_cast<LONG>(bits));
}

void RemoveKindBits(uint32_t bits) {
    InterlockedAnd(&g_sharedCounters->kindMask, static_cast<LONG>(~bits));
}

// A call counts itself before it reads the flag, and a detach clears the flag before it reads the count, so one of the
// two sees the other.
LibraryCall::LibraryCall() {
    g_callsInside.fetch_add(1);
    m_attached = g_attached.load();
}

LibraryCall::~LibraryCall() {
    g_callsInside.fetch_sub(1);
}

void ForgetParent() NO_LOCK_ANALYSIS {
    InitializeCriticalSection(&g_managerLock.section);
    g_isForkChild = true;
    g_attached = false;
    g_callsInside = 0;
    g_managerList = nullptr;
    g_openManagerCount = 0;
    g_processKindMask = 0;
    g_countersMapping = nullptr;
}

bool IsForkChild() {
    return g_isForkChild.load();
}

void ForkChildIsAttached() {
    g_isForkChild = false;
}

bool CallsAreLetIn() {
    return g_attached.load();
}

bool CountAsCall(ThreadPin* pin) {
    g_callsInside.fetch_add(1);
    if (!CallsAreLetIn()) return false; // the loader may wait for this thread, under its lock
    const auto* here = reinterpret_cast<LPCSTR>(&g_attached);
    return GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, here, &pin->module) != FALSE;
}

void UncountAsCall(const ThreadPin& pin) {
    g_callsInside.fetch_sub(1);
    FreeLibrary(pin.module);
}

void UncountAndExitThread(const ThreadPin& pin, DWORD exitCode) {
    const HMODULE module = pin.module;
    g_callsInside.fetch_sub(1);
    FreeLibraryAndExitThread(module, exitCode);
}

bool LetCallsIn(bool attached) {
    return g_attached.exchange(attached);
}

bool CallsHaveLeft(DWORD boundMs) {
    const DWORD start = GetTickCount();
    while (g_callsInside.load() != 0) {
        if (GetTickCount() - start >= boundMs) return false;
        Sleep(1);
    }
    return true;
}
