/* The base services, gathered from the headers of their API sets. */
#ifndef ORIEL_WINBASE_H
#define ORIEL_WINBASE_H

/* clang-format off */
#include <minwinbase.h>
#include <errhandlingapi.h>
#include <handleapi.h>
#include <synchapi.h>
#include <processthreadsapi.h>
#include <consoleapi.h>
#include <stdhandleapi.h>
#include <heapapi.h>
#include <memoryapi.h>
#include <fileapi.h>
#include <libloaderapi.h>
#include <sysinfoapi.h>
#include <securitybaseapi.h>
/* clang-format on */

#endif
