// Names of status variables as constants, for code that reads or writes one: names::kPort is "Port". No state.
//
// The public list makes them, so a name with a typing error does not compile.
#pragma once

#include <tvsqdz_variables.h>

namespace names {

#define VARIABLE_NAME(name, type, size) inline constexpr char k##name[] = #name;
TVS_BUILT_IN_VARIABLES(VARIABLE_NAME)
#undef VARIABLE_NAME

} // namespace names
