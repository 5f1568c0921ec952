// What a user gets for each kind of command line: exit code, one line of error, one JSON document.
#include "product.h"

#include <algorithm>
#include <filesystem>

namespace {

struct CommandLine {
    std::vector<std::string> arguments;
    int exitCode;
    std::string output; // a part of it
    std::string errors; // a part of the one line; empty: there is none
};

void Check(const CommandLine& line) {
    SCOPED_TRACE(testing::PrintToString(line.arguments));
    const ProgramResult result = Oriel(line.arguments);
    EXPECT_EQ(result.exitCode, line.exitCode) << result.errors;
    EXPECT_NE(result.output.find(line.output), std::string::npos) << result.output;
    EXPECT_NE(result.errors.find(line.errors), std::string::npos) << result.errors;
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), line.errors.empty() ? 0 : 1);
    if (line.errors.empty()) return;
    EXPECT_TRUE(result.errors.starts_with("oriel: ")) << result.errors;
    EXPECT_EQ(result.output, "");

    // The same failure for a program; an empty list says it all.
    Json document = OrielJson(line.arguments, line.exitCode);
    if (document.contains("variables")) document = document["variables"].empty() ? Json() : document["variables"][0];
    if (document.is_null()) return;
    EXPECT_EQ(document["error"]["exitCode"], line.exitCode) << document;
    EXPECT_NE(document["error"]["what"], "") << document;
}

} // namespace

TEST(CommandLine, OnAFreshMachine) {
    const std::string good = FileOf("good.script", "set PageCount 1\n");
    const CommandLine kLines[] = {
        {{"--help"}, 0, "Exit codes:", ""},
        {{"--version"}, 0, "0.1.0", ""},
        {{"help", "reg", "set"}, 0, "Usage: oriel reg set", ""},
        {{}, 2, "", "a command is missing"},
        {{"frobnicate"}, 2, "", "there is no command \"frobnicate\"; 'oriel --help'"},
        {{"--scope", "user", "wacth", "Front desk"}, 2, "", "did you mean \"watch\"?"},
        {{"status", "--scope", "user"}, 2, "", "the environment names the directories"},
        {{"get", "Front desk"}, 2, "", "VARIABLE"},
        {{"get", "Front desk", "PageCount", "--kind", "13"}, 2, "", "--kind"},
        {{"get", "Front desk", "PageCount"}, 1, "", "no printer is called \"Front desk\""},
        {{"get", "\xff", "PageCount"}, 2, "", "code page 1252"},
        {{"status"}, 3, "'oriel up' registers it", ""},
        {{"printers", "add", "a,b", "--driver", "D"}, 2, "", "no comma or backslash"},
        {{"printers", "add", "P", "--driver", "D", "--script", "relative"}, 2, "", "relative"},
        {{"printers", "add", "P", "--driver", "D", "--script", good + "x"}, 1, "", "good.scriptx"},
        {{"printers", "add", "", "--driver", "D"}, 2, "", "1 to 259"},
        {{"printers", "remove", "Front desk"}, 1, "", "no such printer"},
        {{"reg", "query", "HKXX\\Nothing"}, 2, "", "HKLM"},
        {{"reg", "delete", "HKLM"}, 2, "", "root"},
        {{"reg", "set", "HKLM\\K", "V", "12x", "--type", "dword"}, 2, "", "12x"},
        {{"reg", "import", "/nonexistent.reg"}, 1, "", "/nonexistent.reg"},
        {{"reg", "query", "HKLM\\K"}, 1, "", "no such key"}, // the refused ones made nothing
        {{"printers"}, 0, "no printers", ""},
    };
    for (const CommandLine& line : kLines)
        Check(line);
    for (const char* folder : {"ORIEL_STATE_DIR", "ORIEL_RUNTIME_DIR"})
        EXPECT_TRUE(std::filesystem::is_empty(std::getenv(folder))) << "looking makes nothing";

    // A script is checked before anything is added.
    const std::string bad = FileOf("bad.script", "set PageCount 1\nplay\n");
    const ProgramResult refused = Oriel({"printers", "add", "P", "--driver", "D", "--script", bad});
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_NE(refused.errors.find("bad.script:2:"), std::string::npos) << refused.errors;
    EXPECT_EQ(OrielJson({"printers"})["printers"], Json::array());
}

TEST(CommandLine, WithoutTheServiceSaysHowToStartIt) {
    OrielText({"printers", "add", kPrinter, "--driver", "Some driver"});
    const auto fails = [](const std::string& why) { Check({{"get", kPrinter, "PageCount"}, 3, "", why}); };
    const auto install = [](const std::string& path) {
        OrielText({"reg", "set", "HKLM\\SOFTWARE\\Tavik\\Oriel", "DIRPATH", path});
    };
    fails("no product is registered in " + std::string(std::getenv("ORIEL_STATE_DIR")) + " (status -16); start it");
    install("\\nowhere\\");
    fails("has no TVSDBN.EXE (status -16); correct it: oriel reg set");
    Check({{"up"}, 3, "", "if it moved, register this one: oriel reg set"});
    install(WindowsPath(ProgramPath("")));
    fails("no status database service runs in " + std::string(std::getenv("ORIEL_RUNTIME_DIR")));
}

TEST(CommandLine, WithTheProductUp) {
    const ExampleProduct product;
    OrielText({"printers", "add", "Other", "--driver", "Unregistered"});
    const std::string& p = kPrinter;
    const CommandLine kLines[] = {
        {{"status"}, 0, "running", ""},
        {{"up"}, 1, "", "already up"},
        {{"get", p, "PageCount"}, 0, "unknown", ""},
        {{"get", p, "PagCuont"}, 1, "", "did you mean PageCount?"},
        {{"info", p, "AccessControlList"}, 0, "T", ""},
        {{"vars", p, "*nothing*"}, 1, "", "no variable"},
        {{"set", p, "PageCount"}, 2, "", "one of VALUE"},
        {{"set", p, "PageCount", "12x"}, 2, "", "PageCount takes a 32-bit number, not \"12x\""},
        {{"set", p, "PageCount", "--hex", "01 02"}, 2, "", "takes 4 bytes, not 2"},
        {{"set", p, "ServiceNote", std::string(32, 'x')}, 2, "", "takes at most 31 bytes, not 32"},
        {{"set", p, "CurrentStatus", "1"}, 2, "", "set the variables it is made of"},
        {{"set", p, "PrinterBinConfig", "1"}, 2, "", "--hex or --file"},
        {{"set", p, "Port", "colour=1"}, 2, "", "portKind, portName, portDetail"},
        {{"get", "Other", "PageCount", "--kind", "1"}, 1, "", "status -80"},
        {{"set", p, "RefreshStatus", "all", "--wait"}, 2, "", "--async"},
        {{"set", p, "TonerLevel", "5", "--async"}, 1, "", "status -19"},
        {{"result", p, "many"}, 2, "", "many"},
    };
    for (const CommandLine& line : kLines)
        Check(line);

    // Nobody answers where the service does.
    const std::string endpoint = PrivateDirectory() + "/run/rpc/TVORSDB_RPC";
    std::filesystem::rename(endpoint, endpoint + ".away");
    Check({{"get", p, "PageCount"}, 5, "", "the status database service runs but does not answer"});
    std::filesystem::rename(endpoint + ".away", endpoint);
    Check({{"get", p, "PageCount"}, 0, "unknown", ""});
}

TEST_AS_ROOT(CommandLine, AnotherUserMayReadButNotChangeTheMachine) {
    const ExampleProduct product;
    OrielText({"get", kPrinter, "PageCount"});
    EXPECT_EQ(OrielAs(65534, {"get", kPrinter, "PageCount"}).output, "unknown\n");
    EXPECT_EQ(OrielAs(65534, {"status"}).exitCode, 0);
    // Nobody else has a window yet, and the folder of windows lies in root's directory.
    EXPECT_EQ(OrielAs(65534, {"watch", kPrinter, "--by", "message", "--until", "PageCount=-1"}).exitCode, 0);
    for (const Words& denied : {Words{"reg", "set", "HKLM\\SOFTWARE\\X", "a", "b"},
                                {"reg", "delete", "HKLM\\SOFTWARE\\Tavik", "--tree"},
                                {"reg", "import", SourcePath("examples/example_laser.reg")},
                                {"printers", "add", "P", "--driver", "D"},
                                {"printers", "remove", kPrinter}}) {
        const ProgramResult result = OrielAs(65534, denied);
        EXPECT_EQ(result.exitCode, 4) << denied[0] << " " << denied[1] << ": " << result.errors;
        EXPECT_NE(result.errors.find("access denied"), std::string::npos) << result.errors;
    }
    EXPECT_EQ(ValueOf(kPrinter, "TonerLevel"), 100);
}

TEST(CommandLine, OutputIsColouredOnATerminal) {
    const Words onTerminal = {"-qec", ProgramPath("oriel") + " status", "/dev/null"};
    EXPECT_NE(RunProgram("/usr/bin/script", onTerminal).output.find("\x1b["), std::string::npos);
    EXPECT_EQ(RunProgram("/usr/bin/script", onTerminal, {{"NO_COLOR", "1"}}).output.find("\x1b["), std::string::npos);
}

// On a machine with the real directories, on file systems of its own. Root has a product there and another user one of
// his own.
TEST_AS_ROOT(CommandLine, TalksToTheUsersOwnProductWhileItIsUpElseToTheSystems) {
    constexpr const char* kScript = R"sh(
        unset ORIEL_STATE_DIR ORIEL_RUNTIME_DIR
        mount -t tmpfs -o mode=0755 state /var/lib && mount -t tmpfs -o mode=0755 run /run || exit 9
        mkdir -m 0700 /run/home /run/own && chown 1:1 /run/home /run/own
        user="setpriv --reuid=1 --regid=1 --clear-groups env HOME=/run/home XDG_RUNTIME_DIR=/run/own"
        up() { "$@" up >/run/log 2>&1 & for _ in $(seq 200); do grep -q 'is up' /run/log && return; sleep 0.05; done; }
        is() { "$@" --json | sed -n 's/^  "\(service\|scope\)": "\(.*\)",/\2/p' | tr '\n' ' '; }
        for command in status printers 'reg query HKLM' 'vars P' 'get P V' 'watch P' help; do "$oriel" $command; done >/dev/null 2>&1
        $user "$oriel" status >/dev/null
        find /var/lib /run -name 'oriel*' | wc -l
        is $user "$oriel" status; echo fresh
        up $user "$oriel"; users=$!
        "$oriel" reg set 'HKLM\SOFTWARE\X' a b
        is $user "$oriel" status; is "$oriel" status; echo his is up
        is $user "$oriel" --scope system status; is $user ORIEL_SCOPE=system "$oriel" status --scope=user; echo chosen
        kill $users; wait $users
        is $user "$oriel" status; echo his is not up
        up "$oriel"; systems=$!
        is $user "$oriel" status; is $user ORIEL_SCOPE=user "$oriel" status; echo the system is up
        kill $systems; wait $systems
        ORIEL_SCOPE=mine "$oriel" status 2>&1
    )sh";
    const ProgramResult result =
        RunProgram("/usr/bin/unshare", {"-m", "sh", "-c", kScript}, {{"oriel", ProgramPath("oriel")}});
    EXPECT_EQ(result.output, "0\n"
                             "not installed user fresh\n"
                             "running user not installed system his is up\n"
                             "not installed system running user chosen\n"
                             "not installed system his is not up\n"
                             "running system stopped user the system is up\n"
                             "oriel: ORIEL_SCOPE is neither \"system\" nor \"user\"; correct or unset it\n")
        << result.errors;
}
