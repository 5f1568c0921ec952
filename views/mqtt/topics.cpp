// No state.
#include "mqtt/topics.h"

#include "base/text.h"

#include <mosquitto.h>

#include <algorithm>
#include <vector>

namespace views {

namespace {

constexpr char kHex[] = "0123456789ABCDEF";
constexpr size_t kPrefixMax = 200;
constexpr size_t kNameMax = 1024; // bytes; longer ones are nobody's

// The bytes of the character there; 1 for what is none.
size_t CharacterAt(std::string_view text, size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    return at + length <= text.size() ? length : 1;
}

bool MayStand(std::string_view character) {
    if (character.size() == 1 && (character[0] < ' ' || character[0] == '\x7F')) return false;
    return character.find_first_of("%/+#") == std::string_view::npos &&
           mosquitto_validate_utf8(character.data(), static_cast<int>(character.size())) == MOSQ_ERR_SUCCESS;
}

int HexDigit(char digit) {
    const char* found = std::find(kHex, kHex + 16, digit);
    return found == kHex + 16 ? -1 : static_cast<int>(found - kHex);
}

std::vector<std::string_view> Levels(std::string_view topic) {
    std::vector<std::string_view> levels;
    for (size_t begin = 0;;) {
        const size_t end = topic.find('/', begin);
        levels.push_back(topic.substr(begin, end - begin));
        if (end == std::string_view::npos) return levels;
        begin = end + 1;
    }
}

} // namespace

std::string LevelOf(std::string_view name) {
    if (name.empty()) return "%";
    std::string level;
    for (size_t at = 0; at < name.size();) {
        const std::string_view character = name.substr(at, CharacterAt(name, at));
        at += character.size();
        if (MayStand(character)) {
            level += character;
            continue;
        }
        for (const char c : character) {
            const auto byte = static_cast<unsigned char>(c);
            level += {'%', kHex[byte >> 4], kHex[byte & 15]};
        }
    }
    return level;
}

std::optional<std::string> NameOfLevel(std::string_view level) {
    std::string name;
    if (level.empty() || level.size() > 3 * kNameMax) return std::nullopt;
    if (level == "%") return name;
    for (size_t at = 0; at < level.size(); ++at) {
        if (level[at] != '%') {
            name += level[at];
            continue;
        }
        const int high = at + 2 < level.size() ? HexDigit(level[at + 1]) : -1;
        const int low = high < 0 ? -1 : HexDigit(level[at + 2]);
        if (low < 0) return std::nullopt;
        name += static_cast<char>(high << 4 | low);
        at += 2;
    }
    // Printable() shows what is neither text nor printable in another way.
    return name.size() <= kNameMax && Printable(name) == name ? std::optional(name) : std::nullopt;
}

bool IsPrefix(std::string_view prefix) {
    if (prefix.empty() || prefix.size() > kPrefixMax || prefix.front() == '$') return false;
    const std::vector<std::string_view> levels = Levels(prefix);
    return std::all_of(levels.begin(), levels.end(),
                       [](std::string_view level) { return !level.empty() && LevelOf(level) == level; });
}

std::optional<Topic> ParseTopic(const std::string& prefix, std::string_view topic) {
    if (!topic.starts_with(prefix) || topic.size() <= prefix.size() || topic[prefix.size()] != '/') return std::nullopt;
    const std::vector<std::string_view> levels = Levels(topic.substr(prefix.size() + 1));
    const auto nameAt = [&](size_t place) { return NameOfLevel(levels[place]).value_or(""); };
    Topic parsed{.machine = nameAt(0)};
    if (parsed.machine.empty()) return std::nullopt;
    if (levels.size() == 2 && levels[1] == "available") return parsed;
    if (levels.size() < 4 || levels[1] != "printers") return std::nullopt;
    parsed.printer = nameAt(2);
    if (parsed.printer.empty()) return std::nullopt;
    if (levels.size() == 4 && (levels[3] == "about" || levels[3] == "command")) {
        parsed.kind = levels[3] == "about" ? TopicKind::About : TopicKind::Command;
        return parsed;
    }
    if (levels.size() != 5 || levels[3] != "values") return std::nullopt;
    parsed.kind = TopicKind::Value;
    parsed.variable = nameAt(4);
    return parsed.variable.empty() ? std::nullopt : std::optional(parsed);
}

} // namespace views
