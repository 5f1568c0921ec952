// What the folders do when the process forks, when a thread has been stopped, and when it rests. A folder declares its
// steps here and defines them next to its state.
//
// A fork child starts with no handles of the layer, owns no mutex and keeps none of its parent's objects alive. It may
// use the layer afresh. This holds for fork(), whose hooks run these steps. A bare clone system call runs none; its
// child may only exec or exit.
//
// State: steps.cpp.
#pragma once

#include <windef.h>

namespace oriel {

// before and inParent may be null together.
struct ForkSteps {
    void (*before)();   // takes the locks, so that the state is whole in the child
    void (*inParent)(); // releases them
    // The child has one thread, and still the locks. Closes what is the parent's, frees the locks, allocates nothing.
    void (*inChild)();
};

// In lock order.
extern const ForkSteps kServiceFork;
extern const ForkSteps kStoresFork;
extern const ForkSteps kEventDescriptorsFork;
extern const ForkSteps kWindowClassesFork;
extern const ForkSteps kWindowQueuesFork;
extern const ForkSteps kRpcClientFork;
extern const ForkSteps kRpcServerFork;
extern const ForkSteps kRpcInterfacesFork;
extern const ForkSteps kRpcGroupsFork;
extern const ForkSteps kNamesFork;
extern const ForkSteps kViewsFork;
extern const ForkSteps kReaperFork;
extern const ForkSteps kConsoleFork;
extern const ForkSteps kImpersonationFork;
extern const ForkSteps kHandlesFork;
extern const ForkSteps kThreadFork;
extern const ForkSteps kLibrariesFork; // the last: its steps may use the layer

// Installs the hooks; later calls do nothing. Call it before the first change of state that a child must not inherit.
void WatchForFork();

// Runs on the thread that called TerminateThread, after the other has stopped for good: releases what the stopped
// thread would have released at its end.
using StoppedThreadStep = void(DWORD threadId);
extern StoppedThreadStep DropWindowsOfStoppedThread;

void RunStoppedThreadSteps(DWORD threadId);

// Runs on a thread that may sleep for long: gives back what it can have again.
using RestingThreadStep = void();
extern RestingThreadStep GiveUpOwnConnections;

void RunRestingThreadSteps();

} // namespace oriel
