// A fork child, which has none of what its parent opened: its handles are unknown in the child, which opens managers
// afresh. A file for each system. State: the step that the layer knows.
#pragma once

// Until UnfollowForks, each child of a fork calls the function, before anything else of the library runs there. It
// allocates nothing and waits for nobody.
void FollowForks(void (*inChild)());
void UnfollowForks();
