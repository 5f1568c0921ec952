// The calls for associations are looked up in the machine's run-time: the toolchain's import library lacks them, or
// decorates them for another count of parameters, and not every implementation has them. Where the run-time has none, a
// client is the process whose number the run-time gives. It is gone when that process has ended and its calls have
// returned. Clients whose process is not known or cannot be waited for count as one, which ends with the service.
//
// State: the processes of clients.
#include "associations.h"

#include "product/linked_list.h"
#include "product/lock.h"

#include <new>

struct ClientProcess {
    DWORD id = 0;            // 0: not known
    HANDLE handle = nullptr; // keeps the number from being another's
    HANDLE wait = nullptr;   // for its end, once monitored
    PRPC_RUNDOWN runDown = nullptr;
    void* context = nullptr;
    DWORD calls = 0; // in progress
    bool ended = false;
    ClientProcess* next = nullptr;
};

namespace {

using GetContext = RPC_STATUS(RPC_ENTRY*)(RPC_BINDING_HANDLE client, void** context);
using MonitorClient = RPC_STATUS(RPC_ENTRY*)(RPC_BINDING_HANDLE client, PRPC_RUNDOWN runDown, void* context);
using GetProcessOf = RPC_STATUS(RPC_ENTRY*)(RPC_BINDING_HANDLE client, unsigned long* process);

template <typename Function>
Function Find(const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("RPCRT4.dll"), name)));
}

const auto g_getContext = Find<GetContext>("I_RpcGetAssociationContext");
const auto g_monitor = Find<MonitorClient>("I_RpcMonitorAssociation");
const auto g_getProcess = Find<GetProcessOf>("I_RpcBindingInqLocalClientPID");

Lock g_lock;
ClientProcess* g_processes GUARDED_BY(g_lock) = nullptr;
DWORD g_runDowns GUARDED_BY(g_lock) = 0; // in progress, of what is not in the list any more

bool HasAssociations() {
    return g_getContext && g_monitor;
}

// The number of the client's process; 0 when it is not known.
DWORD ProcessOf(RPC_BINDING_HANDLE client) {
    unsigned long process = 0;
    return g_getProcess && g_getProcess(client, &process) == RPC_S_OK ? process : 0;
}

ClientProcess* FindProcess(DWORD id) REQUIRES(g_lock) {
    ClientProcess* process = g_processes;
    while (process && process->id != id)
        process = process->next;
    return process;
}

// Null when there is no memory for it. One that cannot be waited for counts as not known.
ClientProcess* AddProcess(DWORD id) REQUIRES(g_lock) {
    const HANDLE handle = id != 0 ? OpenProcess(SYNCHRONIZE, FALSE, id) : nullptr;
    if (!handle) {
        id = 0;
        if (ClientProcess* others = FindProcess(0)) return others;
    }
    auto* process = new (std::nothrow) ClientProcess;
    if (!process) {
        if (handle) CloseHandle(handle);
        return nullptr;
    }
    process->id = id;
    process->handle = handle;
    process->next = g_processes;
    g_processes = process;
    return process;
}

// Takes it out of the list, to be run down.
void BeginRunDown(const ClientProcess* process) REQUIRES(g_lock) {
    Unlink(g_processes, &ClientProcess::next, *process);
    ++g_runDowns;
}

// Of one that is not in the list any more.
void RunDown(ClientProcess* process) {
    if (process->wait) UnregisterWaitEx(process->wait, nullptr); // it may be the one that calls
    if (process->runDown) process->runDown(process->context);
    if (process->handle) CloseHandle(process->handle);
    delete process;
    LockHold hold{g_lock};
    --g_runDowns;
}

// Takes a process out of the list when nobody needs it any more: it has ended, or was never monitored.
bool TakeOut(const ClientProcess* process) REQUIRES(g_lock) {
    if (process->calls > 0 || (process->runDown && !process->ended)) return false;
    BeginRunDown(process);
    return true;
}

void CALLBACK ProcessHasEnded(void* parameter, BOOLEAN) {
    auto* process = static_cast<ClientProcess*>(parameter);
    bool last = false;
    {
        LockHold hold{g_lock};
        process->ended = true;
        last = TakeOut(process);
    }
    if (last) RunDown(process);
}

} // namespace

CallersAssociation::CallersAssociation(RPC_BINDING_HANDLE client) : m_client(client) {
    if (HasAssociations()) return;
    const DWORD id = ProcessOf(client);
    LockHold hold{g_lock};
    m_process = FindProcess(id);
    if (!m_process) m_process = AddProcess(id);
    if (m_process) ++m_process->calls;
}

CallersAssociation::~CallersAssociation() {
    if (!m_process) return;
    bool last = false;
    {
        LockHold hold{g_lock};
        --m_process->calls;
        last = TakeOut(m_process);
    }
    if (last) RunDown(m_process);
}

RPC_STATUS CallersAssociation::Context(void** context) const {
    if (HasAssociations()) return g_getContext(m_client, context);
    if (!m_process) return RPC_S_OUT_OF_MEMORY;
    LockHold hold{g_lock};
    *context = m_process->context;
    return RPC_S_OK;
}

RPC_STATUS CallersAssociation::Monitor(PRPC_RUNDOWN runDown, void* context) const {
    if (HasAssociations()) return g_monitor(m_client, runDown, context);
    if (!m_process) return RPC_S_OUT_OF_MEMORY;
    LockHold hold{g_lock}; // the end of the process waits until all of this is set
    if (m_process->handle && !RegisterWaitForSingleObject(&m_process->wait, m_process->handle, ProcessHasEnded,
                                                          m_process, INFINITE, WT_EXECUTEONLYONCE))
        return RPC_S_OUT_OF_RESOURCES;
    m_process->context = context;
    m_process->runDown = runDown;
    return RPC_S_OK;
}

DWORD CallersAssociation::Process() const {
    return ProcessOf(m_client);
}

RPC_STATUS CallersAssociation::User(const char** user) const {
    RPC_AUTHZ_HANDLE name = nullptr;
    const RPC_STATUS status = RpcBindingInqAuthClientA(m_client, &name, nullptr, nullptr, nullptr, nullptr);
    if (status != RPC_S_OK && status != RPC_S_BINDING_HAS_NO_AUTH) return status;
    // Users that the run-time does not name share one account.
    *user = name ? static_cast<const char*>(name) : "";
    return RPC_S_OK;
}

void EndAssociations() {
    for (;;) {
        ClientProcess* process = nullptr;
        {
            LockHold hold{g_lock};
            process = g_processes;
            if (!process && g_runDowns == 0) return;
            if (process) process->calls = 1; // so the end of the process does not run it down
        }
        if (!process) {
            Sleep(1); // another thread runs the last one down, which waits for nothing
            continue;
        }
        if (process->wait)
            UnregisterWaitEx(process->wait, INVALID_HANDLE_VALUE); // waits until a callback in progress has returned
        process->wait = nullptr;
        {
            LockHold hold{g_lock};
            BeginRunDown(process);
        }
        RunDown(process);
    }
}
