// Opening a manager.
#pragma once

#include "manager/manager_record.h"
#include "product/status.h"

// The names of an open, copied from the caller and bounded. A status other than TVS_OK says why there is no name; the
// open reports it where it needs the name.
struct OpenNames {
    Status printerStatus = TVS_OK;
    char printer[kPrinterNameSize] = {};
    Status userStatus = TVS_OK;
    char user[kUserNameSize] = {}; // empty: the logon name of the caller
};

// Steps that an open and a reopening share. The caller holds the database mutex.

// Creates the database databaseName with the initial value of every variable, or opens it: printerDatabase. TVS_OK,
// TVS_E_UNAVAILABLE or TVS_E_MEMORY; a database that was opened stays in the record on failure.
Status ObtainPrinterDatabase(ManagerRecord* manager);
// For the client kind that asks for compulsive polling: writes the request for the printer side.
void AskForPolling(ManagerRecord* manager);

// All steps of an open, from the installation check to the stored handle. handleOutput is caller memory.
Status OpenManager(const OpenNames& names, uint32_t clientKind, TvsManager* handleOutput);
