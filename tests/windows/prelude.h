// Read before every test: macros of the system's header that hide names of ours.
#pragma once

#include <windows.h>

#undef ReplaceFile
