/* What a library of this layer does when its process forks, which no process of Windows does. This layer's own. */
#ifndef ORIEL_FORK_H
#define ORIEL_FORK_H

#include <windef.h>

WINBASE_BEGIN

/* In the caller's memory, which stays as long as the step is set. next is the layer's. */
typedef struct _ORIEL_FORK_STEP {
    void(WINAPI* inChild)(void);
    struct _ORIEL_FORK_STEP* next;
} ORIEL_FORK_STEP;

/* Sets a step: each child of a fork() calls inChild, on its one thread, once it may use the layer afresh (it has none
 * of its parent's handles, and its views are readable). The parent's other threads stopped anywhere: inChild allocates
 * nothing and waits for no lock. No step is set in the child: it sets one when it has something to lose. */
WINBASEAPI void WINAPI OrielSetForkStep(ORIEL_FORK_STEP* step);
/* Takes it back, if it is set. */
WINBASEAPI void WINAPI OrielTakeForkStep(ORIEL_FORK_STEP* step);

WINBASE_END

#endif
