// What a call leaves to be done when its client has the reply already. No state.
#pragma once

// Runs the step after the reply of the call in progress; at once where the run-time cannot, and outside of a call.
void RunAfterReply(void (*step)());
