// What the RPC run-time tells of the client of a call: its association, which is its process, and its user. The
// run-time of Windows has it in an import library of its own time only, so there is a file for each system.
#pragma once

#include <windows.h>

#include <rpc.h>

// The context that MonitorAssociation gave the client's process; null before.
RPC_STATUS AssociationContext(RPC_BINDING_HANDLE client, void** context);
// runDown(context) is called once, when the process's last connection has closed and its calls have returned.
RPC_STATUS MonitorAssociation(RPC_BINDING_HANDLE client, PRPC_RUNDOWN runDown, void* context);
// The name of the client's user; the run-time keeps the text for as long as the call.
RPC_STATUS ClientUser(RPC_BINDING_HANDLE client, const char** user);
// After the last call: ends what the run-time did not end itself.
void EndAssociations();
