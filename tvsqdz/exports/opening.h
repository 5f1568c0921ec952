// Opening a manager, for the ANSI and the wide exports.
#pragma once

#include "manager/manager_record.h"
#include "product/status.h"

// The names that an open works with, copied in from the caller and bounded. A status other than TVS_OK says why there
// is no name; the open reports it where it needs the name.
struct OpenNames {
    Status printerStatus = TVS_OK;
    char printer[kPrinterNameSize] = {};
    Status userStatus = TVS_OK;
    char user[kUserNameSize] = {}; // empty: the logon name of the caller
};

// Steps that an open and a reopening have in common. The database mutex is held.

// Creates the database that databaseName names, with the initial value of every variable, or opens it: printerDatabase.
// TVS_OK, TVS_E_UNAVAILABLE or TVS_E_MEMORY; a database that was opened stays the record's even then.
Status ObtainPrinterDatabase(ManagerRecord* manager);
// Writes what a manager of the client kind that asks for compulsive polling leaves for the printer side.
void AskForPolling(ManagerRecord* manager);

// The steps of an open from the installation test to the stored handle. handleOutput is the caller's.
Status OpenManager(const OpenNames& names, uint32_t clientKind, TvsManager* handleOutput);
