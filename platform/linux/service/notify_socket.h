// What a supervisor that starts services wants to be told, as sd_notify(3) describes it.
#pragma once

namespace oriel {

// Sends one line, such as "READY=1", to the socket that NOTIFY_SOCKET names. Without one it does nothing; a reader that
// does not take it is not waited for.
void TellSupervisor(const char* line);

} // namespace oriel
