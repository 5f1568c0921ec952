// No state.
#include "text.h"

#include <vector>

namespace {

std::string Convert(const std::string& text, UINT from, DWORD flags, UINT to) {
    const int size = static_cast<int>(text.size());
    std::vector<WCHAR> wide(text.size());
    const int length = size == 0 ? 0 : MultiByteToWideChar(from, flags, text.data(), size, wide.data(), size);
    if (length <= 0) return text;
    std::string converted(4 * text.size(), '\0');
    const int room = static_cast<int>(converted.size());
    converted.resize(
        static_cast<SIZE_T>(WideCharToMultiByte(to, 0, wide.data(), length, converted.data(), room, nullptr, nullptr)));
    return converted;
}

} // namespace

std::string ToAnsi(const std::string& utf8) {
    return Convert(utf8, CP_UTF8, MB_ERR_INVALID_CHARS, CP_ACP);
}

std::string ToUtf8(const std::string& ansi) {
    return Convert(ansi, CP_ACP, 0, CP_UTF8);
}

std::string CutAnsi(const std::string& ansi, SIZE_T most) {
    SIZE_T length = 0;
    while (length < ansi.size()) {
        const SIZE_T character = IsDBCSLeadByte(static_cast<BYTE>(ansi[length])) ? 2 : 1;
        if (length + character > most || length + character > ansi.size()) break;
        length += character;
    }
    return ansi.substr(0, length);
}
