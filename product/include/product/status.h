// The status of an export, one of three number spaces that are kept apart:
//
//   Status       what an export returns: TVS_OK and the negative codes that tvsqdz.h names, or a code passed on
//   Answer       what a call of the status database service gives (product/client.h)
//   DWORD error  a system error, as GetLastError and the registry give it
//
// An answer becomes a status in one place, PassOn() of product/client.h. System errors never leave the library.
#pragma once

#include <tvsqdz.h>

using Status = int32_t;
