// No state.
#include "mqtt/messages.h"

#include "base/text.h"

#include <algorithm>
#include <iterator>

namespace views {

namespace {

constexpr int kDepthMax = 8;
constexpr size_t kTextMax = 4096;
constexpr size_t kIdMax = 128;

std::string Line(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Before it is parsed, so that nothing is built of one that is too deep.
bool IsFlatEnough(std::string_view document) {
    int depth = 0;
    bool inText = false;
    for (size_t i = 0; i < document.size(); ++i) {
        const char c = document[i];
        if (inText) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inText = false;
        } else if (c == '"') {
            inText = true;
        } else if (c == '{' || c == '[') {
            if (++depth > kDepthMax) return false;
        } else if (c == '}' || c == ']') {
            --depth;
        }
    }
    return true;
}

// An object; null for anything else.
Json ParseObject(std::string_view document) {
    if (document.size() > kDocumentMax || !IsFlatEnough(document)) return nullptr;
    Json json = Json::parse(document, nullptr, false);
    return json.is_object() ? json : Json(nullptr);
}

std::string TextOf(const Json& json, const char* key) {
    const auto found = json.find(key);
    if (found == json.end() || !found->is_string()) return "";
    std::string text = found->get<std::string>();
    if (text.size() > kTextMax) text.resize(kTextMax);
    return Printable(text);
}

template <typename Number>
Number NumberOf(const Json& json, const char* key) {
    const auto found = json.find(key);
    if (found == json.end()) return 0;
    if (found->is_number_unsigned()) {
        const auto number = found->get<uint64_t>();
        return number <= static_cast<uint64_t>(std::numeric_limits<Number>::max()) ? static_cast<Number>(number) : 0;
    }
    return 0; // negative ones and fractions mean nothing here
}

// Texts in it are shown.
Json MadePrintable(const Json& json) {
    if (json.is_string()) return Printable(json.get<std::string>());
    if (json.is_array()) {
        Json list = Json::array();
        for (const Json& item : json)
            list.push_back(MadePrintable(item));
        return list;
    }
    if (!json.is_object()) return json;
    Json object = Json::object();
    for (const auto& [key, item] : json.items())
        object[Printable(key)] = MadePrintable(item);
    return object;
}

product::Severity SeverityOf(const std::string& name) {
    for (const product::Severity severity :
         {product::Severity::Info, product::Severity::Warning, product::Severity::Error})
        if (name == NameOf(severity)) return severity;
    return product::Severity::None;
}

} // namespace

std::string ValueDocument(const Value& value) {
    return Line({{"value", value.json},
                 {"text", value.text},
                 {"meaning", value.meaning},
                 {"severity", NameOf(value.severity)},
                 {"source", value.origin},
                 {"seq", value.writes},
                 {"time", value.writtenMs}});
}

std::string AboutDocument(const Printer& printer) {
    return Line({{"name", printer.name},
                 {"driver", printer.driver},
                 {"device", printer.device},
                 {"stale", printer.stale},
                 {"trouble", printer.trouble},
                 {"answered", printer.answeredMs},
                 {"variables", printer.values.size()}});
}

std::optional<Value> ParseValue(std::string_view document) {
    const Json json = ParseObject(document);
    if (!json.is_object() || !json.contains("value")) return std::nullopt;
    return Value{.json = MadePrintable(json.at("value")),
                 .text = TextOf(json, "text"),
                 .meaning = TextOf(json, "meaning"),
                 .severity = SeverityOf(TextOf(json, "severity")),
                 .origin = TextOf(json, "source"),
                 .writes = NumberOf<uint64_t>(json, "seq"),
                 .writtenMs = NumberOf<int64_t>(json, "time")};
}

std::optional<About> ParseAbout(std::string_view document) {
    const Json json = ParseObject(document);
    if (!json.is_object()) return std::nullopt;
    About about{.variables = NumberOf<size_t>(json, "variables")};
    about.printer.name = TextOf(json, "name");
    about.printer.driver = TextOf(json, "driver");
    about.printer.device = TextOf(json, "device");
    about.printer.stale = json.contains("stale") && json.at("stale") == true;
    about.printer.trouble = TextOf(json, "trouble");
    about.printer.answeredMs = NumberOf<int64_t>(json, "answered");
    return about;
}

std::optional<Command> ParseCommand(std::string_view document) {
    const Json json = ParseObject(document);
    if (!json.is_object()) return std::nullopt;
    Command command{.command = TextOf(json, "command"), .job = NumberOf<uint32_t>(json, "job")};
    const auto id = json.find("id");
    if (id != json.end() &&
        ((id->is_string() && id->get_ref<const std::string&>().size() <= kIdMax) || id->is_number()))
        command.id = *id;
    constexpr const char* kCommands[] = {"pause", "resume", "cancel"};
    const bool known = std::any_of(std::begin(kCommands), std::end(kCommands),
                                   [&](const char* name) { return command.command == name; });
    return known && command.job != 0 ? std::optional(command) : std::nullopt;
}

} // namespace views
