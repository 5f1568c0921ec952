// Code pages, conversion and the order of text.
#include "kit.h"
#include "private_machine.h"
#include "wide_literal.h"

#include <cstring>
#include <fstream>
#include <sstream>
#include <tuple>

namespace {

using std::string;

WideString Decode(UINT codePage, const string& text, DWORD flags = 0) {
    WCHAR buffer[256];
    const int count =
        MultiByteToWideChar(codePage, flags, text.data(), static_cast<int>(text.size()), buffer, std::size(buffer));
    return {buffer, static_cast<size_t>(count)};
}

string Encode(UINT codePage, const WideString& text, const char* defaultChar = nullptr, LPBOOL used = nullptr) {
    char buffer[256];
    const int count = WideCharToMultiByte(codePage, 0, text.data(), static_cast<int>(text.size()), buffer,
                                          std::size(buffer), defaultChar, used);
    return {buffer, static_cast<size_t>(count)};
}

// A text in both forms, and back.
struct Pair {
    UINT codePage;
    string text;
    WideString wide;
};
const Pair kPairs[] = {
    {1252, "\x80 42,50 \xE4\xF6\xFC\xDF \x99\x81", WIDE("\u20AC 42,50 \u00E4\u00F6\u00FC\u00DF \u2122\u0081")},
    {932, "\x93\xFA\x96{\x8C\xEA \xB6\xC5 \x95\\\\", WIDE("\u65E5\u672C\u8A9E \uFF76\uFF85 \u8868\\")},
    // The usual ones of characters with two codes.
    {932, "\x81\xE0\x87T\x81\xCA\xFA\\", WIDE("\u2252\u2160\uFFE2\u7E8A")},
    {CP_UTF8, "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x96\xA8", WIDE("a\u00E9\u20AC\U0001F5A8")},
};

} // namespace

TEST(Conversion, BothWaysIntoEveryRoom) {
    for (const Pair& pair : kPairs) {
        EXPECT_EQ(Decode(pair.codePage, pair.text), pair.wide) << pair.codePage;
        EXPECT_EQ(Decode(pair.codePage, pair.text, MB_ERR_INVALID_CHARS), pair.wide) << pair.codePage;
        EXPECT_EQ(Encode(pair.codePage, pair.wide), pair.text) << pair.codePage;
        const int textSize = static_cast<int>(pair.text.size());
        const int wideSize = static_cast<int>(pair.wide.size());
        EXPECT_EQ(MultiByteToWideChar(pair.codePage, 0, pair.text.c_str(), -1, nullptr, 0), wideSize + 1);
        EXPECT_EQ(WideCharToMultiByte(pair.codePage, 0, pair.wide.c_str(), -1, nullptr, 0, nullptr, nullptr),
                  textSize + 1);
        for (int room = 1; room <= textSize + 1; ++room) {
            // What lies behind the room is looked at by the sanitizers too.
            std::vector<char> text(static_cast<size_t>(room));
            std::vector<WCHAR> wide(static_cast<size_t>(room));
            SetLastError(kSentinel);
            EXPECT_EQ(MultiByteToWideChar(pair.codePage, 0, pair.text.data(), textSize, wide.data(), room),
                      room < wideSize ? 0 : wideSize);
            EXPECT_EQ(
                WideCharToMultiByte(pair.codePage, 0, pair.wide.data(), wideSize, text.data(), room, nullptr, nullptr),
                room < textSize ? 0 : textSize);
            EXPECT_EQ(GetLastError(), room < textSize ? DWORD{ERROR_INSUFFICIENT_BUFFER} : kSentinel);
        }
    }
}

TEST(Conversion, WhatIsNotThereIsReplacedOrReported) {
    BOOL used = FALSE;
    EXPECT_EQ(Encode(1252, WIDE("a\u65E5b"), nullptr, &used), "a?b");
    EXPECT_TRUE(used);
    EXPECT_EQ(Encode(1252, WIDE("a\u65E5b"), "_"), "a_b");
    EXPECT_EQ(Encode(1252, WIDE("ab"), nullptr, &used), "ab");
    EXPECT_FALSE(used);
    EXPECT_EQ(Encode(CP_UTF8, WideString(WIDE("a")) + WCHAR(0xD800) + WIDE("b")), "a\xEF\xBF\xBD\x62");

    EXPECT_FAILS(Decode(12345, "a").size(), ERROR_INVALID_PARAMETER);
    for (const auto& [bytes, wide] : {std::pair{"\xC0\x80", WIDE("\uFFFD\uFFFD")},
                                      {"\xE2\x82x", WIDE("\uFFFDx")},
                                      {"\xF8\x80\x80", WIDE("\uFFFD\uFFFD\uFFFD")}}) {
        const char* const text = bytes;
        EXPECT_EQ(Decode(CP_UTF8, text), wide) << text;
        EXPECT_FAILS(Decode(CP_UTF8, text, MB_ERR_INVALID_CHARS).size(), ERROR_NO_UNICODE_TRANSLATION);
    }
    if (!OnTheLayer()) return;
    // Beyond the last character; how many stand for it is nowhere said.
    const char beyond[] = "\xF4\x90\x80\x80";
    EXPECT_FAILS(Decode(CP_UTF8, beyond, MB_ERR_INVALID_CHARS).size(), ERROR_NO_UNICODE_TRANSLATION);
    // To Windows a similar character is as good.
    EXPECT_EQ(Encode(1252, WIDE("\u0100"), nullptr), "?");
    EXPECT_EQ(Encode(932, WIDE("a\u00E4b"), "\x81\x96"), "a\x81\x96\x62");
}

CHILD_PROCESS(TellsItsCodePage) {
    const HANDLE file =
        CreateFileA(child.arguments[0].c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    child.Say(std::to_string(GetACP()) + (IsDBCSLeadByte(0x95) ? " lead " : " single ") +
              (file != INVALID_HANDLE_VALUE ? "there" : "not there"));
    return 0;
}

// The trail byte of the first character of the file's name is a backslash.
TEST(AnsiCodePage, IsThatOfTheEnvironmentThenOfTheRegistryThen1252) {
    std::ofstream(PrivateDirectory() + "/\xE8\xA1\xA8.txt") << "x";
    // The code page in the registry and in the environment (null: not set), the file's name, what is said.
    const std::tuple<const char*, const char*, const char*, const char*> rows[] = {
        {nullptr, nullptr, "\\\x95\\.txt", "1252 single not there"},
        {nullptr, "932", "\\\x95\\.txt", "932 lead there"},
        {nullptr, "65001", "\\\xE8\xA1\xA8.txt", "65001 single there"},
        {"932", nullptr, "\\\x95\\.txt", "932 lead there"},
        {"932", "1252", "", "1252 single not there"},
        {"932", "nonsense", "", "932 lead not there"},
    };
    HKEY key = CreateKey(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Control\\Nls\\CodePage");
    for (const auto& [registry, setting, fileName, said] : rows) {
        if (registry) SetValue(key, "ACP", registry + string(1, '\0'), REG_SZ);
        Environment environment;
        if (setting) environment["ORIEL_ANSI_CODE_PAGE"] = setting;
        TestProcess child("TellsItsCodePage", {WindowsPath(PrivateDirectory()) + fileName}, environment);
        EXPECT_EQ(child.Hear(), said);
    }
}

namespace {

// Each line sorts before the next.
const char kOrdered[] =
    "\n \n!\n_\n~\n<\n0\n07\n7\n9a\na\nA\n\xE4\n\xC4\na1\nab\naB\nAB\n\xE4\x42\nabc\nac\ncoop\nco-op\ncoops\n"
    "O'Hara\nOhare\nRunningPSW\nRWResult\nSendingJobInfo\nServerOS\n\xFE\xFF\nZ\nz0";

} // namespace

TEST(Order, IsThatOfWords) {
    std::vector<string> ordered;
    std::istringstream lines(kOrdered);
    for (string line; std::getline(lines, line);)
        ordered.push_back(line);
    for (size_t i = 0; i < ordered.size(); ++i)
        for (size_t k = 0; k < ordered.size(); ++k) {
            const int result = lstrcmpA(ordered[i].c_str(), ordered[k].c_str());
            EXPECT_TRUE(i < k ? result < 0 : i > k ? result > 0 : result == 0) << ordered[i] << " " << ordered[k];
        }
    for (const auto& [a, b] : {std::pair{"SYSTEM", "system"}, {"\xC4rger", "\xE4rger"}, {"co-op", "CO-OP"}})
        EXPECT_EQ(lstrcmpiA(a, b), 0) << a;
    EXPECT_EQ(lstrcmpiA("co-op", "COOP"), 1);
}
