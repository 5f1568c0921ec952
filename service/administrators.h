// Who may do what an administrator does. The account that runs the service may, whoever the system counts among its
// administrators, and the members of one group: that which the value "AdministratorsGroup" of the product's key names,
// without it "lpadmin" and, where there is no such group, root's. No state.
#pragma once

#include "clients.h"

// A client counts as who its process was when it connected; the group is asked for anew each time.
bool IsAdministrator(const Caller& caller);
