// Whether the terminal can show a screen. It stands apart because <term.h> has macros with everyday names. No state.
#include "top/screen.h"

#include <unistd.h>

#include <curses.h>
#include <term.h>

namespace views {

std::string WhyNoScreen() {
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)) return "this is not a terminal";
    int error = 0;
    if (setupterm(nullptr, STDOUT_FILENO, &error) != OK) return "the type of the terminal (TERM) is not known";
    const char* move = tigetstr(const_cast<char*>("cup"));
    return move != nullptr && move != reinterpret_cast<char*>(-1) ? "" : "this terminal cannot move its cursor";
}

} // namespace views
