// The desktop agent: its names, and the message that ends it. The library starts it. No state.
#pragma once

namespace product {

inline constexpr char kAgentExecutable[] = "TVORPZ.EXE";
inline constexpr char kAgentSwitch[] = "/S"; // its one argument
// The class of its window, by which others find it.
inline constexpr char kAgentWindowClass[] = "TVORPSPWndClass";
inline constexpr unsigned kAgentEndMessage = 1030; // both parameters 0
// The one window station that has a desktop.
inline constexpr char kInteractiveStation[] = "WinSta0";

} // namespace product
