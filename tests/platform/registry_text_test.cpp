// The registry as text: what is written is read back, what is malformed changes nothing.
#include "campaign.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <random>
#include <winreg_text.h>

namespace {

LSTATUS Import(const std::string& text, DWORD* line = nullptr) {
    return RegImportTextA(text.data(), text.size(), line);
}

std::string Export(HKEY root, const char* path) {
    SIZE_T length = 0;
    if (const LSTATUS status = RegExportTextA(root, path, nullptr, &length); status != ERROR_SUCCESS)
        return std::to_string(status);
    std::string text(length, '\0');
    SIZE_T tooShort = length - 1;
    EXPECT_EQ(RegExportTextA(root, path, text.data(), &tooShort), ERROR_MORE_DATA);
    EXPECT_EQ(tooShort, length);
    EXPECT_EQ(RegExportTextA(root, path, text.data(), &length), ERROR_SUCCESS);
    return text;
}

void Set(HKEY key, const std::string& name, DWORD type, const std::string& data) {
    ASSERT_EQ(RegSetValueExA(key, name.c_str(), 0, type, reinterpret_cast<const BYTE*>(data.data()),
                             static_cast<DWORD>(data.size())),
              ERROR_SUCCESS);
}

// All that is below a key, as the registry's calls give it.
std::string Dump(HKEY parent, const std::string& path) {
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(parent, path.c_str(), 0, KEY_READ, &key), ERROR_SUCCESS);
    std::string all = "[" + path + "]";
    char name[256];
    BYTE data[256];
    DWORD nameSize = sizeof name;
    DWORD size = sizeof data;
    DWORD type = 0;
    for (DWORD index = 0; RegEnumValueA(key, index, name, &nameSize, nullptr, &type, data, &size) == ERROR_SUCCESS;
         ++index, nameSize = sizeof name, size = sizeof data)
        all += std::string(name, nameSize) + '\0' + std::to_string(type) + '\0' + std::to_string(size) + '\0' +
               std::string(reinterpret_cast<char*>(data), size);
    for (DWORD index = 0;
         RegEnumKeyExA(key, index, name, &nameSize, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index, nameSize = sizeof name)
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
        {"REGEDIT5\n", 1},
        {"\n[HKLM\\K]\n", 1},
        {"REGEDIT4\n\"v\"=dword:1\n", 2},
        {"REGEDIT4\n[-HKLM\\K]\n\"v\"=dword:1\n", 3},
        {good + "[HKEY_USERS\\K]\n", 5},
        {good + "[HKLM\\K\n", 5},
        {good + "[HKLM\\K] x\n", 5},
        {good + "[HKLM\\\\K]\n", 5}, // a path that starts with a backslash
        {good + "[-HKLM]\n", 5},
        {good + "[HKLM\\" + std::string(256, 'k') + "]\n", 5},
        {good + "nonsense\n", 5},
        {good + "\"v\"\n", 5},
        {good + "\"v\"=\n", 5},
        {good + "\"v\"=text\n", 5},
        {good + "\"v\"=\"text\" more\n", 5},
        {good + "\"v\"=\"C:\\Dir\"\n", 5},
        {good + "\n\"v\"=\"never\nended", 6},
        {good + "\"v\"=dword:\n", 5},
        {good + "\"v\"=dword:123456789\n", 5},
        {good + "\"v\"=dword:12g\n", 5},
        {good + "\"v\"=hex:1,\n", 5},
        {good + "\"v\"=hex:123\n", 5},
        {good + "\"v\"=hex:1,\\\n2,\\\nxx\n", 7},
        {good + "\"v\"=hex(:1\n", 5},
        {good + "\"v\"=hex(123456789):1\n", 5},
        {good + "\"v\"=hex(1)1\n", 5},
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
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "K", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "K", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegImportTextA(nullptr, 1, nullptr), ERROR_INVALID_PARAMETER);
}

TEST(RegistryText, WhatIsExportedImportsToTheSame) {
    const int rounds = Rounds(150, 20000);
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
        HKEY key = nullptr;
        for (uint64_t keys = 1 + random() % 4; keys > 0; --keys) {
            std::string path = "Round";
            for (uint64_t depth = random() % 3; depth > 0; --depth)
                for (path += '\\'; path.back() < ' ' || path.back() == '\\';)
                    path += static_cast<char>(random() % 2 == 0 ? '!' + random() % 59 : 0xa1 + random() % 94);
            ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                                      nullptr),
                      ERROR_SUCCESS);
            for (uint64_t values = random() % 4; values > 0; --values) {
                std::string data = text(random() % 60, false);
                if (random() % 2 == 0) data += '\0';
                Set(key, text(random() % 8, true), types[random() % std::size(types)], data);
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
