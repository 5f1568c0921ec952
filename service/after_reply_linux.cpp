// Our run-time can. No state.
#include "after_reply.h"

#include <windows.h>

#include <oriel_reply.h>

void RunAfterReply(void (*step)()) {
    if (!OrielAfterReply(step)) step();
}
