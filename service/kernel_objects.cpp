#include "kernel_objects.h"

using namespace product;

namespace {

bool g_terminalServer = false;

} // namespace

void InitialiseObjectNames() {
    g_terminalServer = MachineIsTerminalServer();
}

HANDLE CreateInitialisedEvent(std::string_view database) {
    HANDLE event = CreateEventForEveryone(InitializedEventName(database).text);
    // Somebody who waited for a database of that name before may still hold the event, set.
    if (event) ResetEvent(event);
    return event;
}

HANDLE CreateVariableEvent(std::string_view database, std::string_view variable, VariableSignal signal) {
    return CreateEventForEveryone(VariableEventName(g_terminalServer, database, variable, signal).text);
}
