// How results reach the user: plain text, aligned tables, or with --json one JSON document on standard output.
#pragma once

#include "base/failure.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

// Keeps keys in the order in which they are set.
using Json = nlohmann::ordered_json;

enum class Style { Plain, Name, Good, Bad, Faint };

struct Output {
    bool json = false;
    bool stream = false;      // with json: a line for each event, failures too
    bool terminal = false;    // standard output is one
    bool colour = false;      // standard output is a terminal and NO_COLOR is unset
    bool errorColour = false; // the same of standard error
};
// Set once by main() before a command runs.
extern Output g_output;

void DetectColour();
std::string Styled(const std::string& text, Style style);

// Writes at once. OutputFailure reports what could not be written (a full disk, a closed pipe).
void PrintText(const std::string& text);
void PrintLine(const std::string& line);
void PrintJson(const Json& document);     // indented
void PrintJsonLine(const Json& document); // on one line
// None as long as every write succeeded.
std::optional<Failure> OutputFailure();

// One line on standard error.
void PrintError(const Failure& failure);
// The same in the log, as a warning; for commands that go on.
void LogFailure(const Failure& failure);
// The same, and with --json also {"error": ...} as one line on standard output; in a stream it begins with "event":
// "error".
void PrintFailure(const Failure& failure);
// {"exitCode": 1, "what": ..., "why": ..., "next": ..., "code": -19}
Json FailureJson(const Failure& failure);

// Columns are two blanks apart. The last one is not padded.
struct Table {
    std::vector<std::vector<std::string>> rows;
    void Print(bool firstRowIsHeading = true) const;
};
