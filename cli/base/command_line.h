// What the command lines of all our programs for people have in common: options, exit codes, and the one place that
// prints a failure. No state.
#pragma once

#include "base/failure.h"

#include <functional>
#include <string>

namespace CLI {
class App;
}

// The footer of a help text.
extern const char* const kExitCodes;

struct CommonOptions {
    bool json = false; // known before the parse, which may fail before it reaches the option
    std::string scope; // the layer knows it already
};
// For the command and all below it, whose help texts list them.
void AddCommonOptions(CLI::App& command, CommonOptions& options);

// False: --help or --version was wanted, and printed. Throws Failure. commandPath: of the command that the line names,
// "oriel reg set"; it may throw a better Failure.
bool Parse(CLI::App& app, int argc, char** argv, const CommonOptions& options,
           const std::function<std::string()>& commandPath);

// The body of main(): the exit code of `run`, or of the Failure that it throws, which is printed.
int RunAndReport(int argc, char** argv, const std::function<Exit()>& run);
