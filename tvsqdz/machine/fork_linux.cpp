#include "machine/fork.h"

#include <windows.h>

#include <oriel_fork.h>

namespace {

void (*g_inChild)();

void WINAPI RunInChild() {
    g_inChild();
}

ORIEL_FORK_STEP g_step = {RunInChild, nullptr};

} // namespace

void FollowForks(void (*inChild)()) {
    g_inChild = inChild;
    OrielSetForkStep(&g_step);
}

void UnfollowForks() {
    OrielTakeForkStep(&g_step);
}
