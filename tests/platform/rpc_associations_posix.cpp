#include "rpc_kit.h"

void NeedsAssociations() {}
