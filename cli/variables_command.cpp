// vars, get, info, set: what is done with the variables of one printer.
#include "commands.h"

#include "catalogue.h"
#include "files.h"
#include "handles.h"
#include "presentation.h"
#include "printers.h"
#include "product.h"

#include <algorithm>
#include <cstdio>

namespace {

// A value that grows between the question for its size and its read is asked again; more often is not believable.
constexpr int kAttempts = 8;

struct OpenedPrinter {
    std::string shownName; // UTF-8
    std::vector<Variable> variables;
    Manager manager;
};

OpenedPrinter Open(const ManagerOptions& options) {
    const std::string asked = RequireAnsi(options.printer, "the printer name");
    const std::string user = RequireAnsi(options.user, "the user name");
    if (asked.empty() || asked.size() > TVS_PRINTER_NAME_MAX)
        throw UsageFailure("a printer name has 1 to " + std::to_string(TVS_PRINTER_NAME_MAX) + " bytes");
    if (user.size() > TVS_USER_NAME_MAX)
        throw UsageFailure("a user name has at most " + std::to_string(TVS_USER_NAME_MAX) + " bytes");

    const std::string name = KnownPrinterName(asked);
    OpenedPrinter printer{.shownName = ToUtf8(name), .variables = PrinterVariables(DriverOf(name).value_or(""))};
    SetLastError(ERROR_SUCCESS);
    const int32_t status =
        OpenManagerExA(name.c_str(), user.empty() ? nullptr : user.c_str(), options.kind, printer.manager.Receive());
    const DWORD lastError = GetLastError();
    const std::string what = "cannot open a manager for \"" + printer.shownName + "\"";
    if (status == TVS_E_UNAVAILABLE) throw WhyUnavailable(what, options.kind, lastError);
    if (status != TVS_OK) throw StatusFailure(status, what);
    return printer;
}

std::string WhatOf(const char* verb, const std::string& variable, const OpenedPrinter& printer) {
    return std::string("cannot ") + verb + " " + variable + " of \"" + printer.shownName + "\"";
}

// Names compare with case, as the library compares them.
const Variable& Find(const OpenedPrinter& printer, const std::string& name, const char* verb) {
    const std::optional<std::string> ansi = ToAnsi(name);
    if (const Variable* found = ansi ? FindVariable(printer.variables, *ansi) : nullptr) return *found;
    Failure failure = StatusFailure(TVS_E_UNKNOWN, WhatOf(verb, name, printer));
    failure.why = "unknown variable";
    for (const Variable& variable : printer.variables)
        if (ansi && lstrcmpiA(variable.name.c_str(), ansi->c_str()) == 0)
            failure.next = "did you mean " + ToUtf8(variable.name) + "?";
    throw failure;
}

struct Reading {
    int32_t status = TVS_OK;
    Bytes value;
};

// takeItem: false only asks a queue for the size of its oldest item, since a read takes it off.
Reading Read(const OpenedPrinter& printer, const Variable& variable, bool takeItem) {
    Reading reading;
    uint32_t size = variable.size;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const bool probe = size == 0 || (variable.type == VariableType::Queue && !takeItem);
        reading.value.resize(probe ? 0 : size);
        uint32_t returned = 0;
        reading.status = GetPrinterStatusA(printer.manager.Get(), variable.name.c_str(),
                                           probe ? nullptr : reading.value.data(), probe ? 0 : size, &returned);
        if (probe) {
            if (reading.status == TVS_E_SIZE && variable.type == VariableType::Queue && !takeItem) {
                reading.value.resize(returned); // how much there is to take
                reading.status = TVS_OK;
            }
            if (reading.status != TVS_E_SIZE) return reading;
            if (returned == 0) {
                reading.status = TVS_OK;
                return reading;
            }
            size = returned;
            continue;
        }
        reading.value.resize(std::min(returned, size));
        if (reading.status != TVS_E_SIZE || variable.size) return reading;
        size = 0;
    }
    return reading;
}

bool Aborts(const Failure& failure) {
    return failure.exitCode == Exit::NoService;
}

std::string TimeText(const SYSTEMTIME& time) {
    if (time.wYear == 0) return "";
    char text[48];
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", time.wYear, time.wMonth, time.wDay,
                  time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
    return text;
}

int32_t WriteTime(const OpenedPrinter& printer, const Variable& variable, std::string& text) {
    SYSTEMTIME time{};
    const int32_t status = GetPrinterStatusInfoA(printer.manager.Get(), variable.name.c_str(), &time);
    if (status == TVS_OK) text = TimeText(time);
    return status;
}

Json VariableJson(const Variable& variable) {
    return {{"name", ToUtf8(variable.name)},
            {"type", TypeName(variable.type)},
            {"size", variable.size},
            {"source", variable.fromModel ? "model" : "built-in"}};
}

void AddValue(Json& json, const Decoded& decoded, const Bytes& value) {
    json["value"] = ToJson(decoded);
    if (!decoded.meanings.empty()) json["bits"] = NamedBits(decoded);
    json["hex"] = ToHex(value.data(), value.size());
}

std::string SizeText(const Variable& variable) {
    return variable.size ? std::to_string(variable.size) : "varies";
}

} // namespace

Exit VarsCommand(const ManagerOptions& options, const std::vector<std::string>& patterns) {
    const OpenedPrinter printer = Open(options);
    Json list = Json::array();
    Table table{{{"NAME", "TYPE", "SIZE", "WRITTEN (UTC)", "VALUE"}}};
    for (const Variable& variable : printer.variables) {
        const std::string name = ToUtf8(variable.name);
        const auto matches = [&](const std::string& pattern) { return MatchesPattern(pattern, name); };
        if (!patterns.empty() && std::none_of(patterns.begin(), patterns.end(), matches)) continue;

        Json json = VariableJson(variable);
        std::string shown;
        const bool queue = variable.type == VariableType::Queue;
        const Reading reading = variable.readable ? Read(printer, variable, false) : Reading{TVS_E_UNKNOWN, {}};
        if (!variable.readable) {
            json["readable"] = false;
            shown = "(not readable)";
        } else if (reading.status != TVS_OK) {
            const Failure failure = StatusFailure(reading.status, WhatOf("read", name, printer));
            if (Aborts(failure)) throw failure;
            json["error"] = FailureJson(failure);
            shown = "(" + failure.why + ", status " + std::to_string(reading.status) + ")";
        } else if (queue) {
            json["waiting"] = !reading.value.empty();
            shown = reading.value.empty() ? "(empty)" : "(an item waits; 'oriel get' takes it)";
        } else {
            const Decoded decoded = Decode(printer.variables, variable, reading.value);
            AddValue(json, decoded, reading.value);
            shown = options.hex ? ToHex(reading.value.data(), reading.value.size()) : OneLine(decoded);
        }
        std::string written;
        if (WriteTime(printer, variable, written) == TVS_OK && !written.empty()) json["written"] = written;
        table.rows.push_back({Printable(name), TypeName(variable.type), SizeText(variable), written, shown});
        list.push_back(std::move(json));
    }
    const bool none = list.empty();
    if (g_output.json) {
        PrintJson({{"printer", printer.shownName}, {"variables", list}});
    } else if (!none) {
        table.Print();
    } else {
        PrintError({Exit::False, "no variable of \"" + printer.shownName + "\" has such a name", "",
                    "list all with 'oriel vars PRINTER'"});
    }
    return none ? Exit::False : Exit::Done;
}

namespace {

// Runs `one` for each name; a failure of one is told and the others are still done. The exit code is that of the first
// failure.
template <typename One>
Exit ForEach(const OpenedPrinter& printer, const std::vector<std::string>& names, const char* verb, One one) {
    Exit result = Exit::Done;
    Json list = Json::array();
    for (const std::string& name : names) {
        try {
            const Variable& variable = Find(printer, name, verb);
            Json json = VariableJson(variable);
            one(variable, json);
            list.push_back(std::move(json));
        } catch (const Failure& failure) {
            if (Aborts(failure)) throw;
            PrintError(failure);
            list.push_back({{"name", name}, {"error", FailureJson(failure)}});
            if (result == Exit::Done) result = failure.exitCode;
        }
    }
    if (g_output.json) PrintJson({{"printer", printer.shownName}, {"variables", list}});
    return result;
}

} // namespace

Exit GetCommand(const ManagerOptions& options, const std::vector<std::string>& names) {
    const OpenedPrinter printer = Open(options);
    return ForEach(printer, names, "read", [&](const Variable& variable, Json& json) {
        const Reading reading = Read(printer, variable, true);
        const std::string name = ToUtf8(variable.name);
        if (reading.status != TVS_OK) {
            Failure failure = StatusFailure(reading.status, WhatOf("read", name, printer));
            if (!variable.readable) {
                failure.why = "the library lets no one read it";
                failure.next = "'oriel info' tells when it was last written";
            }
            throw failure;
        }
        const Decoded decoded = Decode(printer.variables, variable, reading.value);
        AddValue(json, decoded, reading.value);
        if (g_output.json) return;
        // One value alone comes bare, so that scripts can use it.
        const bool bare = names.size() == 1;
        if (options.hex) {
            PrintLine((bare ? "" : name + ": ") + ToHex(reading.value.data(), reading.value.size()));
        } else {
            PrintText(bare ? ManyLines(decoded) : Styled(name, Style::Name) + ": " + OneLine(decoded) + "\n");
        }
    });
}

Exit InfoCommand(const ManagerOptions& options, const std::vector<std::string>& names) {
    const OpenedPrinter printer = Open(options);
    return ForEach(printer, names, "ask for the write time of", [&](const Variable& variable, Json& json) {
        std::string written;
        const std::string name = ToUtf8(variable.name);
        const int32_t status = WriteTime(printer, variable, written);
        if (status != TVS_OK) throw StatusFailure(status, WhatOf("ask for the write time of", name, printer));
        json["written"] = written.empty() ? Json(nullptr) : Json(written);
        if (g_output.json) return;
        const std::string shown = written.empty() ? "never" : written;
        PrintLine(names.size() == 1 ? shown : Styled(name, Style::Name) + ": " + shown);
    });
}

namespace {

Bytes BytesOf(const std::string& content) {
    return Bytes(content.begin(), content.end());
}

Bytes ValueToWrite(const OpenedPrinter& printer, const Variable& variable, const NewValue& value) {
    const int sources = !value.words.empty() + value.hex.has_value() + value.file.has_value();
    if (sources != 1) throw UsageFailure("set takes one of VALUE, --hex BYTES and --file FILE");

    Bytes bytes;
    if (!value.words.empty()) {
        Bytes present;
        if (NeedsPresentValue(variable)) {
            Reading reading = Read(printer, variable, false);
            if (reading.status != TVS_OK)
                throw StatusFailure(reading.status, WhatOf("read", ToUtf8(variable.name), printer));
            present = std::move(reading.value);
        }
        return Encode(variable, value.words, present);
    }
    if (value.hex) {
        std::optional<Bytes> parsed = FromHex(*value.hex);
        if (!parsed)
            throw UsageFailure("\"" + *value.hex + "\" is no list of bytes", "give two hexadecimal digits for each");
        bytes = std::move(*parsed);
    } else {
        bytes = BytesOf(ReadWholeFile(*value.file));
    }
    // The library would hand any size on to the service. A queue's size is that of an item, its value holds several.
    const bool bounded = variable.size && variable.type != VariableType::Queue;
    const bool fixed = bounded && variable.type != VariableType::String;
    if ((fixed && bytes.size() != variable.size) || (bounded && bytes.size() > variable.size)) {
        throw UsageFailure(ToUtf8(variable.name) + " takes " + (fixed ? "" : "at most ") +
                           std::to_string(variable.size) + " bytes, these are " + std::to_string(bytes.size()));
    }
    return bytes;
}

} // namespace

Exit SetCommand(const ManagerOptions& options, const NewValue& value) {
    const OpenedPrinter printer = Open(options);
    const Variable& variable = Find(printer, value.variable, "write");
    const Bytes bytes = ValueToWrite(printer, variable, value);
    const int32_t status = UpdatePrinterStatusA(printer.manager.Get(), variable.name.c_str(), bytes.data(),
                                                static_cast<uint32_t>(bytes.size()));
    if (status != TVS_OK) throw StatusFailure(status, WhatOf("write", ToUtf8(variable.name), printer));
    if (g_output.json) {
        Json json = VariableJson(variable);
        json["written"] = bytes.size();
        PrintJson({{"printer", printer.shownName}, {"variable", json}});
    }
    return Exit::Done;
}
