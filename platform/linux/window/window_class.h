// The window classes of this process.
#pragma once

#include <winuser.h>

#include <string>
#include <utility>

namespace oriel {

struct WindowClass {
    std::string name;
    HINSTANCE instance;
    WNDPROC procedure;
    ATOM number;
    unsigned windows; // existing ones; a class with windows cannot be unregistered
};

// A window's reference to its class. Null, with ERROR_CANNOT_FIND_WND_CLASS, when there is no such class.
class ClassUse {
public:
    ClassUse(LPCSTR name, HINSTANCE instance);
    ClassUse(ClassUse&& other) noexcept : m_class(std::exchange(other.m_class, nullptr)) {}
    ClassUse& operator=(ClassUse&&) = delete;
    ~ClassUse() { Release(); }
    void Release();
    const WindowClass* Get() const { return m_class; }

private:
    WindowClass* m_class = nullptr;
};

// Compares names of classes and titles without case, by the ANSI code page.
bool EqualWithoutCase(const char* left, const char* right);

} // namespace oriel
