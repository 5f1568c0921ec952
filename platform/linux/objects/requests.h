// Requests to the object server: what each does to the tables, and its answer. State: the rules for names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <oriel_objects.h>
#include <span>

namespace oriel {

// Which are not copied.
void SetRules(std::span<const ORIEL_RESERVED_NAME> rules);

// Executes the request in a record that the connection has received, unless it has been executed before, and answers
// it. False when the connection has to end: no client of ours sends such a record, or it does not take its answer.
bool ExecuteAndAnswer(uint32_t connection, const void* record, size_t length);

} // namespace oriel
