// Processes do not fork. No state.
#include "machine/fork.h"

void FollowForks(void (*)()) {}

void UnfollowForks() {}
