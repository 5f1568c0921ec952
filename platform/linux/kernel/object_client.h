// Requests to the object server. State: the connections (object_client.cpp), under the lock of the names
// (named_object.cpp), which every call here needs.
#pragma once

#include "base/descriptor.h"
#include "base/lock.h"
#include "objects/protocol.h"

#include <sys/types.h>

namespace oriel {

extern Lock g_namesLock;

// Who holds an object in the server. A hold ends with its connection: `run` is then old.
struct ServerHold {
    uint32_t connection = 0;
    uint32_t run = 0;
    uint32_t number = 0; // 0: none
};

struct ObjectAnswer {
    ServerHold hold;
    ObjectReply reply{};
    Descriptor memory;
};

// Opens or creates an object. Starts the server if it is not there and an object is to be created. ERROR_SUCCESS, or
// the server's answer; ERROR_TIMEOUT; ERROR_NO_SYSTEM_RESOURCES when the user's part is used up; ERROR_PATH_NOT_FOUND
// without a usable run directory, or one of another user in which no server runs. Throws std::bad_alloc.
DWORD AskForObject(ObjectRequest request, ObjectAnswer& answer) ORIEL_LOCK_CHECK(requires_capability(g_namesLock));

// Gives the hold back; it need not be in force. With CloseOwned, false when other processes hold the object too: the
// hold then stays. When the server does not answer in time, it is given back with the next request.
bool GiveBack(ServerHold& hold, ObjectAction action) ORIEL_LOCK_CHECK(requires_capability(g_namesLock));

// Whether the server still has the object, as far as this process can see.
bool IsInForce(const ServerHold& hold) ORIEL_LOCK_CHECK(requires_capability(g_namesLock));

// Whether the calling thread acts as another user than the one that took the hold.
bool IsOtherUsers(const ServerHold& hold) ORIEL_LOCK_CHECK(requires_capability(g_namesLock));

// In a fork child: closes the parent's connections.
void ForgetConnections();

} // namespace oriel
