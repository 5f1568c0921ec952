// The order of variable names as a constant expression: that of lstrcmpA for names of ASCII letters and digits. With it
// the compiler checks the order of the built-in table, on which the look-up relies. No state.
#pragma once

constexpr char FoldedLetter(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool IsLowerCase(char c) {
    return c >= 'a' && c <= 'z';
}

// Negative, zero or positive. Digits come before letters. Letters compare without regard to case; on a tie, lower case
// comes before upper case.
constexpr int CompareNames(const char* a, const char* b) {
    int tie = 0;
    for (; FoldedLetter(*a) == FoldedLetter(*b); ++a, ++b) {
        if (*a == '\0') return tie;
        if (tie == 0 && *a != *b) tie = IsLowerCase(*a) ? -1 : 1;
    }
    return FoldedLetter(*a) < FoldedLetter(*b) ? -1 : 1;
}
