// RegisterClassExA. State: the list of classes, which lives as long as the process.
#include "window/window_class.h"

#include "base/call.h"
#include "base/lock.h"
#include "base/steps.h"

#include <algorithm>
#include <cstring>
#include <errhandlingapi.h>
#include <list>
#include <winnls.h>

namespace oriel {
namespace {

// Atoms: 0xc000 to 0xffff.
constexpr size_t kFirstClassNumber = 0xc000;
constexpr size_t kMostClasses = 0x4000;

// Never destroyed: threads may own windows while the process exits.
struct ClassTable {
    Lock lock;
    std::list<WindowClass> classes ORIEL_LOCK_CHECK(guarded_by(lock));
};

ClassTable& Classes() {
    static ClassTable& table = *new ClassTable;
    return table;
}

std::list<WindowClass>::iterator FindClass(ClassTable& table, LPCSTR name, HINSTANCE instance)
    ORIEL_LOCK_CHECK(requires_capability(table.lock)) {
    auto found = table.classes.begin();
    while (found != table.classes.end() &&
           !(found->instance == instance && EqualWithoutCase(found->name.c_str(), name)))
        ++found;
    return found;
}

// Names only: an atom is a pointer below 64 KiB.
bool IsClassName(LPCSTR name) {
    if (reinterpret_cast<ULONG_PTR>(name) < 0x10000 || name[0] == '\0') return false;
    return strnlen(name, ORIEL_MAX_CLASS_NAME + 1) <= ORIEL_MAX_CLASS_NAME;
}

} // namespace

// Not taken before a fork: under it the code page is determined, possibly from the registry, whose locks have their own
// order.
constinit const ForkSteps kWindowClassesFork{nullptr, nullptr, [] { Classes().lock.ForgetOwner(); }};

bool EqualWithoutCase(const char* left, const char* right) {
    return std::strcmp(left, right) == 0 || lstrcmpiA(left, right) == 0;
}

const WindowClass* FindWindowClass(LPCSTR name, HINSTANCE instance) {
    if (IsClassName(name)) {
        ClassTable& table = Classes();
        const LockHold hold(table.lock);
        const auto found = FindClass(table, name, instance);
        if (found != table.classes.end()) return &*found;
    }
    return Fail(ERROR_CANNOT_FIND_WND_CLASS, nullptr);
}

} // namespace oriel

using namespace oriel;

ATOM WINAPI RegisterClassExA(const WNDCLASSEXA* windowClass) {
    return Call<ATOM>(0, [=]() -> ATOM {
        const WNDCLASSEXA* c = windowClass;
        if (c == nullptr || c->cbSize != sizeof *c || c->lpfnWndProc == nullptr || !IsClassName(c->lpszClassName) ||
            c->style != 0 || c->cbClsExtra != 0 || c->cbWndExtra != 0 || c->hIcon != nullptr || c->hCursor != nullptr ||
            c->hbrBackground != nullptr || c->lpszMenuName != nullptr || c->hIconSm != nullptr)
            return Fail<ATOM>(ERROR_INVALID_PARAMETER);
        WatchForFork();
        ClassTable& table = Classes();
        const LockHold hold(table.lock);
        if (FindClass(table, c->lpszClassName, c->hInstance) != table.classes.end())
            return Fail<ATOM>(ERROR_CLASS_ALREADY_EXISTS);
        if (table.classes.size() == kMostClasses) return Fail<ATOM>(ERROR_NOT_ENOUGH_MEMORY);
        table.classes.push_back({c->lpszClassName, c->hInstance, c->lpfnWndProc});
        return static_cast<ATOM>(kFirstClassNumber + table.classes.size() - 1);
    });
}
