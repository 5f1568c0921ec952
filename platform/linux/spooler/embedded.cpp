// The embedded spool as a back end: printers in a database, jobs in files (job_files.cpp). State: the database.
#include "spooler/embedded.h"

#include "base/directories.h"
#include "spooler/job_files.h"
#include "text/names.h"

#include <winerror.h>

namespace oriel {
namespace {

// Numbers are never reused, so that a handle of a deleted printer finds nothing.
constexpr const char* kSchema = R"(
CREATE TABLE printers(
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    folded BLOB NOT NULL UNIQUE,
    name BLOB NOT NULL,
    server BLOB NOT NULL,
    share BLOB NOT NULL,
    port BLOB NOT NULL,
    driver BLOB NOT NULL,
    comment BLOB NOT NULL,
    location BLOB NOT NULL,
    processor BLOB NOT NULL,
    datatype BLOB NOT NULL,
    attributes INTEGER NOT NULL);
)";

#define ORIEL_PRINTER_COLUMNS "name, server, share, port, driver, comment, location, processor, datatype, attributes"

enum SpoolStatement : size_t { kList, kFind, kRead, kAdd, kDelete };
constexpr const char* kStatements[] = {
    "SELECT id, " ORIEL_PRINTER_COLUMNS " FROM printers ORDER BY id",
    "SELECT id FROM printers WHERE folded = ?1",
    "SELECT id, " ORIEL_PRINTER_COLUMNS " FROM printers WHERE id = ?1",
    "INSERT INTO printers(folded, " ORIEL_PRINTER_COLUMNS ") VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)"
    " RETURNING id",
    "DELETE FROM printers WHERE id = ?1",
};

std::string SpoolPath(bool create) {
    const std::string& state = create ? MakeStateDirectory() : StateDirectory();
    return state.empty() ? state : state + "/spool.sqlite";
}

constexpr DatabaseKind kSpoolKind = {
    .applicationId = 0x4f725370, // "OrSp"
    .version = 1,
    .schema = kSchema,
    .statements = kStatements,
    .mode = 0644,
    .path = SpoolPath,
};

Database& g_spool = *new Database(kSpoolKind, DatabaseRank::Spool);

Printer PrinterOf(const Query& row) {
    Printer printer;
    printer.id = row.Number(0);
    for (size_t text = 0; text < kPrinterTextCount; ++text)
        printer.texts[text] = row.Bytes(static_cast<int>(text) + 1);
    printer.attributes = static_cast<DWORD>(row.Number(kPrinterTextCount + 1));
    return printer;
}

} // namespace

Database& SpoolStore() {
    return g_spool;
}

DWORD ListPrinters(std::vector<Printer>* printers) {
    DatabaseHold hold(g_spool, DatabaseUse::Snapshot);
    // Nothing was ever added.
    if (hold.Error() == ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS;
    Query row(hold, kList);
    while (row.Next())
        printers->push_back(PrinterOf(row));
    return hold.Error();
}

DWORD FindPrinter(const std::string& folded, int64_t* id) {
    DatabaseHold hold(g_spool, DatabaseUse::Look);
    Query row(hold, kFind);
    if (!row.Bind(folded).Next()) return hold.Error() != ERROR_SUCCESS ? hold.Error() : ERROR_FILE_NOT_FOUND;
    *id = row.Number(0);
    return ERROR_SUCCESS;
}

DWORD ReadPrinter(int64_t id, Printer* printer) {
    DatabaseHold hold(g_spool, DatabaseUse::Look);
    Query row(hold, kRead);
    if (!row.Bind(id).Next()) return hold.Error() != ERROR_SUCCESS ? hold.Error() : ERROR_FILE_NOT_FOUND;
    *printer = PrinterOf(row);
    return ERROR_SUCCESS;
}

DWORD AddPrinterRow(DatabaseHold& hold, const Printer& printer, const std::string& folded, int64_t* id) {
    {
        Query row(hold, kFind);
        if (row.Bind(folded).Next()) return ERROR_PRINTER_ALREADY_EXISTS;
    }
    Query row(hold, kAdd);
    row.Bind(folded);
    for (const std::string& text : printer.texts)
        row.Bind(text);
    if (row.Bind(int64_t{printer.attributes}).Next()) *id = row.Number(0);
    return hold.Error();
}

DWORD DeletePrinterRow(DatabaseHold& hold, int64_t id) {
    Query row(hold, kDelete);
    if (!row.Bind(id).Run()) return hold.Error();
    return row.Changes() != 0 ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
}

namespace {

DWORD FindNamed(const std::string& name, PrinterKey* key) {
    const DWORD error = FindPrinter(FoldName(name), &key->id);
    if (error == ERROR_SUCCESS) key->name = name;
    return error == ERROR_FILE_NOT_FOUND ? ERROR_INVALID_PRINTER_NAME : error;
}

DWORD ReadKnown(const PrinterKey& key, Printer* printer) {
    const DWORD error = ReadPrinter(key.id, printer);
    return error == ERROR_FILE_NOT_FOUND ? ERROR_PRINTER_DELETED : error;
}

DWORD ListJobsOf(const PrinterKey& key, DWORD, std::vector<Job>* jobs) {
    Printer printer;
    const DWORD error = ReadKnown(key, &printer);
    return error == ERROR_SUCCESS ? ListJobFiles(key.id, jobs) : error;
}

DWORD ChangeJobOf(const PrinterKey& key, DWORD job, JobCommand command) {
    Printer printer;
    const DWORD error = ReadKnown(key, &printer);
    return error == ERROR_SUCCESS ? ChangeJobFile(key.id, job, command) : error;
}

} // namespace

const SpoolerBackEnd kEmbeddedSpool{
    .listPrinters = ListPrinters,
    .findPrinter = FindNamed,
    .readPrinter = ReadKnown,
    .listJobs = ListJobsOf,
    .changeJob = ChangeJobOf,
};

} // namespace oriel
