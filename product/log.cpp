// State: the program's name, and the last messages with the counts of their repeats.
#include "product/log.h"

#include "product/lock.h"
#include "product/log_journal.h"

#include <windows.h>

#include <algorithm>
#include <iterator>
#include <stdio.h>
#include <string.h>

namespace product {

namespace {

constexpr DWORD kFirstSilenceMs = 60 * 1000;
constexpr DWORD kLongestSilenceMs = 60 * 60 * 1000;

// A message that was printed.
struct Message {
    char text[kLogLineMax + 1]; // empty: unused
    LogLevel level;
    DWORD printedAt; // tick count
    DWORD silenceMs; // repeats within it are counted
    DWORD repeats;   // since it was printed
};

Lock g_lock;
Message g_messages[16] GUARDED_BY(g_lock); // one more takes the place of the one that was printed first
const char* g_program GUARDED_BY(g_lock) = "";

struct LevelRow {
    const char* priority; // of the journal
    const char* word;     // elsewhere
};

LevelRow RowOf(LogLevel level) {
    switch (level) {
    case LogLevel::Error:
        return {"<3>", ""};
    case LogLevel::Warning:
        return {"<4>", "warning: "};
    case LogLevel::Note:
        return {"<5>", "note: "};
    }
    return {"", ""};
}

// One write for the line, so that lines of several processes do not mix.
void Print(Message& message) REQUIRES(g_lock) {
    const LevelRow row = RowOf(message.level);
    const bool journal = ErrorsGoToJournal();
    char count[40] = "";
    if (message.repeats > 0)
        snprintf(count, sizeof count, " (%u more time%s)", static_cast<unsigned>(message.repeats),
                 message.repeats == 1 ? "" : "s");
    char line[kLogLineMax + 128];
    const int length = snprintf(line, sizeof line, "%s%s: %s%s%s\n", journal ? row.priority : "", g_program,
                                journal ? "" : row.word, message.text, count);
    fwrite(line, 1, static_cast<SIZE_T>(std::clamp<int>(length, 0, sizeof line - 1)), stderr);
    fflush(stderr);
    message.printedAt = GetTickCount();
    message.repeats = 0;
}

bool IsFree(const Message& message) {
    return message.text[0] == '\0';
}

// A place for a message that is not among the last ones.
Message& FreePlace() REQUIRES(g_lock) {
    const DWORD now = GetTickCount();
    Message* oldest = &g_messages[0];
    for (Message& message : g_messages) {
        if (IsFree(message)) return message;
        if (now - message.printedAt > now - oldest->printedAt) oldest = &message;
    }
    if (oldest->repeats > 0) Print(*oldest);
    return *oldest;
}

Message Cleaned(LogLevel level, std::string_view text) {
    Message message = {.level = level, .silenceMs = kFirstSilenceMs};
    text = text.substr(0, kLogLineMax);
    std::transform(text.begin(), text.end(), message.text, [](char c) {
        const auto byte = static_cast<BYTE>(c);
        return byte < ' ' || byte == 0x7F ? '?' : c;
    });
    return message;
}

} // namespace

void NameLog(const char* program) {
    LockHold hold{g_lock};
    g_program = program;
}

void Log(LogLevel level, std::string_view text) {
    const Message message = Cleaned(level, text);
    LockHold hold{g_lock};
    for (Message& known : g_messages) {
        if (IsFree(known) || known.level != level || strcmp(known.text, message.text) != 0) continue;
        if (GetTickCount() - known.printedAt < known.silenceMs) {
            ++known.repeats;
            return;
        }
        // One that has not come for as long as it was silent before is new again.
        known.silenceMs = known.repeats > 0 ? std::min(known.silenceMs * 2, kLongestSilenceMs) : kFirstSilenceMs;
        Print(known);
        return;
    }
    Message& place = FreePlace();
    place = message;
    Print(place);
}

void EndLog() {
    LockHold hold{g_lock};
    for (Message& message : g_messages)
        if (message.repeats > 0) Print(message);
}

} // namespace product
