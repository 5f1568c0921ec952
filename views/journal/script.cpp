// No state.
#include "journal/script.h"

#include "base/text.h"

#include "product/meanings.h"
#include "product/variable_types.h"

#include <algorithm>
#include <cstring>

namespace views {

namespace {

constexpr size_t kWordsMost = 8; // longer records are bytes

std::string NumberText(const std::vector<uint8_t>& value, size_t at, size_t size) {
    uint32_t number = 0;
    std::memcpy(&number, value.data() + at, size);
    const std::string text = number == UINT32_MAX ? "-1" : std::to_string(number);
    return size == 4 ? text : text + ":" + std::to_string(size * 8);
}

bool IsZero(const std::vector<uint8_t>& value, size_t from) {
    return std::all_of(value.begin() + static_cast<ptrdiff_t>(from), value.end(),
                       [](uint8_t byte) { return byte == 0; });
}

// The length of a text that is all of the value, up to NULs; none: it is no such text.
std::optional<size_t> TextLength(const std::vector<uint8_t>& value) {
    const auto end = std::find(value.begin(), value.end(), 0);
    const auto length = static_cast<size_t>(end - value.begin());
    const bool text = std::all_of(value.begin(), end, [](uint8_t byte) { return byte >= 0x20 && byte < 0x7F; });
    return text && length < value.size() && IsZero(value, length) ? std::optional(length) : std::nullopt;
}

std::string QuotedText(const std::vector<uint8_t>& value, size_t length) {
    std::string quoted = "\"";
    for (size_t i = 0; i < length; ++i) {
        if (value[i] == '"' || value[i] == '\\') quoted += '\\';
        quoted += static_cast<char>(value[i]);
    }
    return quoted + "\"";
}

std::string HexText(const std::vector<uint8_t>& value) {
    std::string hex = ToHex(value.data(), value.size());
    std::erase(hex, ' ');
    return "hex:" + hex;
}

std::string ValueText(const Variable& variable, const std::vector<uint8_t>& value) {
    const bool number = variable.type == SVT_BYTE || variable.type == SVT_WORD || variable.type == SVT_NUMBER;
    if (number && (value.size() == 1 || value.size() == 2 || value.size() == 4))
        return NumberText(value, 0, value.size());
    if (variable.type == SVT_STRING || (variable.type == SVT_RECORD && value.size() > kWordsMost * 4)) {
        const std::optional<size_t> length = TextLength(value);
        // A script pads strings and records.
        if (length && (*length > 0 || variable.type == SVT_STRING)) return QuotedText(value, *length);
    }
    if (!value.empty() && IsZero(value, 0) && value.size() > kWordsMost * 4)
        return "zero:" + std::to_string(value.size());
    if (variable.type == SVT_RECORD && value.size() % 4 == 0 && !value.empty() && value.size() <= kWordsMost * 4) {
        std::string words;
        for (size_t at = 0; at < value.size(); at += 4)
            words += (at == 0 ? "" : " ") + NumberText(value, at, 4);
        return words;
    }
    return HexText(value);
}

} // namespace

std::string ScriptComment(const std::string& text) {
    std::string comment = "# ";
    for (const char c : text)
        comment += c >= 0x20 && c < 0x7F ? c : '?';
    return comment + "\n";
}

const Variable* ScriptWriter::Find(const std::string& variable) const {
    const std::optional<std::string> name = ToAnsi(variable);
    return name ? FindVariable(m_variables, *name) : nullptr;
}

bool ScriptWriter::Takes(const std::string& name) const {
    const Variable* variable = Find(name);
    if (variable == nullptr || variable->type == SVT_COMPOSITE || variable->type == SVT_QUEUE) return false;
    if (variable->fromModel) return true;
    const product::VariableMeaning* meaning = product::MeaningOf(variable->name.c_str());
    return meaning != nullptr && meaning->origin == product::Origin::Device;
}

std::string ScriptWriter::Wait(int64_t atMs) {
    if (m_atMs == 0) m_atMs = atMs;
    if (atMs <= m_atMs) return "";
    const std::string line = "wait " + std::to_string(atMs - m_atMs) + "ms\n";
    m_atMs = atMs;
    return line;
}

std::string ScriptWriter::Set(const std::string& name, const std::vector<uint8_t>& value, int64_t atMs) {
    return Wait(atMs) + "set " + name + " " + ValueText(*Find(name), value) + "\n";
}

} // namespace views
