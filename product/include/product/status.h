// The status of an export: one of three number spaces that are kept apart. No state.
//
//   Status       what an export returns: TVS_OK and the negative codes that tvsqdz.h names, or a code passed on
//   Answer       the result of a call of the status database service (product/client.h)
//   DWORD error  a system error, from GetLastError or the registry
//
// An answer becomes a status in one place, PassOn() of product/client.h. System errors never leave the library.
#pragma once

#include <tvsqdz.h>

using Status = int32_t;
