// The terminal. State: ncurses'.
#include "top/screen.h"

#include <algorithm>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <langinfo.h>

#define NCURSES_NOMACROS
#define NCURSES_WIDECHAR 1
#include <curses.h>

namespace views {

namespace {

constexpr short kErrorPair = 1, kWarningPair = 2, kTitlePair = 3;

// Decodes one character; wrong bytes become U+FFFD.
wchar_t NextCharacter(const std::string& utf8, size_t& at) {
    const auto lead = static_cast<unsigned char>(utf8[at++]);
    if (lead < 0x80) return static_cast<wchar_t>(lead);
    const unsigned more = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : lead >= 0xc2 ? 1 : 0;
    uint32_t point = lead & (0x3fu >> more);
    if (more == 0 || lead > 0xf4) return 0xfffd;
    for (unsigned i = 0; i < more; ++i, ++at) {
        if (at >= utf8.size() || (static_cast<unsigned char>(utf8[at]) & 0xc0) != 0x80) return 0xfffd;
        point = point << 6 | (static_cast<unsigned char>(utf8[at]) & 0x3f);
    }
    return static_cast<wchar_t>(point);
}

// They reorder the text around them, or are not seen.
bool IsHidden(wchar_t letter) {
    return (letter >= 0x200b && letter <= 0x200f) || (letter >= 0x202a && letter <= 0x202e) ||
           (letter >= 0x2060 && letter <= 0x206f) || letter == 0xfeff || letter == 0xad;
}

attr_t AttributesOf(Look look, bool colours) {
    switch (look) {
    case Look::Plain:
        return A_NORMAL;
    case Look::Faint:
        return A_DIM;
    case Look::Bold:
        return A_BOLD;
    case Look::Chosen:
        return A_REVERSE;
    case Look::Title:
        return colours ? A_BOLD | COLOR_PAIR(kTitlePair) : A_REVERSE;
    case Look::Warning:
        return colours ? COLOR_PAIR(kWarningPair) : A_BOLD;
    case Look::Error:
        return colours ? A_BOLD | COLOR_PAIR(kErrorPair) : A_BOLD | A_UNDERLINE;
    }
    return A_NORMAL;
}

} // namespace

Look LookOf(product::Severity severity, bool stale) {
    if (severity == product::Severity::Error) return Look::Error;
    if (stale) return Look::Faint;
    return severity == product::Severity::Warning ? Look::Warning : Look::Plain;
}

std::wstring Fitted(const std::string& utf8, int columns) {
    std::wstring fitted;
    int used = 0;
    for (size_t at = 0; at < utf8.size();) {
        wchar_t letter = NextCharacter(utf8, at);
        if (IsHidden(letter)) continue;
        int width = iswprint(static_cast<wint_t>(letter)) ? wcwidth(letter) : -1;
        if (width < 0) {
            letter = L'?';
            width = 1;
        }
        if (used + width > columns) break;
        fitted += letter;
        used += width;
    }
    fitted.append(static_cast<size_t>(columns - used), L' ');
    return fitted;
}

std::string ToUtf8(wchar_t letter) {
    char bytes[MB_LEN_MAX];
    mbstate_t state{};
    const size_t size = wcrtomb(bytes, letter, &state);
    return size == static_cast<size_t>(-1) ? "" : std::string(bytes, size);
}

Screen::Screen() {
    std::setlocale(LC_CTYPE, "");
    m_unicode = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    initscr();
    // Any value but the empty one counts (no-color.org).
    const char* noColour = std::getenv("NO_COLOR");
    m_colours = (!noColour || !*noColour) && has_colors() && start_color() == OK;
    if (m_colours) {
        use_default_colors();
        init_pair(kErrorPair, COLOR_RED, -1);
        init_pair(kWarningPair, COLOR_YELLOW, -1);
        init_pair(kTitlePair, COLOR_CYAN, -1);
    }
    set_escdelay(50);
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    curs_set(0);
}

Screen::~Screen() {
    endwin();
}

int Screen::Width() const {
    return COLS;
}

int Screen::Height() const {
    return LINES;
}

void Screen::Put(int row, int column, int columns, const std::string& text, Look look, bool chosen) {
    columns = std::min(columns, COLS - column);
    if (row < 0 || row >= LINES || column < 0 || columns <= 0) return;
    const std::wstring fitted = Fitted(text, columns);
    attrset(static_cast<int>(AttributesOf(look, m_colours) | (chosen ? A_REVERSE : A_NORMAL)));
    mvaddnwstr(row, column, fitted.data(), static_cast<int>(fitted.size()));
    attrset(A_NORMAL);
}

void Screen::Clear() {
    erase();
}

void Screen::Show() {
    refresh();
}

std::optional<Screen::Key> Screen::NextKey() {
    wint_t given = 0;
    switch (get_wch(&given)) {
    case KEY_CODE_YES:
        return Key{.code = static_cast<int>(given)};
    case OK:
        return Key{.letter = static_cast<wchar_t>(given)};
    default:
        return std::nullopt;
    }
}

std::string Screen::Bar(int percent, int columns) const {
    const int full = (percent * columns + 50) / 100;
    std::string bar;
    for (int i = 0; i < columns; ++i)
        bar += m_unicode ? (i < full ? "█" : "░") : (i < full ? "#" : "-");
    return bar;
}

} // namespace views
