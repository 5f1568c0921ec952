// What the folders above do when the process forks, and when a thread has been stopped: each declares its steps here
// and defines them where its state is.
//
// A fork child starts with no handle of the layer's, owns no mutex and keeps none of its parent's objects alive. It may
// use the layer afresh. This holds for fork(), whose hooks take these steps; a bare clone system call takes none, and
// its child may only exec or exit.
#pragma once

#include <windef.h>

namespace oriel {

struct ForkSteps {
    void (*before)(); // makes what it guards whole and keeps it so: takes the locks
    void (*inParent)();
    void (*inChild)(); // alone, with the locks of `before` held; closes what is not the child's, allocates nothing
};

// In the order of the locks.
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

// Installs the hooks, once. Whatever makes the first thing that a child must not inherit calls it.
void WatchForFork();

// For a thread that TerminateThread has stopped for good, on the thread that stopped it: gives up what the stopped one
// would have given up at its end.
using StoppedThreadStep = void(DWORD threadId);
extern StoppedThreadStep DropWindowsOfStoppedThread;

void RunStoppedThreadSteps(DWORD threadId);

} // namespace oriel
