// The desktop agent, as the library that starts it, the agent itself and those who ask it to end know it.
#pragma once

namespace product {

inline constexpr char kAgentExecutable[] = "TVORPZ.EXE";
inline constexpr char kAgentSwitch[] = "/S"; // its one argument
// Of its window, by which it is found.
inline constexpr char kAgentWindowClass[] = "TVORPSPWndClass";
inline constexpr unsigned kAgentEndMessage = 1030; // both parameters 0
// The one station that has a desktop.
inline constexpr char kInteractiveStation[] = "WinSta0";

} // namespace product
