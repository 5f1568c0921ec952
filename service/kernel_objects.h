// The named events that the service makes. Everyone may use them. State: whether names carry the Terminal Services
// prefix, read once at the start.
#pragma once

#include "product/object_names.h"

// Reads what the names depend on.
void InitialiseObjectNames();

// "<database>:Initialized", not set. Null when it cannot be had; those who wait then ask again and again instead.
HANDLE CreateInitialisedEvent(std::string_view database);
// A variable's "Updated" or "Changed" event. Null when it cannot be had.
HANDLE CreateVariableEvent(std::string_view database, std::string_view variable, product::VariableSignal signal);
