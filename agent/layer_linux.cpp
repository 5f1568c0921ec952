// The one file of the agent that uses headers of the platform layer which Windows does not have. No state.
#include "layer.h"

#include <oriel_desktop.h>

bool LeaveCreator() {
    return OrielLeaveCreator() != FALSE;
}

bool DesktopLives() {
    return OrielDesktopLives() != FALSE;
}
