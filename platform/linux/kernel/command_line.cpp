#include "kernel/command_line.h"

namespace oriel {

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string FirstWord(const char*& next) {
    std::string word;
    if (*next == '"') {
        ++next;
        while (*next != '\0' && *next != '"')
            word += *next++;
        if (*next == '"') ++next;
        return word;
    }
    while (*next != '\0' && !IsBlank(*next))
        word += *next++;
    return word;
}

std::string Argument(const char*& next) {
    std::string word;
    bool quoted = false;
    while (*next != '\0' && (quoted || !IsBlank(*next))) {
        size_t backslashes = 0;
        for (; *next == '\\'; ++next)
            ++backslashes;
        if (*next != '"') {
            word.append(backslashes, '\\');
            if (backslashes == 0) word += *next++;
            continue;
        }
        word.append(backslashes / 2, '\\');
        if (backslashes % 2 != 0 || (quoted && next[1] == '"')) {
            word += '"';
            if (backslashes % 2 == 0) ++next;
        } else {
            quoted = !quoted;
        }
        ++next;
    }
    return word;
}

} // namespace

std::vector<std::string> DivideCommandLine(const char* commandLine) {
    const char* next = commandLine;
    while (IsBlank(*next))
        ++next;
    std::vector<std::string> words{FirstWord(next)};
    for (;;) {
        while (IsBlank(*next))
            ++next;
        if (*next == '\0') return words;
        words.push_back(Argument(next));
    }
}

} // namespace oriel
