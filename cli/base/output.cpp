// Output of the command. State: g_output and why the first write failed.
#include "base/output.h"

#include "base/text.h"

#include "product/log.h"

#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

Output g_output;

namespace {

int g_writeError = 0; // of errno

bool IsTerminal(DWORD which) {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(which), &mode) != FALSE;
}

std::string Paint(const std::string& text, const char* code) {
    return std::string("\x1b[") + code + "m" + text + "\x1b[0m";
}

} // namespace

void DetectColour() {
    // Any value but the empty one counts (no-color.org).
    const char* noColour = std::getenv("NO_COLOR");
    const bool wanted = !noColour || !*noColour;
    g_output.terminal = IsTerminal(STD_OUTPUT_HANDLE);
    g_output.colour = wanted && g_output.terminal;
    g_output.errorColour = wanted && IsTerminal(STD_ERROR_HANDLE);
}

std::string Styled(const std::string& text, Style style) {
    if (!g_output.colour) return text;
    switch (style) {
    case Style::Plain:
        return text;
    case Style::Name:
        return Paint(text, "1");
    case Style::Good:
        return Paint(text, "32");
    case Style::Bad:
        return Paint(text, "31");
    case Style::Faint:
        return Paint(text, "2");
    }
    return text;
}

void PrintText(const std::string& text) {
    if (g_writeError != 0) return;
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
        g_writeError = errno != 0 ? errno : EIO;
}

void PrintLine(const std::string& line) {
    PrintText(line + "\n");
}

void PrintJson(const Json& document) {
    PrintLine(document.dump(2, ' ', false, Json::error_handler_t::replace));
}

void PrintJsonLine(const Json& document) {
    PrintLine(document.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::optional<Failure> OutputFailure() {
    if (g_writeError == 0) return std::nullopt;
    return Failure{Exit::False, "cannot write to standard output", std::strerror(g_writeError), ""};
}

void PrintError(const Failure& failure) {
    const std::string line = Printable(FailureLine(failure)) + "\n";
    const std::string name = g_output.errorColour ? Paint("oriel:", "1;31") : "oriel:";
    std::fputs((name + " " + line).c_str(), stderr);
}

void LogFailure(const Failure& failure) {
    product::Log(product::LogLevel::Warning, Printable(FailureLine(failure)));
}

void PrintFailure(const Failure& failure) {
    PrintError(failure);
    if (!g_output.json) return;
    Json line = Json::object();
    if (g_output.stream) line["event"] = "error";
    line["error"] = FailureJson(failure);
    PrintJsonLine(line);
}

Json FailureJson(const Failure& failure) {
    return {{"exitCode", static_cast<int>(failure.exitCode)},
            {"what", failure.what},
            {"why", failure.why},
            {"next", failure.next},
            {"code", failure.code}};
}

void Table::Print(bool firstRowIsHeading) const {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], DisplayWidth(row[i]));
    }
    std::string text;
    for (size_t r = 0; r < rows.size(); ++r) {
        const auto& row = rows[r];
        for (size_t i = 0; i < row.size(); ++i) {
            const Style style = r == 0 && firstRowIsHeading ? Style::Faint : i == 0 ? Style::Name : Style::Plain;
            text += Styled(row[i], style);
            if (i + 1 < row.size()) text.append(widths[i] - DisplayWidth(row[i]) + 2, ' ');
        }
        text += '\n';
    }
    PrintText(text);
}
