// Variables of a printer's database in which a process leaves work for the printer's owner, and the owner its results.
// They are not status variables: no catalogue has them. Every printer's database has them from the start. No state.
#pragma once

#include "product/interface.h"

#include <tvsqdz.h>

#include <stddef.h>
#include <stdint.h>

// Message registrations: a list of MessageRegistrationEntry (notify/relayed_registrations.h).
inline constexpr char kRelayedRegistrationsVariable[] = "NotifyMsg";
// One StatusRequest; all zero when there is none.
inline constexpr char kRelayedRequestVariable[] = "RequestMsg";
// The results of asynchronous writes: a list (requests/threads.cpp).
inline constexpr char kResultsVariable[] = "ReqResult";

// The record of one asynchronous request, as a process leaves it in kRelayedRequestVariable.
//
// 364 bytes, little-endian, stored: handles have 32 bits in it, and what only its own process could use is 0.

// Bits of requestFlags: one of each pair. None at all: there is no request.
inline constexpr uint32_t REQ_BY_EVENT = 0x00001;   // sets the event `target` when it is done
inline constexpr uint32_t REQ_BY_MESSAGE = 0x00002; // posts `message` to the window `target`
inline constexpr uint32_t REQ_READ = 0x10000;
inline constexpr uint32_t REQ_WRITE = 0x20000;

struct StatusRequest {
    uint32_t requestId;       // of a write: its number in "ReqResult"
    uint32_t handoffEvent;    // 0
    uint32_t requestMutex;    // 0
    uint32_t printerDatabase; // 0
    uint32_t requestFlags;
    uint32_t target;  // event or window
    uint32_t message; // the number to post
    char variableName[32];
    char databaseName[product::kDatabaseNameMax + 1];
    char printerName[TVS_PRINTER_NAME_MAX + 1];
    uint32_t refreshText; // 0
    uint32_t useForward;  // not 0: the service has it carried out
    uint32_t isRefresh;   // not 0: a write of "RefreshStatus"
};
static_assert(sizeof(StatusRequest) == 364 && offsetof(StatusRequest, requestId) == 0 &&
              offsetof(StatusRequest, handoffEvent) == 4 && offsetof(StatusRequest, requestMutex) == 8 &&
              offsetof(StatusRequest, printerDatabase) == 12 && offsetof(StatusRequest, requestFlags) == 16 &&
              offsetof(StatusRequest, target) == 20 && offsetof(StatusRequest, message) == 24 &&
              offsetof(StatusRequest, variableName) == 28 && offsetof(StatusRequest, databaseName) == 60 &&
              offsetof(StatusRequest, printerName) == 92 && offsetof(StatusRequest, refreshText) == 352 &&
              offsetof(StatusRequest, useForward) == 356 && offsetof(StatusRequest, isRefresh) == 360);
