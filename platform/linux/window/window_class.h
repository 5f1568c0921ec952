// The window classes of this process.
#pragma once

#include <string>
#include <winuser.h>

namespace oriel {

struct WindowClass {
    std::string name;
    HINSTANCE instance;
    WNDPROC procedure;
};

// A class lives as long as the process. Null, with ERROR_CANNOT_FIND_WND_CLASS, when there is no such class.
const WindowClass* FindWindowClass(LPCSTR name, HINSTANCE instance);

// Compares names of classes and titles without case, by the ANSI code page.
bool EqualWithoutCase(const char* left, const char* right);

} // namespace oriel
