// Wide text in the type that WCHAR is: char16_t here, wchar_t on Windows.
#pragma once

#include <windows.h>

#include <string>
#include <type_traits>

using WideString = std::basic_string<WCHAR>;

template <typename Character>
constexpr const Character* LiteralOf(const char16_t* utf16, const wchar_t* wide) {
    if constexpr (std::is_same_v<Character, char16_t>)
        return utf16;
    else
        return wide;
}
#define WIDE(literal) LiteralOf<WCHAR>(u##literal, L##literal)
