// rename, port: the name and the port of a printer. No state.
#include "commands/commands.h"

#include "base/opened_printer.h"
#include "base/printers.h"
#include "base/spooler.h"

#include "product/variable_names.h"

#include <cstring>

namespace {

void RequireNoJobs(const std::string& name, const std::string& what) {
    const PrinterHandle spooler = OpenInSpooler(name);
    if (!spooler || ListJobs(spooler.Get(), ToUtf8(name)).empty()) return;
    throw Failure{Exit::False, what, "it has jobs in the spooler", "wait until they have printed, or cancel them"};
}

void PutText(char (&field)[TVS_PORT_TEXT_SIZE], const std::string& text, const char* what) {
    const std::string ansi = RequireAnsi(text, what);
    if (ansi.size() >= sizeof field)
        throw UsageFailure(std::string(what) + " has at most " + std::to_string(sizeof field - 1) + " bytes");
    std::memcpy(field, ansi.data(), ansi.size());
}

int32_t StoreName(const OpenedPrinter& printer, const std::string& name) {
    return UpdatePrinterStatusA(printer.manager.Get(), names::kPrinterName, name.c_str(),
                                static_cast<uint32_t>(name.size() + 1));
}

} // namespace

// The product gets the new name before `up` can see a printer of that name with a device. Otherwise `up` would open it
// as another printer.
Exit RenameCommand(const ManagerOptions& options, const std::string& newName) {
    const std::string name = RequireNewPrinterName(newName);
    const OpenedPrinter printer = OpenPrinterOf(options);
    const std::string oldName = RequireAnsi(printer.shownName, "the printer name");
    const std::string what = "cannot rename \"" + printer.shownName + "\" to \"" + newName + "\"";
    if (name != oldName) {
        RequireNoJobs(oldName, what);
        CopyPrinter(oldName, name, what);
        if (const int32_t status = StoreName(printer, name); status != TVS_OK) {
            Failure failure = StatusFailure(status, what);
            UninstallPrinter(name);
            throw failure;
        }
        MovePrinterDevice(oldName, name);
        UninstallPrinter(oldName);
    }
    if (g_output.json) PrintJson({{"printer", newName}, {"was", printer.shownName}});
    return Exit::Done;
}

Exit PortCommand(const ManagerOptions& options, const std::optional<NewPort>& wanted) {
    std::optional<TvsPortRecord> record;
    if (wanted) {
        const std::optional<uint64_t> kind = ParseNumber(wanted->kind, 32);
        if (!kind) throw UsageFailure("KIND takes a 32-bit number, not \"" + wanted->kind + "\"");
        record = TvsPortRecord{};
        record->portKind = static_cast<uint32_t>(*kind);
        PutText(record->portName, wanted->name, "the port's name");
        PutText(record->portDetail, wanted->detail, "the port's detail");
    }
    const OpenedPrinter printer = OpenPrinterOf(options);
    const Variable& variable = FindNamed(printer, names::kPort, wanted ? "write" : "read");
    if (record) {
        const int32_t status = UpdatePrinterStatusA(printer.manager.Get(), names::kPort, &*record, sizeof *record);
        if (status != TVS_OK) throw StatusFailure(status, WhatOf("write", names::kPort, printer));
    }
    const Reading reading = ReadValue(printer, variable, false);
    if (reading.status != TVS_OK) throw StatusFailure(reading.status, WhatOf("read", names::kPort, printer));
    const Decoded port = Decode(printer.variables, variable, reading.value);
    if (g_output.json)
        PrintJson({{"printer", printer.shownName}, {"port", ToJson(port)}});
    else if (!wanted)
        PrintText(ManyLines(port));
    return Exit::Done;
}
