// File names of the product's programs. They lie in the installation directory (kDirectoryValue). No state.
//
// The desktop agent has a header of its own: product/desktop_agent.h.
#pragma once

inline constexpr char kServiceProgram[] = "TVSDBN.EXE";     // the status database service
inline constexpr char kPrinterSideProgram[] = "TVSPSD.EXE"; // a printer side
