#include "printer_side.h"

namespace {

ULONGLONG TimeOf(DatabaseHandle database, const char* variable) {
    SYSTEMTIME time = {};
    FILETIME file = {};
    GetWriteTime(database, variable, &time);
    SystemTimeToFileTime(&time, &file);
    return ULONGLONG{file.dwHighDateTime} << 32 | file.dwLowDateTime;
}

} // namespace

PrinterSide::PrinterSide(DatabaseHandle database, Answering answer)
    : m_database(database), m_answer(std::move(answer)) {
    for (Mailbox& mailbox : m_mailboxes) {
        GetWriteCount(database, mailbox.variable, &mailbox.seen);
        if (TimeOf(database, mailbox.variable) > TimeOf(database, "RWResult")) --mailbox.seen;
    }
    m_thread.emplace([this] {
        while (!IsSet(m_stop, 1))
            Serve();
    });
}

void PrinterSide::Serve() {
    for (Mailbox& mailbox : m_mailboxes) {
        DWORD writes = mailbox.seen;
        GetWriteCount(m_database, mailbox.variable, &writes);
        char text[64] = {};
        DWORD size = 0;
        if (std::exchange(mailbox.seen, writes) == writes ||
            ReadVariable(m_database, mailbox.variable, text, sizeof text, &size) != Answer::Done || text[0] == '\0')
            continue;
        ++m_requests;
        if (const std::optional<int32_t> result = m_answer(mailbox.variable, text))
            WriteVariable(m_database, "RWResult", &*result, sizeof *result);
    }
}
