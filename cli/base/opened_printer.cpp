// Opening a printer for a command, and reading its variables. No state.
#include "base/opened_printer.h"

#include "base/printers.h"
#include "base/product.h"

#include "product/growing_reads.h"

#include <algorithm>
#include <cstdio>

namespace {

void OpenManager(OpenedPrinter& printer, const ManagerOptions& options) {
    const std::string name = RequireAnsi(printer.shownName, "the printer name");
    const std::string user = RequireAnsi(options.user, "the user name");
    SetLastError(ERROR_SUCCESS);
    const int32_t status =
        OpenManagerExA(name.c_str(), user.empty() ? nullptr : user.c_str(), options.kind, printer.manager.Receive());
    const DWORD lastError = GetLastError();
    const std::string what = "cannot open the printer \"" + printer.shownName + "\"";
    if (status == TVS_E_UNAVAILABLE) throw WhyUnavailable(what, options.kind, lastError);
    if (status != TVS_OK) throw StatusFailure(status, what);
}

} // namespace

OpenedPrinter OpenPrinterOf(const ManagerOptions& options) {
    const std::string asked = RequireAnsi(options.printer, "the printer name");
    const std::string user = RequireAnsi(options.user, "the user name");
    if (asked.empty() || asked.size() > TVS_PRINTER_NAME_MAX)
        throw UsageFailure("a printer name has 1 to " + std::to_string(TVS_PRINTER_NAME_MAX) + " bytes");
    if (user.size() > TVS_USER_NAME_MAX)
        throw UsageFailure("a user name has at most " + std::to_string(TVS_USER_NAME_MAX) + " bytes");

    const std::string name = KnownPrinterName(asked);
    OpenedPrinter printer{.shownName = ToUtf8(name), .variables = PrinterVariables(DriverOf(name).value_or(""))};
    OpenManager(printer, options);
    return printer;
}

void OpenAgain(OpenedPrinter& printer, const ManagerOptions& options) {
    printer.manager.Reset();
    OpenManager(printer, options);
}

std::string WhatOf(const char* verb, const std::string& variable, const OpenedPrinter& printer) {
    return std::string("cannot ") + verb + " " + variable + " of \"" + printer.shownName + "\"";
}

// Names are case-sensitive, as in the library.
const Variable& FindNamed(const OpenedPrinter& printer, const std::string& name, const char* verb) {
    const std::optional<std::string> ansi = ToAnsi(name);
    if (const Variable* found = ansi ? FindVariable(printer.variables, *ansi) : nullptr) return *found;
    Failure failure = StatusFailure(TVS_E_UNKNOWN, WhatOf(verb, name, printer));
    failure.why = "unknown variable";
    std::vector<std::string> names;
    for (const Variable& variable : printer.variables)
        names.push_back(ToUtf8(variable.name));
    if (const std::string nearest = Nearest(name, names); !nearest.empty())
        failure.next = "did you mean " + nearest + "?";
    throw failure;
}

Reading ReadValue(const OpenedPrinter& printer, const Variable& variable, bool takeItem, ReadFunction read) {
    Reading reading;
    uint32_t size = variable.size;
    ReadWhileItGrows([&] {
        const bool queue = variable.type == SVT_QUEUE && !takeItem;
        const bool probe = size == 0 || queue;
        reading.value.resize(probe ? 0 : size);
        uint32_t returned = 0;
        reading.status = read(printer.manager.Get(), variable.name.c_str(), probe ? nullptr : reading.value.data(),
                              probe ? 0 : size, &returned);
        if (!probe) {
            reading.value.resize(std::min(returned, size));
            if (reading.status != TVS_E_SIZE || variable.size) return ReadAttempt::Done;
            size = 0;
            return ReadAttempt::Grew;
        }
        if (reading.status != TVS_E_SIZE) return ReadAttempt::Done;
        if (queue) reading.value.resize(returned); // the size of the oldest item
        if (queue || returned == 0) {
            reading.status = TVS_OK;
            return ReadAttempt::Done;
        }
        size = returned;
        return ReadAttempt::Grew;
    });
    return reading;
}

std::string TimeText(const SYSTEMTIME& time) {
    if (time.wYear == 0) return "";
    char text[48];
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", time.wYear, time.wMonth, time.wDay,
                  time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
    return text;
}

int32_t ReadWriteTime(const OpenedPrinter& printer, const Variable& variable, SYSTEMTIME& time) {
    time = {};
    return GetPrinterStatusInfoA(printer.manager.Get(), variable.name.c_str(), &time);
}

int32_t ReadWriteTime(const OpenedPrinter& printer, const Variable& variable, std::string& text) {
    SYSTEMTIME time;
    const int32_t status = ReadWriteTime(printer, variable, time);
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
    if (IsUnknown(decoded)) json["raw"] = decoded.number;
    if (!decoded.meanings.empty()) json["bits"] = NamedBits(decoded);
    json["hex"] = ToHex(value.data(), value.size());
}
