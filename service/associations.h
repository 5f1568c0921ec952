// What the RPC run-time knows of the client of a call: its association, which is its process, and its user. Windows'
// run-time exports these calls, but current import libraries lack them; so there is a file for each system. State: the
// run-time's; on Windows also the list of client processes.
#pragma once

#include <windows.h>

#include <rpc.h>

struct ClientProcess;

// The association of a call in progress. The association's context stays valid while this object lives.
class CallersAssociation {
public:
    explicit CallersAssociation(RPC_BINDING_HANDLE client);
    ~CallersAssociation();
    CallersAssociation(const CallersAssociation&) = delete;
    CallersAssociation& operator=(const CallersAssociation&) = delete;

    // The context that Monitor gave the client's process; null before.
    RPC_STATUS Context(void** context) const;
    // runDown(context) is called once, when the process's last connection has closed and its calls have returned.
    RPC_STATUS Monitor(PRPC_RUNDOWN runDown, void* context) const;
    // The number of the client's process; 0 when it is not known.
    DWORD Process() const;
    RPC_BINDING_HANDLE Binding() const { return m_client; }
    // The name of the client's user; the text is the run-time's and lives as long as the call.
    RPC_STATUS User(const char** user) const;

private:
    RPC_BINDING_HANDLE m_client;
    [[maybe_unused]] ClientProcess* m_process = nullptr; // where the run-time has no associations
};

// After the last call: ends what the run-time did not end itself.
void EndAssociations();
