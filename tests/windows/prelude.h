// Read before every test: macros of the system's header that hide names of ours.
#pragma once

#include <windows.h>

#include <winspool.h>

#undef OpenPrinter
#undef ReplaceFile
