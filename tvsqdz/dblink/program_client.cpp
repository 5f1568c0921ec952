#include "dblink/program_client.h"

#include "dblink/printer_list.h"
#include "frame/status_service.h"

#include <algorithm>

// The client asks for it when it creates a database, which no program does.
bool RestartStatusService9x() {
    return false;
}

namespace {

// A value that outgrows the room that was just asked for, time after time, is not believable.
constexpr int kAttempts = 8;

} // namespace

Answer ReadWholeValue(DatabaseHandle database, const char* name, std::vector<BYTE>* value) {
    value->clear();
    Answer answer = Answer::BufferTooSmall;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const bool asks = value->empty();
        DWORD size = static_cast<DWORD>(value->size());
        answer = ReadVariable(database, name, asks ? nullptr : value->data(), size, &size);
        if (answer != Answer::Done && answer != Answer::BufferTooSmall) break;
        value->resize(std::min(size, dblink::kValueSizeMax));
        if (answer == Answer::Done && (!asks || size == 0)) return answer;
    }
    value->clear();
    return answer;
}

Answer FindPrinterDatabase(const std::string& printer, std::string* database, std::string* driver) {
    database->clear();
    DatabaseHandle master = 0;
    Answer answer = OpenDatabase(dblink::kMasterDatabase, &master);
    if (answer != Answer::Done) return answer;
    std::vector<BYTE> list;
    answer = ReadWholeValue(master, dblink::kPrinterListVariable, &list);
    CloseDatabase(master);
    *database = dblink::DatabaseInPrinterList(list.data(), list.size(), printer);
    if (driver) *driver = dblink::DriverInPrinterList(list.data(), list.size(), printer);
    return answer;
}
