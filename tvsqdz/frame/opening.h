// Opening a manager, for the ANSI and the wide exports.
#pragma once

#include "frame/manager_record.h"
#include "frame/status.h"

// The names that an open works with, copied in from the caller and bounded. A status other than TVS_OK says why there
// is no name; the open reports it where it needs the name.
struct OpenNames {
    Status printerStatus = TVS_OK;
    char printer[kPrinterNameSize] = {};
    Status userStatus = TVS_OK;
    char user[kUserNameSize] = {}; // empty: the logon name of the caller
};

// The steps of an open from the installation test to the stored handle. handleOutput is the caller's.
Status OpenManager(const OpenNames& names, uint32_t clientKind, TvsManager* handleOutput);
