// reg: values of all types, and .reg files out and in.
#include "product.h"

static const std::string kKey = "HKLM\\SOFTWARE\\Test";
constexpr const char* kLong = "00 00 00 00 01 00 00 00";

TEST(RegistryCommand, ValuesOfAllTypesKeysAndTrees) {
    const struct {
        const char* name;
        Words data; // and --type
        const char* type;
        const char* text;
        Json json;
        const char* hex;
    } rows[] = {
        {"text", {"a b"}, "REG_SZ", "a b", "a b", "61 20 62 00"},
        {"", {"\xc3\xa9", "--type", "expand"}, "REG_EXPAND_SZ", "\xc3\xa9", "\xc3\xa9", "e9 00"},
        {"list", {"a", "bc", "--type", "multi"}, "REG_MULTI_SZ", "a | bc", {"a", "bc"}, "61 00 62 63 00 00"},
        {"negative", {"-1", "--type", "dword"}, "REG_DWORD", "0xffffffff (4294967295)", 4294967295u, "ff ff ff ff"},
        {"long", {"0x100000000", "--type", "qword"}, "REG_QWORD", "0x100000000 (4294967296)", 1ll << 32, kLong},
        {"bytes", {"0102", "ff", "--type", "binary"}, "REG_BINARY", "01 02 ff", nullptr, "01 02 ff"},
        {"nothing", {"--type", "none"}, "REG_NONE", "", nullptr, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Words command = {"reg", "set", kKey, row.name};
        command.insert(command.end(), row.data.begin(), row.data.end());
        OrielText(command);
        EXPECT_EQ(OrielText({"reg", "query", kKey, row.name}), row.text);
        const Json value = OrielJson({"reg", "query", kKey, row.name})["value"];
        EXPECT_EQ(value, Json({{"name", row.name}, {"type", row.type}, {"data", row.json}, {"hex", row.hex}}));
    }
    Json keys = OrielJson({"reg", "query", "HKEY_LOCAL_MACHINE\\software\\test"})["keys"];
    EXPECT_EQ(keys[0]["values"].size(), std::size(rows));

    OrielText({"reg", "delete", kKey, "list"});
    EXPECT_EQ(Oriel({"reg", "query", kKey, "list"}).exitCode, 1);

    OrielText({"reg", "set", kKey + "\\A\\B"});
    OrielText({"reg", "set", kKey + "\\A\\B", "v", "1"});
    keys = OrielJson({"reg", "query", kKey, "--recursive"})["keys"];
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_EQ(keys[2]["key"], "HKEY_LOCAL_MACHINE\\SOFTWARE\\Test\\A\\B");

    EXPECT_NE(Oriel({"reg", "delete", kKey}).errors.find("--tree"), std::string::npos);
    OrielText({"reg", "delete", kKey, "--tree"});
    EXPECT_EQ(Oriel({"reg", "query", kKey}).exitCode, 1);
}

TEST(RegistryCommand, ExportAndImportGiveTheSameAndABadFileChangesNothing) {
    const std::string model = SourcePath("examples/example_laser.reg");
    OrielText({"reg", "import", model});
    OrielText({"reg", "set", "HKLM\\SOFTWARE\\Tavik\\Oriel", "quotes \" and \\", "x\\\"y"});
    const std::string file = PrivateDirectory() + "/exported.reg";
    OrielText({"reg", "export", "HKLM\\SOFTWARE\\Tavik", file});
    const std::string before = OrielText({"reg", "export", "HKLM\\SOFTWARE\\Tavik"});

    OrielText({"reg", "delete", "HKLM\\SOFTWARE\\Tavik", "--tree"});
    OrielText({"reg", "import", file});
    EXPECT_EQ(OrielText({"reg", "export", "HKLM\\SOFTWARE\\Tavik"}), before);

    FileOf("exported.reg", "REGEDIT4\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Test]\n\"a\"=dword:1\n\"b\"=dword:xyz\n");
    const Json error = OrielJson({"reg", "import", file}, 1)["error"];
    EXPECT_NE(error["what"].get<std::string>().find("line 5"), std::string::npos) << error;
    EXPECT_EQ(Oriel({"reg", "query", kKey}).exitCode, 1);
}
