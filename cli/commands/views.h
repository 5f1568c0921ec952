// Programs that show the printers (the package oriel-views): `oriel NAME` is the program oriel-NAME beside this one. No
// state.
#pragma once

#include "base/failure.h"

#include <span>
#include <string>
#include <vector>

struct View {
    const char* name;
    const char* purpose;
};
std::span<const View> Views();
// Null: no view has that name.
const View* FindView(const std::string& name);
bool IsInstalled(const View& view);
Failure NotInstalled(const View& view);

// Its program, as `oriel up` starts it.
std::string ProgramOf(const View& view);
// Replaces this process by it. Throws Failure; returns never.
[[noreturn]] void BecomeView(const View& view, const std::vector<std::string>& arguments);
