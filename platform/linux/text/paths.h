// File names between the two worlds: ANSI code page and backslashes above, UTF-8 and slashes below.
#pragma once

#include <string>

namespace oriel {

// A file name of the platform's user as this system's. A drive prefix "X:" is dropped, for there is one tree; the trail
// byte of a double-byte character is never taken for a backslash. Empty for NULL, an empty name, and text that is not
// valid in the ANSI code page.
std::string UnixPath(const char* ansiPath);

// The inverse, without a drive prefix. Characters that the ANSI code page does not have make it empty, rather than a
// name that would mean another file.
std::string WindowsPath(const std::string& unixPath);

} // namespace oriel
