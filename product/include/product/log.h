// The log of the product's programs that run for long: one line on standard error for each message.
//
//     TVSPSD: day.script:12: "Port" does not take this value (-7)
//     TVSPSD: warning: the service does not answer (12 more times)
//
// Where standard error is systemd's journal, a line begins with its priority instead ("<4>TVSPSD: ..."; sd-daemon(3)).
// A message that repeats is counted, not printed, for a minute, then for twice as long each time, up to an hour; the
// next line of the message has the count. Control characters are shown as "?", so that a message is one line whatever
// is in it; what is longer than kLogLineMax is cut off.
//
// Any thread may log. Nothing is allocated, nothing fails: what cannot be written is lost.
#pragma once

#include <string_view>

namespace product {

enum class LogLevel {
    Error,   // the program, or what was asked of it, cannot go on
    Warning, // it goes on, without something
    Note     // worth knowing
};

inline constexpr int kLogLineMax = 1023; // bytes of a message

// The name in front of each line. Called before the first message; the text is kept.
void NameLog(const char* program);

// text: in UTF-8 or the ANSI code page, without a newline.
void Log(LogLevel level, std::string_view text);

// At the end of a program: prints the messages whose repeats were counted since their last line.
void EndLog();

} // namespace product
