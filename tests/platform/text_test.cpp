// Code pages, conversion and the order of text.
#include "private_machine.h"
#include "registry_kit.h"
#include "wide_literal.h"
#include "win32_kit.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
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
    {1252, "PrinterStatus", WIDE("PrinterStatus")},
    {1252, "\x80 42,50 \xE4\xF6\xFC\xDF \x99\x81\xFF",
     WIDE("\u20AC 42,50 \u00E4\u00F6\u00FC\u00DF \u2122\u0081\u00FF")},
    {437, "\xC9\xCD\xBB \x81", WIDE("\u2554\u2550\u2557 \u00FC")},
    {932, "\x93\xFA\x96{\x8C\xEA \xB6\xC5 \x95\\\\", WIDE("\u65E5\u672C\u8A9E \uFF76\uFF85 \u8868\\")},
    {932, "\x81\xE0\x87T\x81\xCA\xFA\\",
     WIDE("\u2252\u2160\uFFE2\u7E8A")}, // the usual ones of characters with two codes
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
    const size_t starts[] = {0, 1, 3, 5, 7, 8, 10};
    for (size_t cut = 1; cut <= text.size(); ++cut) {
        const auto whole = static_cast<size_t>(
            std::count_if(std::begin(starts), std::end(starts), [cut](size_t start) { return start < cut; }));
        const bool inHalf =
            cut != text.size() && std::find(std::begin(starts), std::end(starts), cut) == std::end(starts);
        WideString expected = wide.substr(0, whole);
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
    if (OnTheLayer()) { // to Windows a similar character is as good
        EXPECT_EQ(Encode(1252, WIDE("\u0100"), nullptr), "?");
        EXPECT_EQ(Encode(932, WIDE("a\u00E4b"), "\x81\x96"), "a\x81\x96\x62");
    }
    EXPECT_EQ(Encode(1252, WIDE("ab"), nullptr, &used), "ab");
    EXPECT_FALSE(used);
    EXPECT_EQ(WideCharToMultiByte(1252, WC_DEFAULTCHAR, WIDE("\u65E5"), 1, nullptr, 0, nullptr, &used), 1);
    EXPECT_TRUE(used);
    EXPECT_EQ(Encode(CP_UTF8, WideString(WIDE("a")) + WCHAR(0xD800) + WIDE("b")), "a\xEF\xBF\xBD\x62");

    if (OnTheLayer()) {
        EXPECT_FAILS(Decode(1252, "a", 0x2).size(), ERROR_INVALID_FLAGS);
    }
    EXPECT_FAILS(Decode(12345, "a").size(), ERROR_INVALID_PARAMETER);
    for (const auto& [bytes, wide] : {std::pair{"\xC0\x80", WIDE("\uFFFD\uFFFD")},
                                      {"\xE2\x82x", WIDE("\uFFFDx")},
                                      {"\xF8\x80\x80", WIDE("\uFFFD\uFFFD\uFFFD")}}) {
        EXPECT_EQ(Decode(CP_UTF8, bytes), wide) << bytes;
        EXPECT_FAILS(Decode(CP_UTF8, bytes, MB_ERR_INVALID_CHARS).size(), ERROR_NO_UNICODE_TRANSLATION);
    }
    // Beyond the last character.
    const char beyond[] = "\xF4\x90\x80\x80";
    EXPECT_FAILS(Decode(CP_UTF8, beyond, MB_ERR_INVALID_CHARS).size(), ERROR_NO_UNICODE_TRANSLATION);
    if (OnTheLayer()) { // how many stand for it is nowhere said
        EXPECT_EQ(Decode(CP_UTF8, beyond), WIDE("\uFFFD\uFFFD\uFFFD\uFFFD"));
    }
}

TEST(Conversion, DefaultsForUtf8AndARoomOfItsOwnAreRefused) {
    BOOL used = FALSE;
    WCHAR room[8];
    const auto* shared = reinterpret_cast<const char*>(room) + 4;
    EXPECT_FAILS(Encode(CP_UTF8, WIDE("a"), "?").size(), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(Encode(CP_UTF8, WIDE("a"), nullptr, &used).size(), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(MultiByteToWideChar(1252, 0, shared, 4, room, 8), ERROR_INVALID_PARAMETER);
}

namespace {

CHILD_PROCESS(TellsItsCodePage) {
    child.Say(std::to_string(GetACP()));
    child.Say(IsDBCSLeadByte(0x95) ? "lead" : "single");
    child.Say(std::to_string(CreateFileA(child.arguments[0].c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                         OPEN_EXISTING, 0, nullptr) != INVALID_HANDLE_VALUE));
    return 0;
}

void SetRegistryCodePage(const string& text) {
    HKEY key = CreateKey(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Control\\Nls\\CodePage");
    EXPECT_EQ(SetValue(key, "ACP", text + '\0', REG_SZ), ERROR_SUCCESS);
}

} // namespace

// The trail byte of the first character of the file's name is a backslash.
TEST(AnsiCodePage, IsThatOfTheEnvironmentThenOfTheRegistryThen1252) {
    std::ofstream(PrivateDirectory() + "/\xE8\xA1\xA8.txt") << "x";
    const string folder = WindowsPath(PrivateDirectory());
    const struct {
        const char* registry;
        const char* environment; // null: not set
        string fileName;
        std::vector<string> said;
    } rows[] = {
        {nullptr, nullptr, folder + "\\\x95\\.txt", {"1252", "single", "0"}},
        {nullptr, "932", folder + "\\\x95\\.txt", {"932", "lead", "1"}},
        {nullptr, "65001", folder + "\\\xE8\xA1\xA8.txt", {"65001", "single", "1"}},
        {"932", nullptr, folder + "\\\x95\\.txt", {"932", "lead", "1"}},
        {"932", "1252", folder, {"1252", "single", "0"}},
        {"932", "nonsense", folder, {"932", "lead", "0"}},
        {"12345", nullptr, folder, {"1252", "single", "0"}},
    };
    for (const auto& row : rows) {
        if (row.registry != nullptr) SetRegistryCodePage(row.registry);
        Environment environment;
        if (row.environment != nullptr) environment["ORIEL_ANSI_CODE_PAGE"] = row.environment;
        TestProcess child("TellsItsCodePage", {row.fileName}, environment);
        for (const string& line : row.said)
            EXPECT_EQ(child.Hear(), line)
                << (row.registry ? row.registry : "-") << ", " << (row.environment ? row.environment : "-");
        EXPECT_EQ(child.Wait(), 0);
    }
}

namespace {

// Each sorts before the next.
const std::vector<string> kOrdered = {"",
                                      " ",
                                      "!",
                                      "_",
                                      "~",
                                      "<",
                                      "0",
                                      "07",
                                      "7",
                                      "9a",
                                      "a",
                                      "A",
                                      "\xE4",
                                      "\xC4",
                                      "a1",
                                      "ab",
                                      "aB",
                                      "AB",
                                      "\xE4\x42",
                                      "abc",
                                      "ac",
                                      "coop",
                                      "co-op",
                                      "coops",
                                      "O'Hara",
                                      "Ohare",
                                      "RunningPSW",
                                      "RWResult",
                                      "SendingJobInfo",
                                      "ServerOS",
                                      "\xFE\xFF",
                                      "Z",
                                      "z0"};

// Order of all of them, as their places in the sorted list say it.
string CheckTotalOrder(std::vector<string> texts) {
    std::sort(texts.begin(), texts.end(),
              [](const string& a, const string& b) { return lstrcmpA(a.c_str(), b.c_str()) < 0; });
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

CHILD_PROCESS(ChecksTotalOrder) {
    child.Say(CheckTotalOrder(RandomTexts(static_cast<unsigned>(std::stoul(child.arguments[0])))));
    return 0;
}

} // namespace

TEST(Order, IsThatOfWords) {
    std::vector<string> shuffled = kOrdered;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(1));
    std::sort(shuffled.begin(), shuffled.end(),
              [](const string& a, const string& b) { return lstrcmpA(a.c_str(), b.c_str()) < 0; });
    EXPECT_EQ(shuffled, kOrdered);
    EXPECT_EQ(lstrcmpA(nullptr, nullptr), 0);
    EXPECT_LT(lstrcmpA(nullptr, ""), 0);
    EXPECT_GT(lstrcmpA("", nullptr), 0);
}

TEST(Order, IsTotalAndOnlyIdenticalTextIsEqual) {
    const unsigned seed = std::random_device()();
    EXPECT_EQ(CheckTotalOrder(RandomTexts(seed)), "in order") << "seed " << seed;
    for (const char* codePage : {"932", "65001"}) {
        TestProcess child("ChecksTotalOrder", {std::to_string(seed)}, {{"ORIEL_ANSI_CODE_PAGE", codePage}});
        EXPECT_EQ(child.Hear(), "in order") << "seed " << seed << ", code page " << codePage;
    }
}

TEST(Order, WithoutCase) {
    for (const auto& [a, b, result] : {std::tuple{"SYSTEM", "system", 0},
                                       {"WinSta0", "WinSta1", -1},
                                       {"TVORSN.EXE", "tvorsn.exe.", -1},
                                       {"\xC4rger", "\xE4rger", 0},
                                       {"co-op", "CO-OP", 0},
                                       {"co-op", "COOP", 1},
                                       {"\xC4", "A", 1}}) {
        EXPECT_EQ(lstrcmpiA(a, b), result) << a << " " << b;
        EXPECT_EQ(lstrcmpiA(b, a), -result) << a << " " << b;
    }
}
