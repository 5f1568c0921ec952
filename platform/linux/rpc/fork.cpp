// The run-time's fork steps. No state.
#include "rpc/fork.h"

namespace oriel {

namespace {

void Hold(bool hold) {
    rpc::HoldAssociations(hold);
    rpc::HoldServer(hold);
    rpc::HoldInterfaces(hold);
    rpc::HoldGroups(hold);
}

} // namespace

const ForkSteps kRpcFork{
    .before = [] { Hold(true); },
    .inParent = [] { Hold(false); },
    .inChild =
        [] {
            rpc::LeaveAssociationsToParent();
            rpc::LeaveServerToParent();
            rpc::ForgetInterfaceCalls();
            rpc::LeaveGroupsToParent();
        },
};

} // namespace oriel
