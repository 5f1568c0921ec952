// Filling a printer's database when it is created, and taking the variables that depend on the port back to their
// initial values.
#pragma once

#include "manager/manager_record.h"

enum class Population {
    Done,
    NoMemory, // nothing was created
    NotReady  // the service did not take the database as ready
};

// Creates every variable of the manager's index with its initial value in printerDatabase, which the caller has just
// created, then the mailbox variables, and marks the database ready. Unless it is done, the caller closes the database,
// so that the service gives it up and the next opener creates it again.
//
// A variable that the service refuses is left out: the others are of use without it.
Population CreatePrinterVariables(ManagerRecord* manager);

// For the variables of the index that have SVF_RESET_ON_PORT_CHANGE: in the database and, where they are persistent, in
// the driver data.
void ResetPortDependentVariables(ManagerRecord* manager);
