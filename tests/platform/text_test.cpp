// Code pages, conversion and the order of text.
#include "kit.h"
#include "private_machine.h"
#include "wide_literal.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
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

TEST(Conversion, EveryCutOfDoubleByteText) {
    const string text = "a\x93\xFA\x96{\x8C\xEA\xB6\x95\\z";
    const WideString wide = WIDE("a\u65E5\u672C\u8A9E\uFF76\u8868z");
    const string halves = "--1-1-1--1-"; // where the second byte of a character is
    for (size_t cut = 1; cut <= text.size(); ++cut) {
        const bool inHalf = cut < text.size() && halves[cut] == '1';
        const auto trails = std::count(halves.begin(), halves.begin() + static_cast<ptrdiff_t>(cut), '1');
        WideString expected = wide.substr(0, cut - static_cast<size_t>(trails));
        if (inHalf) expected.back() = u'\u30FB';
        EXPECT_EQ(Decode(932, text.substr(0, cut)), expected) << cut;
        EXPECT_EQ(Decode(932, text.substr(0, cut), MB_ERR_INVALID_CHARS), inHalf ? WideString() : expected) << cut;
        // The same with a NUL in place of the trail byte: it stays the end of the text.
        EXPECT_EQ(Decode(932, text.substr(0, cut) + '\0'), expected + WCHAR{}) << cut;
    }
}

TEST(Conversion, WhatIsNotThereIsReplacedOrReported) {
    BOOL used = FALSE;
    EXPECT_EQ(Encode(1252, WIDE("a\u65E5b"), nullptr, &used), "a?b");
    EXPECT_TRUE(used);
    EXPECT_EQ(Encode(1252, WIDE("a\u65E5b"), "_"), "a_b");
    EXPECT_EQ(Encode(1252, WIDE("ab"), nullptr, &used), "ab");
    EXPECT_FALSE(used);
    EXPECT_EQ(WideCharToMultiByte(1252, WC_DEFAULTCHAR, WIDE("\u65E5"), 1, nullptr, 0, nullptr, &used), 1);
    EXPECT_TRUE(used);
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

bool SortsBefore(const string& a, const string& b) {
    return lstrcmpA(a.c_str(), b.c_str()) < 0;
}

// Order of all of them, as their places in the sorted list say it.
string CheckTotalOrder(std::vector<string> texts) {
    std::sort(texts.begin(), texts.end(), SortsBefore);
    texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
    for (size_t i = 0; i < texts.size(); ++i)
        for (size_t k = 0; k < texts.size(); ++k) {
            const int expected = i < k ? -1 : i > k ? 1 : 0;
            const int result = lstrcmpA(texts[i].c_str(), texts[k].c_str());
            if ((result > 0) - (result < 0) != expected) return "'" + texts[i] + "' and '" + texts[k] + "'";
        }
    return "in order";
}

std::vector<string> RandomTexts(unsigned seed) {
    // Few letters, so that many differ in one respect only; and all that is treated in a way of its own.
    static constexpr char kLetters[] = "aAbB1_-' \xE4\xC4\x81\x95\\\xFA";
    std::mt19937 random(seed);
    std::vector<string> texts;
    for (int i = 0; i < 500; ++i) {
        string text;
        for (unsigned length = random() % 6; length > 0; --length)
            text += kLetters[random() % (sizeof kLetters - 1)];
        texts.push_back(text);
    }
    return texts;
}

} // namespace

TEST(Order, IsThatOfWords) {
    std::vector<string> ordered;
    std::istringstream lines(kOrdered);
    for (string line; std::getline(lines, line);)
        ordered.push_back(line);
    std::vector<string> shuffled = ordered;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(1));
    std::sort(shuffled.begin(), shuffled.end(), SortsBefore);
    EXPECT_EQ(shuffled, ordered);
}

TEST(Order, IsTotalAndOnlyIdenticalTextIsEqual) {
    const unsigned seed = std::random_device()();
    EXPECT_EQ(CheckTotalOrder(RandomTexts(seed)), "in order") << "seed " << seed;
}

TEST(Order, WithoutCase) {
    const std::tuple<const char*, const char*, int> rows[] = {{"SYSTEM", "system", 0},     {"WinSta0", "WinSta1", -1},
                                                              {"\xC4rger", "\xE4rger", 0}, {"co-op", "CO-OP", 0},
                                                              {"co-op", "COOP", 1},        {"\xC4", "A", 1}};
    for (const auto& [a, b, result] : rows) {
        EXPECT_EQ(lstrcmpiA(a, b), result) << a << " " << b;
        EXPECT_EQ(lstrcmpiA(b, a), -result) << a << " " << b;
    }
}
