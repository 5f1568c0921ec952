// The topics in a broker. docs/mqtt.md describes them. No state.
//
//   PREFIX/MACHINE/available                           "online", "offline" (the will)
//   PREFIX/MACHINE/printers/PRINTER/about              what is known of the printer itself
//   PREFIX/MACHINE/printers/PRINTER/values/VARIABLE    the value of a variable
//   PREFIX/MACHINE/printers/PRINTER/command, answer    commands for the printer, and what came of them
//
// Names are single levels: "%", "/", "+", "#" and what MQTT does not allow are bytes in hexadecimal ("%2F").
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace views {

inline constexpr char kDefaultPrefix[] = "oriel";
inline constexpr char kOnline[] = "online";
inline constexpr char kOffline[] = "offline";

// A name as one level; never empty, because an empty name is "%".
std::string LevelOf(std::string_view name);
// Nothing when the level is not in that form, or the name is not UTF-8 without control characters.
std::optional<std::string> NameOfLevel(std::string_view level);

// Levels that may be in front of all topics: "oriel", "site/oriel". False for what is no such text.
bool IsPrefix(std::string_view prefix);

// All below one machine.
struct MachineTopics {
    std::string machine; // PREFIX/MACHINE

    MachineTopics(const std::string& prefix, const std::string& name) : machine(prefix + "/" + LevelOf(name)) {}
    std::string Available() const { return machine + "/available"; }
    std::string Printer(const std::string& name) const { return machine + "/printers/" + LevelOf(name); }
    std::string About(const std::string& printer) const { return Printer(printer) + "/about"; }
    std::string Value(const std::string& printer, const std::string& variable) const {
        return Printer(printer) + "/values/" + LevelOf(variable);
    }
    std::string Answer(const std::string& printer) const { return Printer(printer) + "/answer"; }
    std::string AllCommands() const { return machine + "/printers/+/command"; }
    std::string AllAbout() const { return machine + "/printers/+/about"; }
    std::string AllValues() const { return machine + "/printers/+/values/+"; }
};

enum class TopicKind { Available, About, Value, Command };
struct Topic {
    TopicKind kind = TopicKind::Available;
    std::string machine;
    std::string printer;
    std::string variable;
};
// Nothing for another topic. Whoever may publish may have chosen it.
std::optional<Topic> ParseTopic(const std::string& prefix, std::string_view topic);

} // namespace views
