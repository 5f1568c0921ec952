#include "product/program_client.h"

#include "product/growing_reads.h"
#include "product/printer_list.h"

#include <algorithm>

// The client calls this when it cannot create a database. No program creates one.
bool RestartStatusService9x() {
    return false;
}

namespace {

Answer ReadPrinterList(std::vector<BYTE>* list) {
    list->clear();
    DatabaseHandle master = 0;
    Answer answer = OpenDatabase(product::kMasterDatabase, &master);
    if (answer != Answer::Done) return answer;
    answer = ReadWholeValue(master, product::kPrinterListVariable, list);
    CloseDatabase(master);
    return answer;
}

} // namespace

Answer ReadWholeValue(DatabaseHandle database, const char* name, std::vector<BYTE>* value) {
    value->clear();
    Answer answer = Answer::BufferTooSmall;
    const ReadAttempt result = ReadWhileItGrows([&] {
        const bool asks = value->empty();
        DWORD size = static_cast<DWORD>(value->size());
        answer = ReadVariable(database, name, asks ? nullptr : value->data(), size, &size);
        if (answer != Answer::Done && answer != Answer::BufferTooSmall) return ReadAttempt::Failed;
        value->resize(std::min(size, product::kValueSizeMax));
        return answer == Answer::Done && (!asks || size == 0) ? ReadAttempt::Done : ReadAttempt::Grew;
    });
    if (result != ReadAttempt::Done) value->clear();
    return answer;
}

Answer ListPrinterDatabases(std::vector<std::string>* databases) {
    std::vector<BYTE> list;
    const Answer answer = ReadPrinterList(&list);
    databases->clear();
    for (SIZE_T i = 0; i < product::CountPrinterList(list.data(), list.size()); ++i)
        databases->emplace_back(product::PrinterInList(list.data(), i).database);
    return answer;
}

Answer FindPrinterDatabase(const std::string& printer, std::string* database, std::string* driver) {
    std::vector<BYTE> list;
    const Answer answer = ReadPrinterList(&list);
    const product::ListedPrinter found = product::FindListedPrinter(list.data(), list.size(), printer);
    *database = found.database;
    if (driver) *driver = found.driver;
    return answer;
}
