// Steps of libraries in a fork child. State: the list of them.
#include "base/lock.h"
#include "base/steps.h"

#include <oriel_fork.h>

namespace oriel {
namespace {

constinit Lock g_stepsLock;
constinit ORIEL_FORK_STEP* g_steps ORIEL_LOCK_CHECK(guarded_by(g_stepsLock)) = nullptr;

void RunSteps() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_stepsLock.ForgetOwner();
    ORIEL_FORK_STEP* step = g_steps;
    g_steps = nullptr;
    while (step != nullptr) {
        ORIEL_FORK_STEP* const next = step->next; // the step may be set again
        step->inChild();
        step = next;
    }
}

void Take(ORIEL_FORK_STEP* step) ORIEL_LOCK_CHECK(requires_capability(g_stepsLock)) {
    ORIEL_FORK_STEP** place = &g_steps;
    while (*place != nullptr && *place != step)
        place = &(*place)->next;
    if (*place != nullptr) *place = step->next;
}

} // namespace

const ForkSteps kLibrariesFork{TakeForFork<g_stepsLock>, ReleaseAfterFork<g_stepsLock>, RunSteps};

} // namespace oriel

using namespace oriel;

void WINAPI OrielSetForkStep(ORIEL_FORK_STEP* step) {
    WatchForFork();
    const LockHold hold(g_stepsLock);
    Take(step);
    step->next = g_steps;
    g_steps = step;
}

void WINAPI OrielTakeForkStep(ORIEL_FORK_STEP* step) {
    const LockHold hold(g_stepsLock);
    Take(step);
}
