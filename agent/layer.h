// What differs between systems for an agent that outlives its creator; a file for each. No state.
#pragma once

// Releases everything that belongs to the process that created this one. Called before threads are started. False when
// that fails.
bool LeaveCreator();

// Whether there is a desktop, and its user is still there.
bool DesktopLives();
