// Access control lists through the command, and its explanation of what they give, which must be what the library says.
#include "product.h"

#include <map>

using Entries = std::map<std::string, Json>; // by right, those that give or take it

TEST(Authority, IsExplainedAsTheLibraryComputesIt) {
    // One bit of the authority for each.
    const char* const kRights[] = {"print", "own jobs", "all jobs", "direct read", "direct write"};
    const ExampleProduct product;
    EXPECT_EQ(OrielText({"authority", kPrinter}), "0");
    EXPECT_NE(OrielText({"authority", kPrinter, "--explain"}).find("nobody has any right"), std::string::npos);
    EXPECT_EQ(OrielJson({"acl", "show", kPrinter})["valid"], false);

    // given, taken: by right, the entries that do, where they have something to say.
    const struct {
        const char *text, *shown;
        Entries given, taken;
    } rows[] = {
        {"D:(A;;SWRC;;;WD)(A;OIIO;RPWPSDRCWDWO;;;CO)", "D:(A;;SWRC;;;WD)(A;OIIO;RPWPSDRCWDWO;;;CO)",
         Entries{{"print", {1}}, {"own jobs", {2}}, {"direct read", {1}}}},
        {" D: (A;; 0x8 ;;;Everyone) (D;;SW;;;BUILTIN\\Administrators)\n", "D:(A;;SW;;;WD)(D;;SW;;;BA)", Entries{},
         Entries{{"print", {2}}, {"direct read", {2}}, {"direct write", {2}}}},
        {"D:(A;ID;0xf003c;;;BA)(D;;LC;;;root)", "D:(A;ID;LCSWRPWPSDRCWDWO;;;BA)(D;;LC;;;S-1-22-1-0)",
         Entries{{"all jobs", {1}}, {"direct write", {1}}}, Entries{{"direct write", {2}}}},
        {"D:(A;;GA;;;WD)(A;;0x80000200;;;CO)", "D:(A;;GA;;;WD)(A;;0x80000200;;;CO)",
         Entries{{"all jobs", {1}}, {"own jobs", {1}}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        OrielText({"acl", "set", kPrinter, row.text});
        EXPECT_EQ(OrielText({"acl", "show", kPrinter}), row.shown);
        const Json document = OrielJson({"authority", kPrinter, "--explain"});
        uint32_t bits = 0;
        for (const Json& right : document["rights"]) {
            const std::string name = right["right"];
            for (int bit = 0; bit < 5; ++bit)
                bits |= right["granted"] && name == kRights[bit] ? 1u << bit : 0;
            EXPECT_EQ(right["taken"], row.taken.contains(name) ? row.taken.at(name) : Json::array()) << name;
            EXPECT_TRUE(!row.given.contains(name) || right["given"] == row.given.at(name)) << right;
        }
        EXPECT_EQ(document["authority"], bits);
    }

    // Wrong lists are refused.
    OrielText({"acl", "set", kPrinter, "D:(A;;SW;;;WD)"});
    for (const char* text :
         {"", "(A;;SW;;;WD)", "D:(A;;SW;;;WD", "D:A;;SW;;;WD)", "D:(A;;SW;;WD)", "D:(A;;SW;;;;WD)", "D:(A;;XX;;;WD)",
          "D:(A;;0x1ffffffff;;;WD)", "D:(X;;SW;;;WD)", "D:(A;ZZ;SW;;;WD)", "D:(A;;SW;;;no such user)",
          "D:(A;;SW;;;S-1-99999999999999999-1)", "D:(A;;SW;1;;WD)", "O:BAD:(A;;SW;;;WD)", "D:P(A;;SW;;;WD)"})
        EXPECT_EQ(OrielJson({"acl", "set", kPrinter, text}, 2)["error"]["exitCode"], 2) << text;
    EXPECT_EQ(OrielText({"acl", "show", kPrinter}), "D:(A;;SW;;;WD)");

    // Of other sources.
    EXPECT_EQ(OrielJson({"authority", kPrinter, "--user", "\\\\.\\kptmon"})["authority"], 31);
    OrielText({"set", kPrinter, "Port", "portKind=8"});
    OrielText({"set", kPrinter, "UserAuthority", "5"});
    const Json stored = OrielJson({"authority", kPrinter, "--explain"});
    EXPECT_EQ(stored["authority"], 5);
    EXPECT_FALSE(stored.contains("rights"));
}

TEST_AS_ROOT(Authority, IsExplainedToTheUserWhoAsks) {
    const ExampleProduct product;
    OrielText({"acl", "set", kPrinter, "D:(A;;SW;;;Unix Group\\daemon)(A;;RP;;;root)(A;;RP;;;S-1-22-1-54321)"});
    const Json document = Json::parse(OrielAs(1, {"--json", "authority", kPrinter, "--explain"}).output);
    EXPECT_EQ(document["user"], "Unix User\\daemon");
    EXPECT_EQ(document["authority"], 9);
    for (size_t i = 0; const char* whom : {"a group of yours", "not you", "nobody: no such account"})
        EXPECT_EQ(document["entries"][i++]["countsFor"], whom);
    const auto changes = [](const Json& from, const char* name) {
        return from["changes"].dump().find(name) != std::string::npos;
    };
    EXPECT_TRUE(changes(document, "\"JobStatus\""));
    EXPECT_FALSE(changes(document, "\"PageCount\""));
    EXPECT_TRUE(changes(OrielJson({"authority", kPrinter, "--explain"}), "\"PageCount\""));
    EXPECT_EQ(OrielAs(1, {"set", kPrinter, "PageCount", "5"}).exitCode, 4);
}
