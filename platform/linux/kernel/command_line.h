// Windows command lines, as the Microsoft C run-time divides them ("Parsing C command-line arguments").
#pragma once

#include <string>
#include <vector>

namespace oriel {

// The first word ends at the next double quote if it begins with one, else at a space or tab; backslashes in it mean
// nothing. In the others a double quote begins and ends a part in which spaces and tabs do not divide; 2n backslashes
// before a quote are n backslashes, 2n + 1 are n backslashes and a quote that is text; two quotes within such a part
// are one.
std::vector<std::string> DivideCommandLine(const char* commandLine);

} // namespace oriel
