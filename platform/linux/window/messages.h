// What posting and sending share.
#pragma once

#include "window/message_pipe.h"

namespace oriel {

// Whether the message may leave its thread and the handle may be a window's; else false with the last error set.
bool CheckMessage(HWND window, UINT message);
PipeMessage MakePipeMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

} // namespace oriel
