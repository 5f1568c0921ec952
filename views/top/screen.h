// The terminal, through ncurses, in characters that it has. State: the library's; one Screen at a time.
#pragma once

#include "product/meanings.h"

#include <optional>
#include <string>

namespace views {

// Why the terminal cannot show a live view; empty: it can.
std::string WhyNoScreen();

// How text looks. Without colours the severities are told apart by bold and reverse.
enum class Look { Plain, Faint, Bold, Chosen, Title, Warning, Error };
Look LookOf(product::Severity severity, bool stale);

class Screen {
public:
    Screen();  // takes the terminal
    ~Screen(); // gives it back
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    int Width() const;
    int Height() const;
    // Text at a place, cut and padded to that many columns. Characters that do nothing visible become '?'.
    void Put(int row, int column, int columns, const std::string& text, Look look, bool chosen = false);
    void Clear();
    void Show();

    // A key of ncurses, or a character; nothing when none was pressed.
    struct Key {
        int code = 0;       // KEY_* or 0
        wchar_t letter = 0; // or this
    };
    std::optional<Key> NextKey();

    // "████░░░░": a share of 0 to 100 of that many columns.
    std::string Bar(int percent, int columns) const;

private:
    bool m_unicode = false;
    bool m_colours = false;
};

// Text as it is put: without control characters, cut to columns. For the tests of wide characters too.
std::wstring Fitted(const std::string& utf8, int columns);
std::string ToUtf8(wchar_t letter);

} // namespace views
