// "Port" and "PrinterName": where the printer is and what it is called. A change of either changes more than the value.
//
// State: the printer's database and, for the name, the printer list. Both are changed under the database mutex, so that
// two processes that change them at once leave what one after the other would have left.
#include "values/port_and_name.h"

#include "manager/printer_list.h"
#include "manager/variables.h"
#include "product/guards.h"
#include "product/variable_names.h"
#include "values/database_creation.h"

#include <string.h>
#include <tvsqdz_records.h>

namespace {

bool IsSamePort(const TvsPortRecord& a, const TvsPortRecord& b) {
    return a.portKind == b.portKind && strncmp(a.portName, b.portName, sizeof a.portName) == 0 &&
           strncmp(a.portDetail, b.portDetail, sizeof a.portDetail) == 0;
}

// The text of a value, with or without a NUL; false when a printer cannot have it.
bool TakeName(const void* data, uint32_t size, PrinterNameText* name) {
    const size_t length = strnlen(static_cast<const char*>(data), size);
    if (length == 0 || length >= sizeof name->text) return false;
    *name = {};
    memcpy(name->text, data, length);
    return true;
}

} // namespace

int32_t PortWrite(ManagerRecord* manager, const void* data, uint32_t size) {
    TvsPortRecord port;
    if (!TakeRecord(data, size, &port)) return PassOn(Answer::WrongSize);
    const DatabaseLock lock(*manager);
    if (!lock.held) return TVS_E_NOT_READY;
    TvsPortRecord stored = {}; // unreadable: no port yet
    DWORD storedSize = 0;
    ReadVariable(manager->printerDatabase, names::kPort, &stored, sizeof stored, &storedSize);
    // First, so that nothing changes for somebody who may not change the port.
    const Answer answer = WriteVariable(manager->printerDatabase, names::kPort, &port, sizeof port);
    if (answer == Answer::AccessDenied) return PassOn(answer);
    if (stored.portKind != 0 && !IsSamePort(stored, port)) {
        RefreshedPrinterName(manager); // the driver data are stored under the current name
        ResetPortDependentVariables(manager);
    }
    return TVS_OK;
}

int32_t PrinterNameWrite(ManagerRecord* manager, const void* data, uint32_t size) {
    PrinterNameText name;
    if (!TakeName(data, size, &name)) return PassOn(Answer::WrongSize);
    const DatabaseLock lock(*manager);
    if (!lock.held) return TVS_E_NOT_READY;
    PrinterNameText old;
    if (!ReadStoredPrinterName(manager->printerDatabase, &old)) return TVS_E_NOT_NOW;
    if (strcmp(name.text, old.text) == 0) return TVS_OK;
    switch (RenameInPrinterList(manager->masterDatabase, old, name)) {
    case Renaming::UnknownPrinter:
    case Renaming::NotStored:
        return TVS_E_NOT_NOW;
    case Renaming::Denied:
        return PassOn(Answer::AccessDenied);
    case Renaming::NameTaken:
        return PassOn(Answer::DatabaseExists);
    case Renaming::NoMemory:
        return TVS_E_MEMORY;
    case Renaming::Done:
        break;
    }
    ChangePrinterName(manager, name);
    WriteVariable(manager->printerDatabase, names::kPrinterName, name.text, sizeof name.text);
    return TVS_OK;
}

namespace {

bool IsName(const PrinterNameText& name) {
    return name.text[0] != '\0' && memchr(name.text, '\0', sizeof name.text) != nullptr;
}

} // namespace

bool ReadStoredPrinterName(const ManagerDatabase& database, PrinterNameText* name) {
    DWORD size = 0;
    return ReadVariable(database, names::kPrinterName, name->text, sizeof name->text, &size) == Answer::Done &&
           IsName(*name);
}

PrinterNameText RefreshedPrinterName(ManagerRecord* manager) {
    PrinterNameText name;
    if (!ReadStoredPrinterName(manager->printerDatabase, &name)) return CurrentPrinterName(manager);
    ChangePrinterName(manager, name);
    return name;
}
