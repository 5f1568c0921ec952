// What a fork child must not have of the run-time: its parent's connections, clients and endpoints (base/steps.h has
// the rule).
#pragma once

#include "base/steps.h"

namespace oriel::rpc {

// Holds each part's lock over the fork, or lets go of it.
void HoldAssociations(bool hold);
void HoldServer(bool hold);
void HoldInterfaces(bool hold);
void HoldGroups(bool hold);

// In the child.
void LeaveAssociationsToParent();
void LeaveServerToParent();
void ForgetInterfaceCalls();
void LeaveGroupsToParent();

} // namespace oriel::rpc
