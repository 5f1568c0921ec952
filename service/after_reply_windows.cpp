// The system's run-time has no such step. No state.
#include "after_reply.h"

void RunAfterReply(void (*step)()) {
    step();
}
