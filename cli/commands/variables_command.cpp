// vars, get, info, set, result: the variables of one printer. No state.
#include "commands/commands.h"

#include "base/device_state.h"
#include "base/files.h"
#include "base/opened_printer.h"

#include <algorithm>
#include <cstring>

namespace {

bool Aborts(const Failure& failure) {
    return failure.exitCode == Exit::NoService;
}

std::string SizeText(const Variable& variable) {
    return variable.size ? std::to_string(variable.size) : "varies";
}

} // namespace

Exit VarsCommand(const ManagerOptions& options, const std::vector<std::string>& patterns) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    Json list = Json::array();
    Table table{{{"NAME", "TYPE", "SIZE", "WRITTEN (UTC)", "MEANING", "VALUE"}}};
    const std::optional<DeviceRecord> device = AskDeviceState(RequireAnsi(printer.shownName, "the printer name"));
    bool missing = false; // some are not in the database, which is older than the model's registration
    for (const Variable& variable : printer.variables) {
        const std::string name = ToUtf8(variable.name);
        const auto matches = [&](const std::string& pattern) { return MatchesPattern(pattern, name); };
        if (!patterns.empty() && std::none_of(patterns.begin(), patterns.end(), matches)) continue;

        Json json = VariableJson(variable);
        std::string shown, meaning;
        SYSTEMTIME time{};
        std::string written;
        if (ReadWriteTime(printer, variable, time) == TVS_OK) written = TimeText(time);
        const bool queue = variable.type == SVT_QUEUE;
        const Reading reading = variable.readable ? ReadValue(printer, variable, false) : Reading{TVS_E_UNKNOWN, {}};
        if (!variable.readable) {
            json["readable"] = false;
            shown = "(write-only)";
        } else if (reading.status != TVS_OK) {
            const Failure failure = StatusFailure(reading.status, WhatOf("read", name, printer));
            if (Aborts(failure)) throw failure;
            json["error"] = FailureJson(failure);
            missing = missing || variable.fromModel;
            shown = "(" + failure.why + ", status " + std::to_string(reading.status) + ")";
        } else if (queue) {
            json["waiting"] = !reading.value.empty();
            shown = reading.value.empty() ? "(empty)" : "(an item waits; 'oriel get' takes it)";
        } else {
            const Decoded decoded = Decode(printer.variables, variable, reading.value);
            AddValue(json, decoded, reading.value);
            shown = options.hex ? ToHex(reading.value.data(), reading.value.size()) : OneLine(decoded);
            const Provenance provenance = ProvenanceOf(variable, reading.value, AgeMs(time), device);
            AddProvenance(json, provenance);
            meaning = provenance.meaning.words + (provenance.stale ? " (stale)" : "");
        }
        if (!written.empty()) json["written"] = written;
        table.rows.push_back({Printable(name), TypeName(variable.type), SizeText(variable), written, meaning, shown});
        list.push_back(std::move(json));
    }
    for (const std::string name : kOwnVariables) {
        const auto matches = [&](const std::string& pattern) { return MatchesPattern(pattern, name); };
        if (!patterns.empty() && std::none_of(patterns.begin(), patterns.end(), matches)) continue;
        const std::optional<OwnValue> own = ReadOwnVariable(RequireAnsi(printer.shownName, "the printer name"), name);
        if (!own || FindVariable(printer.variables, name) != nullptr) continue;
        list.push_back({{"name", name}, {"source", "printer side"}, {"value", own->json}});
        std::string line = own->text;
        std::replace(line.begin(), line.end(), '\n', ',');
        table.rows.push_back({name, "-", "-", "", "", line});
    }
    const bool none = list.empty();
    if (missing)
        PrintError({Exit::Done, "variables of the model are missing from the database of \"" + printer.shownName + "\"",
                    "the model was registered after the printer was first opened",
                    "restart the product; databases are then made anew"});
    if (g_output.json) {
        PrintJson({{"printer", printer.shownName}, {"variables", list}});
    } else if (!none) {
        table.Print();
    } else {
        PrintError({Exit::False, "no variable of \"" + printer.shownName + "\" matches", "",
                    "list all with 'oriel vars PRINTER'"});
    }
    return none ? Exit::False : Exit::Done;
}

namespace {

// Of a variable that is in no catalogue. False: it is none of the product's own either, or the printer has none.
bool GetOwn(const OpenedPrinter& printer, const std::string& name, bool bare, Json& json) {
    if (std::find(std::begin(kOwnVariables), std::end(kOwnVariables), name) == std::end(kOwnVariables) ||
        FindVariable(printer.variables, name) != nullptr)
        return false;
    const std::string ansi = RequireAnsi(printer.shownName, "the printer name");
    static_cast<void>(AskDeviceState(ansi)); // which brings both up to date
    const std::optional<OwnValue> own = ReadOwnVariable(ansi, name);
    if (!own) return false;
    json = {{"name", name}, {"source", "printer side"}, {"value", own->json}};
    if (!g_output.json) PrintLine(bare ? own->text : Styled(name, Style::Name) + ":\n" + own->text);
    return true;
}

// How the printer's device stands with it, once a value of the device is to be shown.
class LazyDevice {
public:
    LazyDevice(const OpenedPrinter& printer, bool direct)
        : m_printer(RequireAnsi(printer.shownName, "the printer name")), m_direct(direct) {}
    // Before the value is read: the device is asked first, unless the read itself asks it.
    void Ask(const Variable& variable) {
        if (m_asked || m_direct || !IsFromDevice(variable)) return;
        m_asked = true;
        m_state = AskDeviceState(m_printer);
    }
    // After it was read.
    const std::optional<DeviceRecord>& State(const Variable& variable) {
        if (m_direct && IsFromDevice(variable)) m_state = ReadDeviceState(m_printer);
        return m_state;
    }

private:
    const std::string m_printer;
    const bool m_direct;
    bool m_asked = false;
    std::optional<DeviceRecord> m_state{};
};

// Runs `one` for each name. A failure is reported and the others still run. The exit code is that of the first failure.
template <typename One>
Exit ForEach(const OpenedPrinter& printer, const std::vector<std::string>& names, const char* verb, One one) {
    Exit result = Exit::Done;
    Json list = Json::array();
    for (const std::string& name : names) {
        try {
            Json json;
            if (std::strcmp(verb, "read") != 0 || !GetOwn(printer, name, names.size() == 1, json)) {
                const Variable& variable = FindNamed(printer, name, verb);
                json = VariableJson(variable);
                one(variable, json);
            }
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
    const OpenedPrinter printer = OpenPrinterOf(options);
    LazyDevice device(printer, options.direct);
    return ForEach(printer, names, "read", [&](const Variable& variable, Json& json) {
        device.Ask(variable);
        const Reading reading =
            ReadValue(printer, variable, true, options.direct ? GetPrinterStatusDirectA : GetPrinterStatusA);
        const std::string name = ToUtf8(variable.name);
        if (reading.status != TVS_OK) {
            Failure failure = StatusFailure(reading.status, WhatOf("read", name, printer));
            if (!variable.readable) {
                failure.why = "this variable is write-only";
                failure.next = "'oriel info' shows when it was last written";
            }
            throw failure;
        }
        const Decoded decoded = Decode(printer.variables, variable, reading.value);
        AddValue(json, decoded, reading.value);
        SYSTEMTIME time{};
        const bool timed = ReadWriteTime(printer, variable, time) == TVS_OK;
        const Provenance provenance =
            ProvenanceOf(variable, reading.value, timed ? AgeMs(time) : std::nullopt, device.State(variable));
        AddProvenance(json, provenance);
        if (g_output.json) return;
        // A single value is printed bare, so that scripts can use it; people see what it means.
        const bool bare = names.size() == 1;
        const std::string meaning = options.hex ? "" : ProvenanceText(provenance);
        if (options.hex) {
            PrintLine((bare ? "" : name + ": ") + ToHex(reading.value.data(), reading.value.size()));
        } else if (bare) {
            PrintText(ManyLines(decoded));
            if (g_output.terminal && !meaning.empty()) PrintLine(Styled(meaning, Style::Faint));
        } else {
            PrintLine(Styled(name, Style::Name) + ": " + OneLine(decoded) + (meaning.empty() ? "" : "; " + meaning));
        }
    });
}

Exit InfoCommand(const ManagerOptions& options, const std::vector<std::string>& names) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    return ForEach(printer, names, "ask for the write time of", [&](const Variable& variable, Json& json) {
        std::string written;
        const std::string name = ToUtf8(variable.name);
        const int32_t status = ReadWriteTime(printer, variable, written);
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
            Reading reading = ReadValue(printer, variable, false);
            if (reading.status != TVS_OK)
                throw StatusFailure(reading.status, WhatOf("read", ToUtf8(variable.name), printer));
            present = std::move(reading.value);
        }
        return Encode(variable, value.words, present);
    }
    if (value.hex) {
        std::optional<Bytes> parsed = FromHex(*value.hex);
        if (!parsed)
            throw UsageFailure("\"" + *value.hex + "\" is not a list of bytes",
                               "give two hexadecimal digits for each byte");
        bytes = std::move(*parsed);
    } else {
        bytes = BytesOf(ReadWholeFile(*value.file));
    }
    // The library would pass any size on to the service. A queue's size is that of one item; its value holds several.
    const bool bounded = variable.size && variable.type != SVT_QUEUE;
    const bool fixed = bounded && variable.type != SVT_STRING;
    if ((fixed && bytes.size() != variable.size) || (bounded && bytes.size() > variable.size)) {
        throw UsageFailure(ToUtf8(variable.name) + " takes " + (fixed ? "" : "at most ") +
                           std::to_string(variable.size) + " bytes, not " + std::to_string(bytes.size()));
    }
    return bytes;
}

// Longer than the library's own limit for a request.
constexpr DWORD kRequestBoundMs = 90000;

// Starts the request, prints its number at once, and waits until it has been carried out. A request ends with its
// process.
uint32_t CarryOutRequest(const OpenedPrinter& printer, const Variable& variable, const Bytes& bytes, bool tellNumber) {
    const std::string what = WhatOf("write", ToUtf8(variable.name), printer);
    const KernelHandle done{CreateEventA(nullptr, TRUE, FALSE, nullptr)};
    if (!done) throw SystemFailure(GetLastError(), what);
    uint32_t request = 0;
    const int32_t status = SetReqPrinterStatusEventA(printer.manager.Get(), variable.name.c_str(), bytes.data(),
                                                     static_cast<uint32_t>(bytes.size()), done.Get(), &request);
    if (status != TVS_OK) throw StatusFailure(status, what);
    if (tellNumber) PrintLine(std::to_string(request));
    if (WaitForSingleObject(done.Get(), kRequestBoundMs) != WAIT_OBJECT_0) throw SystemFailure(WAIT_TIMEOUT, what);
    return request;
}

int32_t TakeResult(const OpenedPrinter& printer, uint32_t request) {
    int32_t result = 0;
    const std::string what = "cannot ask for the result of request " + std::to_string(request);
    const int32_t status = ResSetPrinterStatus(printer.manager.Get(), request, &result);
    if (status != TVS_OK) throw StatusFailure(status, what);
    if (result == TVS_E_UNKNOWN)
        throw Failure{Exit::False, what, "the printer has no result for this request", "each result can be taken once",
                      result};
    if (result == TVS_REQUEST_PENDING)
        throw Failure{Exit::False, what, "it has not finished, and its result is lost now", "", result};
    if (result != TVS_OK) throw StatusFailure(result, "request " + std::to_string(request) + " failed");
    return result;
}

} // namespace

Exit SetCommand(const ManagerOptions& options, const NewValue& value) {
    if (options.direct && value.asynchronous) throw UsageFailure("set takes one of --direct and --async");
    const OpenedPrinter printer = OpenPrinterOf(options);
    const Variable& variable = FindNamed(printer, value.variable, "write");
    const Bytes bytes = ValueToWrite(printer, variable, value);
    Json json = VariableJson(variable);
    json["written"] = bytes.size();
    if (value.asynchronous) {
        const uint32_t request = CarryOutRequest(printer, variable, bytes, !value.wait && !g_output.json);
        json["request"] = request;
        if (value.wait) json["result"] = TakeResult(printer, request);
    } else {
        const auto write = options.direct ? SetPrinterStatusDirectA : UpdatePrinterStatusA;
        const int32_t status =
            write(printer.manager.Get(), variable.name.c_str(), bytes.data(), static_cast<uint32_t>(bytes.size()));
        if (status != TVS_OK) throw StatusFailure(status, WhatOf("write", ToUtf8(variable.name), printer));
    }
    if (g_output.json) PrintJson({{"printer", printer.shownName}, {"variable", json}});
    return Exit::Done;
}

Exit ResultCommand(const ManagerOptions& options, uint32_t request) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    const int32_t result = TakeResult(printer, request);
    if (g_output.json)
        PrintJson({{"printer", printer.shownName}, {"request", request}, {"result", result}});
    else
        PrintLine(std::to_string(result));
    return Exit::Done;
}
