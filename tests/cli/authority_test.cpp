// Access control lists through the command, and its explanation of what they give, which must be what the library says.
#include "private_machine.h"
#include "product.h"

#include <gtest/gtest.h>

namespace {

const std::string kPrinter = "Front desk";
// One bit of the authority for each.
const std::vector<std::string> kRights = {"print", "own jobs", "all jobs", "direct read", "direct write"};

} // namespace

TEST(Authority, IsExplainedAsTheLibraryComputesIt) {
    RunningProduct product;
    AddExamplePrinter();
    EXPECT_EQ(OrielText({"authority", kPrinter}), "0");
    EXPECT_NE(OrielText({"authority", kPrinter, "--explain"}).find("nobody has any right"), std::string::npos);
    EXPECT_EQ(OrielJson({"acl", "show", kPrinter})["valid"], false);
    EXPECT_NE(OrielJson({"acl", "show", kPrinter})["hex"], Json());

    struct Row {
        const char* text;
        const char* shown; // null: the same
        Json given;        // for the rights that it has something to say of
        Json taken;
    };
    const Row kRows[] = {
        {"D:", nullptr, {}, {}},
        {"D:(A;;SWRC;;;WD)(A;OIIO;RPWPSDRCWDWO;;;CO)",
         nullptr,
         {{"print", {1}}, {"own jobs", {2}}, {"direct read", {1}}},
         {}},
        {" D: (A;; 0x8 ;;;Everyone) (D;;SW;;;BUILTIN\\Administrators)\n",
         "D:(A;;SW;;;WD)(D;;SW;;;BA)",
         {},
         {{"print", {2}}, {"direct read", {2}}, {"direct write", {2}}}},
        {"D:(A;ID;0xf003c;;;BA)(D;;LC;;;root)",
         "D:(A;ID;LCSWRPWPSDRCWDWO;;;BA)(D;;LC;;;S-1-22-1-0)",
         {{"all jobs", {1}}, {"direct write", {1}}},
         {{"direct write", {2}}}},
        {"D:(A;;0xf003c;;;S-1-5-32-544)(A;;GA;;;S-1-22-1-54321)(A;;GA;;;Unix Group\\daemon)",
         "D:(A;;LCSWRPWPSDRCWDWO;;;BA)(A;;GA;;;S-1-22-1-54321)(A;;GA;;;S-1-22-2-1)",
         {{"direct write", {1}}},
         {}},
        {"D:(A;;GA;;;WD)(A;;0x80000200;;;CO)", nullptr, {{"all jobs", {1}}, {"own jobs", {1}}}, {}},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(OrielText({"acl", "set", kPrinter, row.text}), "");
        EXPECT_EQ(OrielText({"acl", "show", kPrinter}), row.shown != nullptr ? row.shown : row.text);
        const Json document = OrielJson({"authority", kPrinter, "--explain"});
        uint32_t bits = 0;
        for (const Json& right : document["rights"]) {
            const std::string name = right["right"];
            const auto at = std::find(kRights.begin(), kRights.end(), name) - kRights.begin();
            if (right["granted"]) bits |= 1u << at;
            if (row.given.contains(name)) {
                EXPECT_EQ(right["given"], row.given[name]) << name;
            }
            if (row.taken.contains(name)) {
                EXPECT_EQ(right["taken"], row.taken[name]) << name;
            }
            EXPECT_EQ(right["taken"].empty(), !row.taken.contains(name)) << name;
        }
        EXPECT_EQ(document["authority"], bits);
    }
}

TEST_AS_ROOT(Authority, IsExplainedToTheUserWhoAsks) {
    RunningProduct product;
    AddExamplePrinter();
    OrielText({"acl", "set", kPrinter, "D:(A;;SW;;;Unix Group\\daemon)(A;;RP;;;root)(A;;RP;;;S-1-22-1-54321)"});
    const ProgramResult other =
        RunProgram("/usr/bin/setpriv", {"--reuid=1", "--regid=1", "--clear-groups", ProgramPath("oriel"), "--json",
                                        "authority", kPrinter, "--explain"});
    const Json document = Json::parse(other.output);
    EXPECT_EQ(document["user"], "Unix User\\daemon");
    EXPECT_EQ(document["authority"], 9);
    EXPECT_EQ(document["entries"][0]["countsFor"], "a group of yours");
    EXPECT_EQ(document["entries"][1]["countsFor"], "not you");
    EXPECT_EQ(document["entries"][2]["countsFor"], "nobody: no such account");
}

TEST(Authority, OfOtherSourcesAndWrongLists) {
    RunningProduct product;
    AddExamplePrinter();
    OrielText({"acl", "set", kPrinter, "D:(A;;SW;;;WD)"});
    const char* const kWrong[] = {"",
                                  "(A;;SW;;;WD)",
                                  "D:(A;;SW;;;WD",
                                  "D:A;;SW;;;WD)",
                                  "D:(A;;SW;;WD)",
                                  "D:(A;;SW;;;;WD)",
                                  "D:(A;;XX;;;WD)",
                                  "D:(A;;0x1ffffffff;;;WD)",
                                  "D:(X;;SW;;;WD)",
                                  "D:(A;ZZ;SW;;;WD)",
                                  "D:(A;;SW;;;no such user)",
                                  "D:(A;;SW;;;S-1-99999999999999999-1)",
                                  "D:(A;;SW;1;;WD)",
                                  "O:BAD:(A;;SW;;;WD)",
                                  "D:P(A;;SW;;;WD)"};
    for (const char* text : kWrong)
        EXPECT_EQ(OrielJson({"acl", "set", kPrinter, text}, 2)["error"]["exitCode"], 2) << text;
    EXPECT_EQ(OrielText({"acl", "show", kPrinter}), "D:(A;;SW;;;WD)");

    EXPECT_EQ(OrielJson({"authority", kPrinter, "--user", "\\\\.\\kptmon"})["authority"], 31);
    EXPECT_EQ(OrielJson({"authority", kPrinter, "--kind", "4", "--explain"})["authority"], 11);
    EXPECT_EQ(OrielJson({"authority", kPrinter}, 0, {{"ORIEL_WINDOWS_VERSION", "9x:4.10"}})["authority"], 31);
    OrielText({"set", kPrinter, "Port", "portKind=8"});
    OrielText({"set", kPrinter, "UserAuthority", "5"});
    const Json stored = OrielJson({"authority", kPrinter, "--explain"});
    EXPECT_EQ(stored["authority"], 5);
    EXPECT_FALSE(stored.contains("rights"));
}
