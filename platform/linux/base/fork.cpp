// The fork hooks. State: whether they are installed.
#include "base/fork.h"

#include <pthread.h>

namespace oriel {

namespace {

constexpr const ForkSteps* kSteps[] = {
    &kServiceFork, &kStoresFork, &kEventDescriptorsFork, &kWindowClassesFork, &kWindowQueuesFork,  &kRpcFork,
    &kNamesFork,   &kViewsFork,  &kReaperFork,           &kConsoleFork,       &kImpersonationFork, &kHandlesFork,
    &kThreadFork};

void Before() {
    for (const ForkSteps* steps : kSteps)
        if (steps->before != nullptr) steps->before();
}

void InParent() {
    for (const ForkSteps* steps : kSteps)
        if (steps->inParent != nullptr) steps->inParent();
}

void InChild() {
    for (const ForkSteps* steps : kSteps)
        steps->inChild();
}

} // namespace

void WatchForFork() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_atfork(Before, InParent, InChild); });
}

} // namespace oriel
