// The registry as text: what is written is read back, what is malformed changes nothing.
#include "campaign.h"
#include "registry_kit.h"

#include <random>

namespace {

// All that is below a key, as the registry's calls give it.
std::string Dump(HKEY parent, const std::string& path) {
    HKEY key = OpenKey(parent, path, KEY_READ);
    std::string all = "[" + path + "]";
    for (const std::string& name : ValueNames(key)) {
        const Value value = GetValue(key, name);
        all += name + '\0' + std::to_string(value.type) + '\0' + std::to_string(value.data.size()) + '\0' + value.data;
    }
    for (const std::string& name : SubKeys(key))
        all += Dump(parent, path + '\\' + name);
    RegCloseKey(key);
    return all;
}

} // namespace

TEST(RegistryText, EveryFormIsRead) {
    ASSERT_EQ(Import("REGEDIT4\r\n"
                     "; a comment\r\n"
                     "\r\n"
                     "[HKEY_LOCAL_MACHINE\\Soft[ware]\\Forms]\r\n"
                     "@=\"default\"\r\n"
                     "\"text \\\\ \\\"quoted\\\"\"=\"C:\\\\Dir\\\\\" ; behind\r\n"
                     "\"lines\"=\"one\r\ntwo\"\r\n"
                     "\"word\" = DWORD:2A\r\n"
                     "\"bytes\"=hex:00, 1,FF,\\\r\n"
                     "  02,\\ \r\n"
                     "\t03\r\n"
                     "\"none\"=hex(0):\r\n"
                     "\"multi\"=hex(7):61,00,00\r\n"
                     "\"gone\"=dword:1\r\n"
                     "\"gone\"=-\r\n"
                     "\"never there\"=-\r\n"
                     "[HKCU\\Other]\n"
                     "\"v\"=hex(a0000001):01\n"
                     "[HKLM\\Tree\\Below]\n"
                     "[-HKLM\\TREE]\n"
                     "[-HKLM\\Not\\There]"),
              ERROR_SUCCESS);
    EXPECT_EQ(Export(HKEY_LOCAL_MACHINE, "soft[ware]"), "REGEDIT4\r\n\r\n"
                                                        "[HKEY_LOCAL_MACHINE\\Soft[ware]]\r\n\r\n"
                                                        "[HKEY_LOCAL_MACHINE\\Soft[ware]\\Forms]\r\n"
                                                        "@=\"default\"\r\n"
                                                        "\"text \\\\ \\\"quoted\\\"\"=\"C:\\\\Dir\\\\\"\r\n"
                                                        "\"lines\"=hex(1):6f,6e,65,0d,0a,74,77,6f,00\r\n"
                                                        "\"word\"=dword:0000002a\r\n"
                                                        "\"bytes\"=hex:00,01,ff,02,03\r\n"
                                                        "\"none\"=hex(0):\r\n"
                                                        "\"multi\"=hex(7):61,00,00\r\n\r\n");
    EXPECT_EQ(Export(HKEY_CURRENT_USER, nullptr), "REGEDIT4\r\n\r\n[HKEY_CURRENT_USER]\r\n\r\n"
                                                  "[HKEY_CURRENT_USER\\Other]\r\n\"v\"=hex(a0000001):01\r\n\r\n");
    EXPECT_EQ(Export(HKEY_LOCAL_MACHINE, "Tree"), std::to_string(ERROR_FILE_NOT_FOUND));
    char text[200];
    SIZE_T room = 10;
    EXPECT_EQ(RegExportTextA(HKEY_CURRENT_USER, nullptr, text, &room), ERROR_MORE_DATA);
    EXPECT_EQ(room, Export(HKEY_CURRENT_USER).size());
}

TEST(RegistryText, UnicodeTextBecomesTheCodePages) {
    const std::string utf8 = "Windows Registry Editor Version 5.00\r\n"
                             "[HKEY_LOCAL_MACHINE\\Caf\xc3\xa9]\r\n"
                             "\"na\xc3\xafve\"=\"\xe2\x82\xac\"\r\n"            // euro
                             "\"e\"=hex(2):ac,20,00,00\r\n\"b\"=hex:ac,20\r\n"; // the same in UTF-16; bytes
    const std::string expected = "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Caf\xe9]\r\n\"na\xefve\"=\"\x80\"\r\n"
                                 "\"e\"=hex(2):80,00\r\n\"b\"=hex:ac,20\r\n\r\n";
    ASSERT_EQ(Import("\xef\xbb\xbf" + utf8), ERROR_SUCCESS);
    EXPECT_EQ(Export(HKEY_LOCAL_MACHINE, "Caf\xe9"), expected);
    ASSERT_EQ(Import("REGEDIT4\n[-HKLM\\Caf\xe9]"), ERROR_SUCCESS);
    std::string utf16 = "\xff\xfe";
    for (size_t at = 0; at < utf8.size(); ++at) {
        const auto byte = static_cast<unsigned char>(utf8[at]);
        if (byte == 0xe2)
            utf16 += "\xac\x20", at += 2;
        else if (byte == 0xc3)
            utf16 += {static_cast<char>(utf8[++at] | 0x40), '\0'};
        else
            utf16 += {utf8[at], '\0'};
    }
    ASSERT_EQ(Import(utf16), ERROR_SUCCESS);
    EXPECT_EQ(Export(HKEY_LOCAL_MACHINE, "Caf\xe9"), expected);
}

TEST(RegistryText, AMalformedLineChangesNothingAndIsTold) {
    const std::string good = "REGEDIT4\n[HKLM\\K]\n\"first\"=dword:1\n[HKCU\\K]\n";
    const std::string wide = "Windows Registry Editor Version 5.00\n[HKLM\\K]\n";
    const struct {
        std::string text;
        DWORD line;
    } rows[] = {
        {"", 1},
        {"REGEDIT4\n\"v\"=dword:1\n", 2},
        {"REGEDIT4\n[-HKLM\\K]\n\"v\"=dword:1\n", 3},
        {good + "[HKEY_USERS\\K]\n", 5},
        {good + "[HKLM\\\\K]\n", 5}, // a path that starts with a backslash
        {good + "[HKLM\\" + std::string(256, 'k') + "]\n", 5},
        {good + "\"v\"=\"text\" more\n", 5},
        {good + "\"v\"=\"C:\\Dir\"\n", 5},
        {good + "\n\"v\"=\"never\nended", 6},
        {good + "\"v\"=dword:123456789\n", 5},
        {good + "\"v\"=hex:1,\\\n2,\\\nxx\n", 7},
        {good + "\"" + std::string(16384, 'n') + "\"=dword:1\n", 5},
        {good + std::string("\"v\"=\"a\0b\"\n", 10), 5},
        {wide + "\"v\"=\"\xff\"\n", 3},         // no UTF-8
        {wide + "\"v\"=\"\xe6\xbc\xa2\"\n", 3}, // not in the code page
        {wide + "\"v\"=hex(1):41,00,00\n", 3},  // half a character
    };
    for (const auto& row : rows) {
        DWORD line = 0xffff;
        EXPECT_EQ(Import(row.text, &line), ERROR_BAD_FORMAT) << row.text;
        EXPECT_EQ(line, row.line) << row.text;
    }
    for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER})
        EXPECT_EQ(Export(root, "K"), std::to_string(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(RegImportTextA(nullptr, 1, nullptr), ERROR_INVALID_PARAMETER);
}

TEST(RegistryTextCampaign, WhatIsExportedImportsToTheSame) {
    const int rounds = Rounds(150, 8000);
    std::mt19937_64 random(Seed());
    const auto text = [&random](size_t length, bool name) {
        std::string result;
        while (result.size() < length) {
            const char c = static_cast<char>(random() % 4 == 0 ? random() % 256 : "aB\\\"=]-;\n@\r"[random() % 11]);
            if (!name || c != '\0') result += c;
        }
        return result;
    };
    const DWORD types[] = {REG_NONE, REG_SZ, REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD, REG_MULTI_SZ, REG_QWORD, 77};
    for (int round = 0; round < rounds; ++round) {
        for (uint64_t keys = 1 + random() % 4; keys > 0; --keys) {
            std::string path = "Round";
            for (uint64_t depth = random() % 3; depth > 0; --depth)
                for (path += '\\'; path.back() < ' ' || path.back() == '\\';)
                    path += static_cast<char>(random() % 2 == 0 ? '!' + random() % 59 : 0xa1 + random() % 94);
            HKEY key = CreateKey(HKEY_LOCAL_MACHINE, path);
            for (uint64_t values = random() % 4; values > 0; --values) {
                std::string data = text(random() % 60, false);
                if (random() % 2 == 0) data += '\0';
                ASSERT_EQ(SetValue(key, text(random() % 8, true), data, types[random() % std::size(types)]), 0);
            }
            RegCloseKey(key);
        }
        const std::string first = Export(HKEY_LOCAL_MACHINE, "Round");
        const std::string before = Dump(HKEY_LOCAL_MACHINE, "Round");
        ASSERT_EQ(Import("REGEDIT4\n[-HKLM\\Round]\n"), ERROR_SUCCESS);
        DWORD line = 0;
        ASSERT_EQ(Import(first, &line), ERROR_SUCCESS) << "line " << line << " of\n" << first;
        ASSERT_EQ(Dump(HKEY_LOCAL_MACHINE, "Round"), before);
        ASSERT_EQ(Export(HKEY_LOCAL_MACHINE, "Round"), first);
        ASSERT_EQ(Import("REGEDIT4\n[-HKLM\\Round]\n"), ERROR_SUCCESS);
    }
}
