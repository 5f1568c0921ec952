// No state.
#include "base/command_line.h"

#include "base/layer.h"
#include "base/output.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>

const char* const kExitCodes = R"(Exit codes:
  0  done
  1  false, or not found
  2  the command line, or a value on it, is wrong; nothing was done
  3  the product is not installed or not running
  4  access denied
  5  timed out

With --json a command prints one JSON document (one that follows events: one line for each), also when it fails:
{"error": {"exitCode", "what", "why", "next", "code"}}. Output to a terminal is coloured unless NO_COLOR is set.)";

void AddCommonOptions(CLI::App& command, CommonOptions& options) {
    command.add_flag("--json", options.json, "Print JSON");
    if (HasScopes()) {
        command
            .add_option("--scope", options.scope,
                        "The product to talk to: the system's, or your own (default: your own while it is up)")
            ->check(CLI::IsMember({"system", "user"}));
    }
    for (CLI::App* below : command.get_subcommands({}))
        AddCommonOptions(*below, options);
}

bool Parse(CLI::App& app, int argc, char** argv, const CommonOptions& options,
           const std::function<std::string()>& commandPath) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& wanted) { // --help, --version
        app.exit(wanted);
        return false;
    } catch (const CLI::ParseError& error) {
        std::string what = error.what();
        std::replace(what.begin(), what.end(), '\n', ' ');
        if (what.starts_with("A subcommand")) what = "a command is missing";
        if (what.starts_with("The ")) what[0] = 't';
        throw UsageFailure(what, "see '" + commandPath() + " --help'");
    }
    if (ScopeName() == "environment" && !options.scope.empty())
        throw UsageFailure("--scope has no effect here: the environment names the directories",
                           "unset ORIEL_STATE_DIR and ORIEL_RUNTIME_DIR, or omit it");
    return true;
}

namespace {

bool WantsJson(int argc, char** argv) {
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i)
        if (std::string_view(argv[i]) == "--json") return true;
    return false;
}

Exit Fail(const Failure& failure) {
    PrintFailure(failure);
    return failure.exitCode;
}

} // namespace

int RunAndReport(int argc, char** argv, const std::function<Exit()>& run) {
    // Without memory for the report of a failure, or for the end of a JSON document, which needs some.
    std::set_terminate([] {
        std::fputs("oriel: error: not enough memory\n", stderr);
        std::_Exit(static_cast<int>(Exit::False));
    });
    Exit result = Exit::False;
    try {
        DetectColour();
        g_output.json = WantsJson(argc, argv);
        result = run();
    } catch (const Failure& failure) {
        result = Fail(failure);
    } catch (const std::exception& error) {
        result = Fail({Exit::False, "unexpected failure", error.what(), ""});
    }
    if (const std::optional<Failure> failure = OutputFailure()) {
        PrintError(*failure);
        if (result == Exit::Done) result = failure->exitCode;
    }
    return static_cast<int>(result);
}
