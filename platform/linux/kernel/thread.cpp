// Thread records, CreateThread and the end of threads. terminate.cpp stops them.
//
// State: a record for each thread that needs one, in a thread-local pointer; a thread-specific key, whose destructor
// runs at the end of every such thread, whoever created it; of each thread of CreateThread the place where it ends.
#include "kernel/thread.h"

#include "base/call.h"
#include "base/steps.h"
#include "memory/own_stack.h"
#include "security/credentials.h"

#include <algorithm>
#include <csetjmp>
#include <csignal>
#include <errhandlingapi.h>
#include <handleapi.h>
#include <libloaderapi.h>
#include <new>
#include <oriel_wait.h>
#include <processthreadsapi.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oriel {
namespace {

constinit thread_local ThreadObject* t_thread __attribute__((tls_model("initial-exec"))) = nullptr;
constinit thread_local DWORD t_threadId __attribute__((tls_model("initial-exec"))) = 0;
pthread_key_t g_threadKey;

// How a thread of CreateThread ends from inside its procedure.
struct ThreadExit {
    jmp_buf place;  // in RunThread
    HMODULE module; // to be given back
    DWORD exitCode;
};
constinit thread_local ThreadExit* t_exit __attribute__((tls_model("initial-exec"))) = nullptr;

constexpr size_t kSmallestStack = 65536;
// The C library puts the thread's own data and thread-local variables on its stack. The caller asked for usable space.
constexpr size_t kSystemShare = 32768;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kSanitizerShare = 1 << 20;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr size_t kSanitizerShare = 1 << 20;
#else
constexpr size_t kSanitizerShare = 0;
#endif
#else
constexpr size_t kSanitizerShare = 0;
#endif

void DropThread(Object* object) {
    if (LastReference(object)) delete static_cast<ThreadObject*>(object);
}

Grab GrabThread(Object* object, WaitPoint& point, bool) {
    auto* thread = static_cast<ThreadObject*>(object);
    if (thread->ended.load(std::memory_order_acquire) != 0) return Grab::Got;
    point.word = &thread->ended;
    return Grab::Busy;
}

void LeaveThread(void* value) {
    auto* thread = static_cast<ThreadObject*>(value);
    if (!thread->lastRound) {
        // Destructors of other keys may still need mutexes: be the last, in the next round.
        thread->lastRound = true;
        pthread_setspecific(g_threadKey, thread);
        return;
    }
    ++t_terminationHolds; // nothing is left to terminate
    // Another thread may be waiting for this one to stop.
    if (thread->state.exchange(kLeft) == kTerminationAsked) WakeAll(thread->state, false);
    t_terminationWord = nullptr;
    AbandonMutexes(*thread);
    AnnounceEnd(*thread);
    t_thread = nullptr;
    DropThread(thread);
    --t_terminationHolds;
}

void AdoptRecord(ThreadObject* thread) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_key_create(&g_threadKey, LeaveThread); });
    pthread_setspecific(g_threadKey, thread);
    t_thread = thread;
    t_terminationWord = &thread->state;
    WatchForFork();
}

struct ThreadStart {
    ThreadObject* thread;
    LPTHREAD_START_ROUTINE procedure;
    LPVOID parameter;
};

// The procedure's module may go here, after its last instruction.
void RunProcedure(const ThreadStart& start) {
    ThreadExit exit{};
    t_exit = &exit;
    if (setjmp(exit.place) == 0) {
        start.thread->exitCode.store(start.procedure(start.parameter), std::memory_order_relaxed);
        return;
    }
    t_thread->exitCode.store(t_exit->exitCode, std::memory_order_relaxed);
    FreeLibrary(t_exit->module);
}

void* RunThread(void* argument) {
    const ThreadStart start = *static_cast<ThreadStart*>(argument);
    delete static_cast<ThreadStart*>(argument);
    {
        TerminationHold hold; // a thread that was terminated before it began stops here
        AdoptRecord(start.thread);
        start.thread->threadId.store(GetCurrentThreadId());
        WakeAll(start.thread->threadId, false);
    }
    RunProcedure(start);
    return nullptr;
}

void ForgetThread() {
    if (t_thread != nullptr) pthread_setspecific(g_threadKey, nullptr);
    t_thread = nullptr;
    t_terminationWord = nullptr;
    t_threadId = 0;
}

} // namespace

const ObjectType kThreadType{.name = "thread", .drop = DropThread, .grab = GrabThread};
const ForkSteps kThreadFork{nullptr, nullptr, ForgetThread};

ThreadObject* CurrentThread() {
    if (t_thread != nullptr) return t_thread;
    TerminationHold hold;
    auto* thread = new (std::nothrow) ThreadObject{{&kThreadType}};
    if (thread == nullptr) return nullptr;
    thread->threadId.store(GetCurrentThreadId());
    AdoptRecord(thread);
    return thread;
}

void AnnounceEnd(ThreadObject& thread) {
    thread.ended.store(1, std::memory_order_release);
    WakeAll(thread.ended, false);
}

int StartThread(size_t stackSize, void* (*procedure)(void*), void* argument) {
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error != 0) return error;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (stackSize != 0) {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t size = std::max(stackSize, kSmallestStack) + kSystemShare + kSanitizerShare;
        pthread_attr_setstacksize(&attributes, (size + page - 1) / page * page);
    }
    // Signals of the program belong to its own threads.
    sigset_t blocked;
    sigemptyset(&blocked);
    for (int number = 1; number < 32; ++number)
        sigaddset(&blocked, number);
    // A blocked fault ends the process without its handler. SIGPROF is for profilers.
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT, SIGPROF})
        sigdelset(&blocked, fault);
    pthread_attr_setsigmask_np(&attributes, &blocked);
    const AsOwnProcess ourselves; // a thread starts without the impersonation of its creator
    pthread_t thread;
    error = pthread_create(&thread, &attributes, procedure, argument);
    pthread_attr_destroy(&attributes);
    return error;
}

} // namespace oriel

using namespace oriel;

DWORD WINAPI GetCurrentThreadId() {
    if (t_threadId == 0) {
        t_threadId = static_cast<DWORD>(syscall(SYS_gettid));
        WatchForFork();
    }
    return t_threadId;
}

HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES attributes, SIZE_T stackSize, LPTHREAD_START_ROUTINE procedure,
                           LPVOID parameter, DWORD flags, LPDWORD threadId) {
    TerminationHold hold;
    if (procedure == nullptr) return Fail(ERROR_INVALID_PARAMETER, nullptr);
    if (flags != 0 || (attributes != nullptr && attributes->bInheritHandle)) return Fail(ERROR_NOT_SUPPORTED, nullptr);
    auto* thread = new (std::nothrow) ThreadObject{{&kThreadType}};
    auto* start = new (std::nothrow) ThreadStart{thread, procedure, parameter};
    if (thread == nullptr || start == nullptr) {
        delete thread;
        delete start;
        return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
    thread->references.store(2); // of the handle and of the thread
    // The handle first: a running thread cannot be undone.
    const HANDLE handle = NewHandle(thread, kAllRights);
    int error = 0;
    if (handle != nullptr) error = StartThread(stackSize, RunThread, start);
    if (handle == nullptr || error != 0) {
        if (handle != nullptr) CloseHandle(handle);
        DropThread(thread);
        delete start;
        if (error != 0) SetLastError(ERROR_NO_SYSTEM_RESOURCES);
        return nullptr;
    }
    if (threadId != nullptr) {
        // Only the thread itself can find its number. It does so as soon as it runs.
        while (thread->threadId.load() == 0) {
            const SleepPoint begun{&thread->threadId, 0, false};
            SleepOn(&begun, 1, kNever);
        }
        *threadId = thread->threadId.load();
    }
    return handle;
}

void WINAPI FreeLibraryAndExitThread(HMODULE module, DWORD exitCode) {
    if (t_exit == nullptr) {
        FreeLibrary(module);
        pthread_exit(nullptr);
    }
    t_exit->module = module;
    t_exit->exitCode = exitCode;
    longjmp(t_exit->place, 1);
}

BOOL WINAPI GetExitCodeThread(HANDLE handle, LPDWORD exitCode) {
    if (exitCode == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    HandleUse<ThreadObject> thread(handle, kThreadType, 0);
    if (!thread) return FALSE;
    *exitCode = thread->ended.load(std::memory_order_acquire) != 0 ? thread->exitCode.load() : STILL_ACTIVE;
    return TRUE;
}

void WINAPI OrielRestThread() {
    const TerminationHold hold;
    RunRestingThreadSteps();
    ReleaseUnusedStack();
}
