// The one question that named objects ask of their security attributes.
#pragma once

#include <minwinbase.h>

namespace oriel {

// True when everyone has full access: the descriptor has a DACL that is null, or one with an access-allowed entry of
// GENERIC_ALL for Everyone that no denying entry stands before. False without attributes or descriptor, without a DACL,
// and for a descriptor that is invalid: its memory is read under the fault guard and every count and offset is checked.
bool GrantsEveryone(const SECURITY_ATTRIBUTES* attributes);

} // namespace oriel
