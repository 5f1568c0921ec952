// A line at a time, words from left to right. No state.
#include "script.h"

#include "product/interface.h"

#include <tvsqdz.h>

#include <algorithm>
#include <charconv>
#include <optional>

namespace {

constexpr SIZE_T kNameMax = 31; // what a request variable holds
constexpr SIZE_T kFieldMax = 65536;
constexpr DWORD kPagesMax = 100000;
constexpr DWORD kQueueLengthMax = 1000;
constexpr ULONGLONG kLongestPageMs = 60 * 60 * 1000;

// An error in a line; caught where lines are counted.
struct LineError {
    std::string text;
};

[[noreturn]] void Fail(const std::string& text) {
    throw LineError{text};
}

std::string Quoted(std::string_view word) {
    return "'" + std::string(word) + "'";
}

// ---- words

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// The rest of a line, from which words are taken.
class Words {
public:
    explicit Words(std::string_view line) : m_rest(line) { SkipBlanks(); }

    bool AtEnd() const { return m_rest.empty(); }
    std::string_view Peek() const { return m_rest.substr(0, Length()); }
    // what: what is expected here, for the error message.
    std::string_view Take(const char* what) {
        if (AtEnd()) Fail(std::string("there should be ") + what);
        const std::string_view word = Peek();
        m_rest.remove_prefix(word.size());
        SkipBlanks();
        return word;
    }
    void ExpectEnd() const {
        if (!AtEnd()) Fail("nothing should follow, but there is " + Quoted(Peek()));
    }

private:
    // A text in quotes may hold blanks.
    SIZE_T Length() const {
        bool quoted = false;
        SIZE_T at = 0;
        for (; at < m_rest.size() && (quoted || !IsBlank(m_rest[at])); ++at) {
            if (m_rest[at] == '"') quoted = !quoted;
            if (quoted && m_rest[at] == '\\' && at + 1 < m_rest.size()) ++at;
        }
        return at;
    }
    void SkipBlanks() {
        while (!m_rest.empty() && IsBlank(m_rest.front()))
            m_rest.remove_prefix(1);
        if (!m_rest.empty() && m_rest.front() == '#') m_rest = {};
    }

    std::string_view m_rest;
};

// ---- numbers and values

template <typename Number>
std::optional<Number> ToNumber(std::string_view digits, int base) {
    Number number{};
    const char* end = digits.data() + digits.size();
    const std::from_chars_result result = std::from_chars(digits.data(), end, number, base);
    if (result.ec != std::errc{} || result.ptr != end) return std::nullopt;
    return number;
}

// -2147483648 to 4294967295, as the 32 bits that hold it.
DWORD ParseNumber(std::string_view word) {
    const bool hex = word.starts_with("0x") || word.starts_with("0X");
    const std::optional<LONGLONG> number = hex ? ToNumber<LONGLONG>(word.substr(2), 16) : ToNumber<LONGLONG>(word, 10);
    if (!number || *number < -2147483648LL || *number > 4294967295LL) Fail(Quoted(word) + " is no 32-bit number");
    return static_cast<DWORD>(*number);
}

DWORD ParseCount(std::string_view digits, const char* what, DWORD most) {
    const std::optional<DWORD> count = ToNumber<DWORD>(digits, 10);
    if (!count || *count == 0 || *count > most)
        Fail(Quoted(digits) + " is no " + what + " from 1 to " + std::to_string(most));
    return *count;
}

SIZE_T ParseSize(std::string_view digits) {
    return ParseCount(digits, "size", kFieldMax);
}

BYTE ParseHexByte(std::string_view digits) {
    const std::optional<BYTE> byte = digits.size() == 2 ? ToNumber<BYTE>(digits, 16) : std::nullopt;
    if (!byte) Fail(Quoted(digits) + " is no byte of two hexadecimal digits");
    return *byte;
}

// One escape, behind its backslash.
char Unescape(std::string_view& rest) {
    if (rest.empty()) Fail("a backslash ends the line");
    const char letter = rest.front();
    rest.remove_prefix(1);
    switch (letter) {
    case '\\':
    case '"':
        return letter;
    case 'n':
        return '\n';
    case 't':
        return '\t';
    case 'x': {
        const BYTE byte = ParseHexByte(rest.substr(0, 2));
        rest.remove_prefix(2);
        return static_cast<char>(byte);
    }
    default:
        Fail(std::string("there is no escape \\") + letter);
    }
}

// "text" with its NUL, or "text":N in a field of N bytes.
void AppendText(std::string_view word, Bytes& out) {
    std::string_view rest = word.substr(1);
    std::string text;
    for (;;) {
        if (rest.empty()) Fail("the text has no closing quote");
        const char c = rest.front();
        rest.remove_prefix(1);
        if (c == '"') break;
        if (static_cast<BYTE>(c) >= 0x80) Fail("only ASCII here; write other bytes of the ANSI code page as \\xHH");
        text += c == '\\' ? Unescape(rest) : c;
    }
    text += '\0';
    if (!rest.empty()) {
        if (rest.front() != ':') Fail("a text is followed by a blank or by :SIZE");
        const SIZE_T size = ParseSize(rest.substr(1));
        if (text.size() > size) Fail("the text and its NUL have " + std::to_string(text.size()) + " bytes");
        text.resize(size);
    }
    out.insert(out.end(), text.begin(), text.end());
}

void AppendNumber(std::string_view word, Bytes& out) {
    const SIZE_T colon = word.find(':');
    const DWORD number = ParseNumber(word.substr(0, colon));
    DWORD bits = 32;
    if (colon != word.npos) {
        const std::string_view width = word.substr(colon + 1);
        if (width != "8" && width != "16" && width != "32") Fail("a number has :8, :16 or :32 bits");
        bits = width == "8" ? 8 : width == "16" ? 16 : 32;
    }
    const auto value = static_cast<LONG>(number);
    if (bits < 32 && number >> bits != 0 && (value >= 0 || value < -(1L << (bits - 1))))
        Fail(Quoted(word) + " does not fit into its bits");
    for (DWORD shift = 0; shift < bits; shift += 8)
        out.push_back(static_cast<BYTE>(number >> shift));
}

void AppendItem(std::string_view word, Bytes& out) {
    constexpr std::string_view kHex = "hex:";
    constexpr std::string_view kZero = "zero:";
    if (word.starts_with('"')) {
        AppendText(word, out);
    } else if (word.starts_with(kHex)) {
        for (SIZE_T at = kHex.size(); at < word.size(); at += 2)
            out.push_back(ParseHexByte(word.substr(at, 2)));
    } else if (word.starts_with(kZero)) {
        out.insert(out.end(), ParseSize(word.substr(kZero.size())), BYTE{0});
    } else {
        AppendNumber(word, out);
    }
    if (out.size() > product::kValueSizeMax - sizeof(DWORD)) Fail("the value is larger than any value can be");
}

// ---- statements

std::string TakeName(Words& words) {
    const std::string_view name = words.Take("the name of a variable");
    if (name.size() > kNameMax) Fail(Quoted(name) + " has more than 31 characters");
    for (const char c : name)
        if (c <= ' ' || c > '~' || c == '"') Fail(Quoted(name) + " is no name of a variable");
    return std::string(name);
}

// The rest of the line.
DeviceValue TakeValue(Words& words, const std::string& origin) {
    DeviceValue value{.variable = TakeName(words), .bytes = {}, .origin = origin};
    do
        AppendItem(words.Take("a value"), value.bytes);
    while (!words.AtEnd());
    return value;
}

ULONGLONG TakeDuration(Words& words) {
    struct UnitRow {
        std::string_view name;
        DWORD ms;
    };
    constexpr UnitRow kUnits[] = {{"ms", 1}, {"s", 1000}, {"m", 60 * 1000}, {"h", 60 * 60 * 1000}};
    const std::string_view word = words.Take("a duration");
    const SIZE_T digits = std::min(word.find_first_not_of("0123456789"), word.size());
    const std::optional<DWORD> count = ToNumber<DWORD>(word.substr(0, digits), 10);
    for (const UnitRow& unit : kUnits)
        if (count && word.substr(digits) == unit.name) return ULONGLONG{*count} * unit.ms;
    Fail(Quoted(word) + " is no duration such as 200ms, 5s, 10m or 8h");
}

// The longest delay of a request: a day.
constexpr ULONGLONG kLongestDelayMs = 24 * 60 * 60 * 1000;

Rule TakeRule(Words& words, const std::string& origin) {
    Rule rule;
    const auto takeOutcome = [&] {
        const std::string_view word = words.Take("'delay', 'normal', 'set', 'fail', 'refuse' or 'ignore'");
        if (word == "set") {
            rule.sets = true;
            rule.value = TakeValue(words, origin);
        } else if (word == "fail") {
            rule.result = static_cast<LONG>(ParseNumber(words.Take("the result")));
            if (rule.result == 0) Fail("a failure is not 0");
        } else if (word == "refuse") {
            rule.result = TVS_E_NOT_NOW;
        } else if (word == "ignore") {
            rule.silent = true;
        } else if (word != "normal") {
            Fail("requests are answered by 'normal', 'set', 'fail', 'refuse' or 'ignore', not by " + Quoted(word));
        }
    };
    const bool delayed = words.Peek() == "delay";
    if (delayed) {
        words.Take("");
        const ULONGLONG delay = TakeDuration(words);
        if (delay > kLongestDelayMs) Fail("no answer takes longer than a day");
        rule.delayMs = static_cast<DWORD>(delay);
    }
    if (!delayed || !words.AtEnd()) takeOutcome();
    return rule;
}

Statement TakeOn(Words& words, const std::string& origin) {
    const std::string_view request = words.Take("'read', 'write' or 'refresh'");
    Statement statement{.verb = Verb::OnRefresh};
    if (request == "read" || request == "write") {
        statement.verb = request == "read" ? Verb::OnRead : Verb::OnWrite;
        statement.variable = TakeName(words);
    } else if (request != "refresh") {
        Fail("requests are 'read', 'write' and 'refresh', not " + Quoted(request));
    }
    statement.rule = TakeRule(words, origin);
    return statement;
}

DWORD TakePace(Words& words) {
    if (words.Peek() == "hold") {
        words.Take("");
        return kHoldJobs;
    }
    const ULONGLONG pace = TakeDuration(words);
    if (pace == 0 || pace > kLongestPageMs) Fail("a page takes from 1ms to 60m");
    return static_cast<DWORD>(pace);
}

DeviceQueue TakeQueue(Words& words) {
    DeviceQueue queue{.variable = TakeName(words)};
    queue.itemSize = static_cast<DWORD>(ParseSize(words.Take("the size of an item")));
    if (!words.AtEnd()) queue.length = ParseCount(words.Take(""), "length", kQueueLengthMax);
    if (ULONGLONG{queue.itemSize} * queue.length > product::kValueSizeMax / 2)
        Fail("the queue is larger than any can be");
    return queue;
}

Statement TakeStatement(Words& words, const std::string& origin) {
    const std::string_view verb = words.Take("a statement");
    Statement statement{.verb = Verb::Repeat};
    if (verb == "set" || verb == "initially" || verb == "append") {
        statement.verb = verb == "set" ? Verb::Set : verb == "append" ? Verb::Append : Verb::Initially;
        statement.value = TakeValue(words, origin);
        statement.value.item = statement.verb == Verb::Append;
    } else if (verb == "pages") {
        statement.verb = Verb::Pages;
        statement.number = ParseCount(words.Take("a number of pages"), "number of pages", kPagesMax);
    } else if (verb == "jobs") {
        statement.verb = Verb::Jobs;
        statement.number = TakePace(words);
    } else if (verb == "queue") {
        statement.verb = Verb::Queue;
        statement.queue = TakeQueue(words);
    } else if (verb == "wait") {
        statement.verb = Verb::Wait;
        statement.waitMs = TakeDuration(words);
    } else if (verb == "on") {
        statement = TakeOn(words, origin);
    } else if (verb != "repeat") {
        Fail("there is no statement " + Quoted(verb));
    }
    words.ExpectEnd();
    return statement;
}

constexpr ULONGLONG kShortestRoundMs = 100;

// Whether a repeat may follow the statements: without a pause they would run forever.
void CheckRepeat(const std::vector<Statement>& before) {
    ULONGLONG pause = 0;
    for (const Statement& statement : before) {
        if (statement.verb == Verb::Repeat) Fail("'repeat' ends a script, and stands there once");
        pause += statement.waitMs;
    }
    if (pause < kShortestRoundMs) Fail("'repeat' needs a 'wait' of 100ms or more before it");
}

} // namespace

std::vector<Statement> ReadScript(std::string_view text, const std::string& name, std::vector<std::string>* errors) {
    std::vector<Statement> statements;
    for (unsigned line = 1; !text.empty(); ++line) {
        const size_t end = std::min(text.find('\n'), text.size());
        Words words(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (words.AtEnd()) continue;
        const std::string origin = name + ":" + std::to_string(line);
        try {
            if (!statements.empty() && statements.back().verb == Verb::Repeat) Fail("nothing follows 'repeat'");
            Statement statement = TakeStatement(words, origin);
            if (statement.verb == Verb::Repeat) CheckRepeat(statements);
            statements.push_back(std::move(statement));
        } catch (const LineError& error) {
            errors->push_back(origin + ": " + error.text);
        }
    }
    return statements;
}
