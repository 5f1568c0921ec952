// The layouts of records, and how values are shown.
//   1 layouts   2 taking apart   3 JSON   4 text   5 putting together
// No state.
#include "base/presentation.h"

#include "product/variable_names.h"

#include <tvsqdz.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// ---- 1 layouts

struct FieldLayout {
    const char* name;
    size_t offset;
    size_t size; // 4: a number; else NUL-terminated text
    std::span<const product::Named> meanings{};
};

struct RecordLayout {
    const char* variable;
    size_t size;
    std::span<const FieldLayout> fields;
};

constexpr product::Named kPortKindBits[] = {{TVS_PORT_NO_REQUESTS, "takes no direct requests"}};

constexpr FieldLayout kJobFields[] = {
    {"jobName", offsetof(TvsJobRecord, jobName), sizeof(TvsJobRecord::jobName)},
    {"ownerName", offsetof(TvsJobRecord, ownerName), sizeof(TvsJobRecord::ownerName)},
    {"jobId", offsetof(TvsJobRecord, jobId), 4},
};
constexpr FieldLayout kPrintingJobFields[] = {
    {"jobName", offsetof(TvsPrintingJobRecord, jobName), sizeof(TvsPrintingJobRecord::jobName)},
    {"ownerName", offsetof(TvsPrintingJobRecord, ownerName), sizeof(TvsPrintingJobRecord::ownerName)},
    {"jobId", offsetof(TvsPrintingJobRecord, jobId), 4},
    {"progress", offsetof(TvsPrintingJobRecord, progress), 4},
};
constexpr FieldLayout kPortFields[] = {
    {"portKind", offsetof(TvsPortRecord, portKind), 4, kPortKindBits},
    {"portName", offsetof(TvsPortRecord, portName), sizeof(TvsPortRecord::portName)},
    {"portDetail", offsetof(TvsPortRecord, portDetail), sizeof(TvsPortRecord::portDetail)},
};
constexpr RecordLayout kRecords[] = {
    {names::kPort, sizeof(TvsPortRecord), kPortFields},
    {names::kPrintingJobInfo, sizeof(TvsPrintingJobRecord), kPrintingJobFields},
    {names::kSendingJobInfo, sizeof(TvsJobRecord), kJobFields},
};
constexpr const char* kJobQueues[] = {names::kPrinterQueue, names::kSpoolerQueue};

// Null for a record of a model that has the name of a built-in one but another size.
const RecordLayout* LayoutOf(const Variable& variable) {
    for (const RecordLayout& layout : kRecords)
        if (variable.name == layout.variable && variable.type == SVT_RECORD && variable.size == layout.size)
            return &layout;
    return nullptr;
}

bool IsJobQueue(const Variable& variable) {
    return variable.type == SVT_VARIABLE && std::any_of(std::begin(kJobQueues), std::end(kJobQueues),
                                                        [&](const char* name) { return variable.name == name; });
}

unsigned NumberBits(uint32_t type) {
    switch (type) {
    case SVT_BYTE:
        return 8;
    case SVT_WORD:
        return 16;
    case SVT_NUMBER:
        return 32;
    default:
        return 0;
    }
}

// ---- 2 taking apart

uint64_t NumberAt(const uint8_t* bytes, unsigned bits) {
    uint64_t number = 0;
    std::memcpy(&number, bytes, bits / 8);
    return number;
}

Decoded DecodeNumber(const uint8_t* bytes, unsigned bits, std::span<const product::Named> meanings = {}) {
    return {.form = Decoded::Form::Number, .number = NumberAt(bytes, bits), .bits = bits, .meanings = meanings};
}

Decoded DecodeFields(std::span<const FieldLayout> fields, const uint8_t* record) {
    Decoded decoded{.form = Decoded::Form::Parts};
    for (const FieldLayout& field : fields) {
        Decoded part = field.size == 4 ? DecodeNumber(record + field.offset, 32, field.meanings)
                                       : Decoded{.form = Decoded::Form::Text,
                                                 .text = FieldToUtf8(record + field.offset, field.size)};
        part.name = field.name;
        decoded.parts.push_back(std::move(part));
    }
    return decoded;
}

Decoded DecodeJobQueue(const Bytes& value) {
    // The count is what a writer claims. Only entries that are present are shown.
    constexpr size_t kEntries = offsetof(TvsJobQueue, entries);
    const size_t count = std::min<size_t>(NumberAt(value.data(), 32), (value.size() - kEntries) / sizeof(TvsJobRecord));
    Decoded decoded{.form = Decoded::Form::List};
    for (size_t i = 0; i < count; ++i)
        decoded.parts.push_back(DecodeFields(kJobFields, value.data() + kEntries + i * sizeof(TvsJobRecord)));
    return decoded;
}

Decoded DecodeWords(const Bytes& value) {
    Decoded decoded{.form = Decoded::Form::List};
    for (size_t at = 0; at + 4 <= value.size(); at += 4)
        decoded.parts.push_back(DecodeNumber(value.data() + at, 32));
    return decoded;
}

Decoded DecodeMembers(const std::vector<Variable>& variables, const Variable& composite, const Bytes& value) {
    Decoded decoded{.form = Decoded::Form::Parts};
    size_t at = 0;
    for (const std::string& name : composite.members) {
        const Variable* member = FindVariable(variables, name);
        if (!member) continue;
        if (member->type == SVT_COMPOSITE || at + member->room > value.size()) break;
        const auto begin = value.begin() + static_cast<ptrdiff_t>(at);
        const Bytes bytes(begin, begin + static_cast<ptrdiff_t>(member->room));
        // The service cuts or pads a value that varies to its room, so its form is lost.
        Decoded part = member->size != 0 ? Decode(variables, *member, bytes)
                                         : Decoded{.form = Decoded::Form::Bytes, .bytes = bytes};
        part.name = ToUtf8(name);
        decoded.parts.push_back(std::move(part));
        at += member->room;
    }
    return decoded;
}

} // namespace

Decoded Decode(const std::vector<Variable>& variables, const Variable& variable, const Bytes& value) {
    const Decoded bytes{.form = Decoded::Form::Bytes, .bytes = value};
    switch (variable.type) {
    case SVT_BYTE:
    case SVT_WORD:
    case SVT_NUMBER: {
        const unsigned bits = NumberBits(variable.type);
        if (value.size() != bits / 8) return bytes;
        const product::VariableMeaning* meaning = product::MeaningOf(variable.name.c_str());
        return meaning && !meaning->words.empty() ? DecodeNumber(value.data(), bits, meaning->words[0].bits)
                                                  : DecodeNumber(value.data(), bits);
    }
    case SVT_STRING:
        return {.form = Decoded::Form::Text, .text = FieldToUtf8(value.data(), value.size())};
    case SVT_RECORD:
        if (const RecordLayout* layout = LayoutOf(variable); layout && value.size() == layout->size)
            return DecodeFields(layout->fields, value.data());
        if (value.empty() || value.size() % 4 != 0) return bytes;
        return value.size() == 4 ? DecodeNumber(value.data(), 32) : DecodeWords(value);
    case SVT_COMPOSITE:
        return DecodeMembers(variables, variable, value);
    case SVT_VARIABLE:
        return IsJobQueue(variable) && value.size() >= TVS_JOB_QUEUE_SIZE(0) ? DecodeJobQueue(value) : bytes;
    default: // a queue's items and the types of models have no form of their own
        return bytes;
    }
}

// ---- 3 JSON

bool IsUnknown(const Decoded& decoded) {
    return decoded.form == Decoded::Form::Number && decoded.bits == 32 && decoded.number == UINT32_MAX;
}

Json ToJson(const Decoded& decoded) {
    switch (decoded.form) {
    case Decoded::Form::Number:
        return IsUnknown(decoded) ? Json(nullptr) : Json(decoded.number);
    case Decoded::Form::Text:
        return decoded.text;
    case Decoded::Form::Bytes:
        return nullptr;
    case Decoded::Form::Parts: {
        Json object = Json::object();
        for (const Decoded& part : decoded.parts)
            object[part.name] = ToJson(part);
        return object;
    }
    case Decoded::Form::List: {
        Json list = Json::array();
        for (const Decoded& part : decoded.parts)
            list.push_back(ToJson(part));
        return list;
    }
    }
    return nullptr;
}

Json NamedBits(const Decoded& decoded) {
    Json names = Json::array();
    if (IsUnknown(decoded)) return names;
    for (const product::Named& meaning : decoded.meanings)
        if (decoded.number & meaning.value) names.push_back(meaning.words);
    return names;
}

// ---- 4 text

namespace {

std::string NumberText(const Decoded& decoded) {
    if (IsUnknown(decoded)) return kUnknown;
    const std::string text = std::to_string(decoded.number);
    std::string meanings;
    for (const product::Named& meaning : decoded.meanings)
        if (decoded.number & meaning.value) meanings += (meanings.empty() ? ": " : ", ") + std::string(meaning.words);
    if (decoded.number < 10 && meanings.empty()) return text;
    char hexadecimal[24];
    std::snprintf(hexadecimal, sizeof hexadecimal, "0x%llX", static_cast<unsigned long long>(decoded.number));
    return text + " (" + hexadecimal + meanings + ")";
}

bool IsRecord(const Decoded& decoded) {
    return decoded.form == Decoded::Form::Parts;
}

bool SameNumbers(const std::vector<Decoded>& parts) {
    return std::all_of(parts.begin(), parts.end(), [&](const Decoded& part) {
        return part.form == Decoded::Form::Number && part.number == parts.front().number;
    });
}

} // namespace

std::string OneLine(const Decoded& decoded) {
    switch (decoded.form) {
    case Decoded::Form::Number:
        return NumberText(decoded);
    case Decoded::Form::Text:
        return "\"" + Printable(decoded.text) + "\"";
    case Decoded::Form::Bytes:
        return ToHex(decoded.bytes.data(), decoded.bytes.size());
    case Decoded::Form::Parts: {
        std::string line;
        for (const Decoded& part : decoded.parts)
            line += (line.empty() ? "" : ", ") + Printable(part.name) + " " +
                    (part.parts.empty() ? OneLine(part) : "{" + OneLine(part) + "}");
        return line;
    }
    case Decoded::Form::List: {
        if (decoded.parts.empty()) return "none";
        if (IsRecord(decoded.parts.front()))
            return std::to_string(decoded.parts.size()) + (decoded.parts.size() == 1 ? " entry" : " entries");
        if (decoded.parts.size() > 4 && SameNumbers(decoded.parts))
            return NumberText(decoded.parts.front()) + ", " + std::to_string(decoded.parts.size()) + " times";
        std::string line;
        for (const Decoded& part : decoded.parts)
            line += (line.empty() ? "" : ", ") + OneLine(part);
        return line;
    }
    }
    return {};
}

std::string ManyLines(const Decoded& decoded) {
    std::string lines;
    if (IsRecord(decoded)) {
        for (const Decoded& part : decoded.parts)
            lines += Printable(part.name) + ": " + OneLine(part) + "\n";
    } else if (decoded.form == Decoded::Form::List && !decoded.parts.empty() && IsRecord(decoded.parts.front())) {
        for (const Decoded& part : decoded.parts)
            lines += OneLine(part) + "\n";
    } else if (decoded.form == Decoded::Form::Text) {
        lines = Printable(decoded.text) + "\n";
    } else {
        lines = OneLine(decoded) + "\n";
    }
    return lines;
}

// ---- 5 putting together

namespace {

std::string Shown(const Variable& variable) {
    return ToUtf8(variable.name);
}

std::string ASizedNumber(unsigned bits) {
    return (bits == 8 ? "an " : "a ") + std::to_string(bits) + "-bit number";
}

Bytes EncodeNumber(const std::string& word, unsigned bits, const std::string& name) {
    const std::optional<uint64_t> number = ParseKnownOrUnknown(word, bits);
    if (!number) {
        throw UsageFailure(name + " takes " + ASizedNumber(bits) + ", not \"" + word + "\"",
                           "give it in decimal, or in hexadecimal with 0x");
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(&*number);
    return Bytes(bytes, bytes + bits / 8);
}

// Padded with NULs to `size`, with at least one. Strings are padded too: the persistent copy sets the size of the
// variable when the database is created again, and longer texts must fit then.
Bytes EncodeText(const std::string& word, size_t size, const std::string& name) {
    const std::string ansi = RequireAnsi(word, name);
    if (ansi.size() >= size) {
        throw UsageFailure(name + " takes at most " + std::to_string(size ? size - 1 : 0) + " bytes, not " +
                           std::to_string(ansi.size()));
    }
    Bytes bytes(ansi.begin(), ansi.end());
    bytes.resize(size);
    return bytes;
}

Bytes EncodeFields(const RecordLayout& layout, const std::vector<std::string>& words, const Bytes& present) {
    Bytes record = present;
    record.resize(layout.size);
    for (const std::string& word : words) {
        const size_t equals = word.find('=');
        const auto field = std::find_if(layout.fields.begin(), layout.fields.end(), [&](const FieldLayout& candidate) {
            return equals != std::string::npos && word.substr(0, equals) == candidate.name;
        });
        if (field == layout.fields.end()) {
            std::string names;
            for (const FieldLayout& candidate : layout.fields)
                names += (names.empty() ? "" : ", ") + std::string(candidate.name);
            throw UsageFailure("\"" + word + "\" does not set a field of " + layout.variable,
                               "give FIELD=VALUE; the fields are " + names);
        }
        const std::string name = std::string(layout.variable) + " " + field->name;
        const std::string text = word.substr(equals + 1);
        const Bytes bytes = field->size == 4 ? EncodeNumber(text, 32, name) : EncodeText(text, field->size, name);
        std::copy(bytes.begin(), bytes.end(), record.begin() + static_cast<ptrdiff_t>(field->offset));
    }
    return record;
}

} // namespace

std::optional<uint64_t> ParseKnownOrUnknown(const std::string& word, unsigned bits) {
    if (bits == 32 && word == kUnknown) return UINT32_MAX;
    return ParseNumber(word, bits);
}

bool NeedsPresentValue(const Variable& variable) {
    return LayoutOf(variable) != nullptr;
}

Bytes Encode(const Variable& variable, const std::vector<std::string>& words, const Bytes& present) {
    if (const RecordLayout* layout = LayoutOf(variable)) return EncodeFields(*layout, words, present);
    const unsigned bits = variable.type == SVT_RECORD && variable.size == 4 ? 32 : NumberBits(variable.type);
    if (!bits && variable.type != SVT_STRING) {
        const std::string kind = TypeName(variable.type);
        std::string next = "give its bytes with --hex or --file";
        if (variable.type == SVT_COMPOSITE) next = "set the variables it is made of";
        throw UsageFailure(Shown(variable) + " has the type " + kind + ", which cannot be typed as text", next);
    }
    if (words.size() != 1) throw UsageFailure(Shown(variable) + " takes one value", "quote text that contains spaces");
    return bits ? EncodeNumber(words.front(), bits, Shown(variable))
                : EncodeText(words.front(), variable.size, Shown(variable));
}
