// The spooler's calls on printers. State: handles; the printers are in the back ends.
#include "base/call.h"
#include "registry/changes.h"
#include "spooler/embedded.h"
#include "spooler/print_server.h"
#include "spooler/printer_object.h"
#include "spooler/records.h"
#include "store/database.h"
#include "text/names.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <handleapi.h>
#include <rpcnterr.h>

namespace oriel {
namespace {

constexpr const char* kPrintersKey = "System\\CurrentControlSet\\Control\\Print\\Printers\\";

void DropPrinter(Object* object) {
    if (!LastReference(object)) return;
    auto* printer = static_cast<PrinterObject*>(object);
    // When out of memory the job stays like one whose process died.
    CodeCall([printer]() -> DWORD {
        DropDocument(printer->document);
        return ERROR_SUCCESS;
    });
    delete printer;
}

constexpr RightsMap kPrinterRights = {.read = READ_CONTROL | PRINTER_ACCESS_USE,
                                      .write = READ_CONTROL | PRINTER_ACCESS_USE,
                                      .execute = READ_CONTROL | PRINTER_ACCESS_USE,
                                      .all = PRINTER_ALL_ACCESS};
constexpr DWORD kPrinterReaders = READ_CONTROL | PRINTER_ACCESS_USE;

DWORD OpenPrinterHandle(const SpoolerBackEnd& backEnd, PrinterKey key, DWORD access, HANDLE* handle) {
    *handle = NewHandle(new PrinterObject(&backEnd, std::move(key)), access);
    return *handle != nullptr ? ERROR_SUCCESS : GetLastError();
}

// The embedded spool has precedence.
DWORD FindNamedPrinter(const std::string& name, const SpoolerBackEnd** backEnd, PrinterKey* key) {
    *backEnd = &kEmbeddedSpool;
    const DWORD error = kEmbeddedSpool.findPrinter(name, key);
    if (error != ERROR_INVALID_PRINTER_NAME) return error;
    *backEnd = &kPrintServer;
    if (PrintServerIsPaused()) return ERROR_TIMEOUT;
    const DWORD elsewhere = kPrintServer.findPrinter(name, key);
    // Without a server there is no such printer.
    return elsewhere == RPC_S_SERVER_UNAVAILABLE ? error : elsewhere;
}

// The printers of the embedded spool, then those of the print server if it answers.
DWORD ListAllPrinters(std::vector<Printer>* printers) {
    const DWORD error = kEmbeddedSpool.listPrinters(printers);
    if (error != ERROR_SUCCESS || PrintServerIsPaused()) return error;
    std::vector<Printer> more;
    if (kPrintServer.listPrinters(&more) != ERROR_SUCCESS) return ERROR_SUCCESS;
    std::vector<std::string> known;
    for (const Printer& printer : *printers)
        known.push_back(FoldName(printer.Name()));
    for (Printer& printer : more)
        if (std::find(known.begin(), known.end(), FoldName(printer.Name())) == known.end())
            printers->push_back(std::move(printer));
    return ERROR_SUCCESS;
}

// Parses "<printer>, Job <number>": the number, and the name without it; 0 for other names. Printer names have no
// commas.
DWORD JobInName(std::string& name) {
    constexpr std::string_view kJob = ", Job ";
    const size_t at = name.rfind(kJob);
    if (at == std::string::npos) return 0;
    DWORD number = 0;
    const char* end = name.data() + name.size();
    const auto [last, error] = std::from_chars(name.data() + at + kJob.size(), end, number);
    if (error != std::errc() || last != end) return 0;
    name.resize(at);
    return number;
}

DWORD OpenJob(const std::string& name, DWORD job, LPHANDLE handle, const PRINTER_DEFAULTSA* defaults) {
    if (defaults != nullptr && (defaults->DesiredAccess & ~JOB_ACCESS_READ) != 0) return ERROR_ACCESS_DENIED;
    PrinterKey key;
    DWORD error = kEmbeddedSpool.findPrinter(name, &key);
    Descriptor document;
    if (error == ERROR_SUCCESS) error = OpenJobDocument(key.id, job, &document);
    if (error != ERROR_SUCCESS) return error;
    auto* object = new PrinterObject(&kEmbeddedSpool, std::move(key));
    object->jobDocument = std::move(document);
    *handle = NewHandle(object, JOB_ACCESS_READ);
    return *handle != nullptr ? ERROR_SUCCESS : GetLastError();
}

DWORD OpenNamedPrinter(LPCSTR name, LPHANDLE printer, const PRINTER_DEFAULTSA* defaults) {
    if (printer == nullptr) return ERROR_INVALID_PARAMETER;
    if (defaults != nullptr && (defaults->pDatatype != nullptr || defaults->pDevMode != nullptr))
        return ERROR_INVALID_PARAMETER;
    if (name == nullptr || *name == '\0') return ERROR_INVALID_PRINTER_NAME;
    std::string printerOfJob = name;
    if (const DWORD job = JobInName(printerOfJob); job != 0) return OpenJob(printerOfJob, job, printer, defaults);
    const SpoolerBackEnd* backEnd = nullptr;
    PrinterKey key;
    const DWORD error = FindNamedPrinter(name, &backEnd, &key);
    if (error != ERROR_SUCCESS) return error;
    const DWORD asked =
        defaults != nullptr && defaults->DesiredAccess != 0 ? defaults->DesiredAccess : PRINTER_ACCESS_USE;
    DWORD granted = 0;
    const DWORD refused = GrantRights(asked, kPrinterRights, kPrinterReaders, SpoolStore(), &granted);
    return refused == ERROR_SUCCESS ? OpenPrinterHandle(*backEnd, std::move(key), granted, printer) : refused;
}

// What Windows NT stores about a local printer in the registry.
LSTATUS WritePrinterKey(const Printer& printer) {
    const std::string path = kPrintersKey + PrinterKeyName(printer.Name());
    static constexpr const char* kValueNames[kPrinterTextCount] = {"Name",     nullptr,           "Share Name",
                                                                   "Port",     "Printer Driver",  "Description",
                                                                   "Location", "Print Processor", "Datatype"};
    std::vector<RegistryChange> changes;
    for (size_t text = 0; text < kPrinterTextCount; ++text) {
        if (kValueNames[text] == nullptr) continue;
        changes.push_back(
            {RegistryChange::kSetValue, Root::Machine, path, kValueNames[text], REG_SZ, TextData(printer.texts[text])});
    }
    changes.push_back(
        {RegistryChange::kSetValue, Root::Machine, path, "Attributes", REG_DWORD, DwordData(printer.attributes)});
    changes.push_back({RegistryChange::kMakeKey, Root::Machine, path + "\\PrinterDriverData"});
    return ApplyChanges(changes);
}

LSTATUS DeletePrinterKey(const Printer& printer) {
    const RegistryChange removal{RegistryChange::kDeleteTree, Root::Machine,
                                 kPrintersKey + PrinterKeyName(printer.Name())};
    return ApplyChanges({&removal, 1});
}

// The spool is changed after the registry. A process killed between the two leaves a key without a printer, which the
// next printer of that name adopts.
DWORD AddNewPrinter(const PRINTER_INFO_2A& record, HANDLE* handle) {
    Printer printer;
    DWORD error = ReadPrinterRecord(record, &printer);
    if (error != ERROR_SUCCESS) return error;
    const std::string folded = FoldName(printer.Name());
    DatabaseHold hold(SpoolStore(), DatabaseUse::Change);
    if (hold.Error() != ERROR_SUCCESS) return hold.Error();
    int64_t id = 0;
    error = AddPrinterRow(hold, printer, folded, &id);
    if (error == ERROR_SUCCESS && !IsConnection(printer.Name())) error = static_cast<DWORD>(WritePrinterKey(printer));
    if (error == ERROR_SUCCESS) error = hold.Commit();
    if (error != ERROR_SUCCESS) return error;
    MakeJobsFolder(); // so that others can print; spooling tries again
    return OpenPrinterHandle(kEmbeddedSpool, {id, printer.Name()}, PRINTER_ALL_ACCESS, handle);
}

DWORD DeleteOpenPrinter(const PrinterObject& open) {
    Printer printer;
    if (open.backEnd != &kEmbeddedSpool) return ERROR_NOT_SUPPORTED;
    DWORD error = open.backEnd->readPrinter(open.key, &printer);
    if (error != ERROR_SUCCESS) return error;
    DatabaseHold hold(SpoolStore(), DatabaseUse::Change);
    if (hold.Error() != ERROR_SUCCESS) return hold.Error();
    error = DeletePrinterRow(hold, open.key.id);
    if (error == ERROR_FILE_NOT_FOUND) return ERROR_PRINTER_DELETED;
    if (error == ERROR_SUCCESS && !IsConnection(printer.Name())) error = static_cast<DWORD>(DeletePrinterKey(printer));
    if (error == ERROR_SUCCESS) error = hold.Commit();
    if (error == ERROR_SUCCESS) RemoveJobsOf(open.key.id);
    if (error == ERROR_SUCCESS) TellOfJobs(open.key.id);
    return error;
}

} // namespace

const ObjectType kPrinterType{.name = "printer", .drop = DropPrinter};

PrinterObject::PrinterObject(const SpoolerBackEnd* printersOf, PrinterKey printer)
    : Object{&kPrinterType}, backEnd(printersOf), key(std::move(printer)) {}

} // namespace oriel

using namespace oriel;

BOOL WINAPI EnumPrintersA(DWORD flags, LPSTR name, DWORD level, LPBYTE buffer, DWORD size, LPDWORD needed,
                          LPDWORD returned) {
    return Succeeds(CodeCall([&]() -> DWORD {
        if (needed == nullptr || returned == nullptr || name != nullptr) return ERROR_INVALID_PARAMETER;
        *needed = 0;
        *returned = 0;
        if (level != 2) return ERROR_INVALID_LEVEL;
        const bool network = flags == PRINTER_ENUM_NETWORK;
        constexpr DWORD kKnown = PRINTER_ENUM_LOCAL | PRINTER_ENUM_CONNECTIONS;
        if (!network && (flags == 0 || (flags & ~kKnown) != 0)) return ERROR_INVALID_FLAGS;
        std::vector<Printer> printers;
        DWORD error = network ? DiscoverPrinters(&printers) : ListAllPrinters(&printers);
        if (error != ERROR_SUCCESS) return error;
        std::erase_if(printers, [flags](const Printer& printer) {
            return flags != PRINTER_ENUM_NETWORK &&
                   (flags & (IsConnection(printer.Name()) ? PRINTER_ENUM_CONNECTIONS : PRINTER_ENUM_LOCAL)) == 0;
        });
        error = WritePrinterRecords(printers, buffer, size, needed);
        if (error == ERROR_SUCCESS) *returned = static_cast<DWORD>(printers.size());
        return error;
    }));
}

BOOL WINAPI OpenPrinterA(LPSTR name, LPHANDLE printer, LPPRINTER_DEFAULTSA defaults) {
    return Succeeds(CodeCall([&] { return OpenNamedPrinter(name, printer, defaults); }));
}

BOOL WINAPI GetPrinterA(HANDLE printer, DWORD level, LPBYTE buffer, DWORD size, LPDWORD needed) {
    return Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, PRINTER_ACCESS_USE);
        if (!open) return GetLastError();
        if (needed == nullptr) return ERROR_INVALID_PARAMETER;
        if (level != 2) return ERROR_INVALID_LEVEL;
        Printer found;
        const DWORD error = open->backEnd->readPrinter(open->key, &found);
        return error == ERROR_SUCCESS ? WritePrinterRecords({&found, 1}, buffer, size, needed) : error;
    }));
}

BOOL WINAPI ClosePrinter(HANDLE printer) {
    return Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, 0);
        return open && CloseHandle(printer) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
    }));
}

HANDLE WINAPI AddPrinterA(LPSTR server, DWORD level, LPBYTE record) {
    HANDLE handle = nullptr;
    const DWORD error = CodeCall([&]() -> DWORD {
        if (server != nullptr || record == nullptr) return ERROR_INVALID_PARAMETER;
        if (level != 2) return ERROR_INVALID_LEVEL;
        PRINTER_INFO_2A copy; // the caller's may be unaligned
        std::memcpy(&copy, record, sizeof copy);
        return AddNewPrinter(copy, &handle);
    });
    return Succeeds(error) ? handle : nullptr;
}

BOOL WINAPI DeletePrinter(HANDLE printer) {
    return Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, PRINTER_ACCESS_ADMINISTER);
        return open ? DeleteOpenPrinter(*open.Get()) : GetLastError(); // set by the look-up
    }));
}
