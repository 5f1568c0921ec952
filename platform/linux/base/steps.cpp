// The lists of steps, in the order in which they run. State: whether the fork hooks are installed.
#include "base/steps.h"

#include <pthread.h>

namespace oriel {
namespace {

// In the order in which these locks are taken everywhere else: any other order could deadlock.
constexpr const ForkSteps* kForkSteps[] = {
    &kServiceFork,   &kStoresFork,    &kEventDescriptorsFork, &kWindowClassesFork, &kWindowQueuesFork,
    &kRpcClientFork, &kRpcServerFork, &kRpcInterfacesFork,    &kRpcGroupsFork,     &kNamesFork,
    &kViewsFork,     &kReaperFork,    &kConsoleFork,          &kImpersonationFork, &kHandlesFork,
    &kThreadFork,    &kLibrariesFork};

constexpr StoppedThreadStep* kStoppedThreadSteps[] = {&DropWindowsOfStoppedThread};
constexpr RestingThreadStep* kRestingThreadSteps[] = {&GiveUpOwnConnections};

void Before() {
    for (const ForkSteps* steps : kForkSteps)
        if (steps->before != nullptr) steps->before();
}

void InParent() {
    for (const ForkSteps* steps : kForkSteps)
        if (steps->inParent != nullptr) steps->inParent();
}

void InChild() {
    for (const ForkSteps* steps : kForkSteps)
        steps->inChild();
}

} // namespace

void WatchForFork() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_atfork(Before, InParent, InChild); });
}

void RunStoppedThreadSteps(DWORD threadId) {
    for (StoppedThreadStep* step : kStoppedThreadSteps)
        step(threadId);
}

void RunRestingThreadSteps() {
    for (RestingThreadStep* step : kRestingThreadSteps)
        step();
}

} // namespace oriel
