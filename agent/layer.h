// What an agent that outlives its creator has to do itself on one system and not on another; a file for each.
#pragma once

// Goes on without holding anything of the process that created this one. Called before threads are started. False when
// that cannot be done.
bool LeaveCreator();

// Whether there is a desktop, and its user is still there.
bool DesktopLives();
