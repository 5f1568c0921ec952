// The JSON documents in the topics of printers. docs/mqtt.md describes them. No state.
#pragma once

#include "model/source.h"

namespace views {

// The longest document that is read.
inline constexpr size_t kDocumentMax = 128 * 1024;

// {"value", "text", "meaning", "severity", "source", "seq", "time"}
std::string ValueDocument(const Value& value);
// {"name", "driver", "device", "stale", "trouble", "answered", "variables"}
std::string AboutDocument(const Printer& printer);

// Nothing for a document that is too long, nested too deeply, or no such record. Whoever may publish may have written
// it: texts are made printable.
std::optional<Value> ParseValue(std::string_view document);
struct About {
    Printer printer; // without machine and values
    size_t variables = 0;
};
std::optional<About> ParseAbout(std::string_view document);
// {"command": "pause", "resume" or "cancel", "job", "id" (optional)}
struct Command {
    std::string command;
    uint32_t job = 0;
    Json id; // a text or a number; null: none
};
std::optional<Command> ParseCommand(std::string_view document);

} // namespace views
