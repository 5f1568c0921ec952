// What a variable is to the service beside a value, known by its name, and who may write it.
#pragma once

#include <windows.h>

#include <string_view>

enum class VariableRole : BYTE {
    None,        // anybody writes it
    Mailbox,     // forwarded requests: the service alone
    Answer,      // to them: administrators, whom printer sides are among
    Setting,     // administrators
    AccessList,  // administrators; kept for the printer's next database
    PrinterName, // administrators, and anybody who writes what the printer list says
    PrinterList, // administrators; anybody adds a printer, and takes or gives up the ownership for his own process
    Request,     // anybody; answered when no printer side serves the printer any more
    Termination  // anybody; an administrator's ends the printer sides too
};

// A companion of a variable that is not everybody's is a Setting.
VariableRole RoleOf(std::string_view database, std::string_view variable);
VariableRole RoleOfCompanion(VariableRole role);
