#include "printer_side.h"

#include "product/object_names.h"

namespace {

constexpr const char* kMailboxes[] = {"ReadRequest", "WriteRequest"};
constexpr DWORD kLookMs = 20; // for a pulse that came before the wait

DWORD WritesOf(DatabaseHandle database, const char* variable) {
    DWORD writes = 0;
    GetWriteCount(database, variable, &writes);
    return writes;
}

ULONGLONG TimeOf(DatabaseHandle database, const char* variable) {
    SYSTEMTIME time = {};
    FILETIME file = {};
    GetWriteTime(database, variable, &time);
    SystemTimeToFileTime(&time, &file);
    return ULONGLONG{file.dwHighDateTime} << 32 | file.dwLowDateTime;
}

} // namespace

void StoreBytes(DatabaseHandle database, const std::string& variable, const Bytes& value) {
    EXPECT_EQ(WriteVariable(database, variable.c_str(), value.data(), static_cast<DWORD>(value.size())), Answer::Done)
        << variable;
}

Bytes StoredBytes(DatabaseHandle database, const std::string& variable) {
    Bytes value(4096);
    DWORD size = 0;
    EXPECT_EQ(ReadVariable(database, variable.c_str(), value.data(), 4096, &size), Answer::Done) << variable;
    value.resize(size);
    return value;
}

void ServePrinter(DatabaseHandle database, const std::string& databaseName, const Answering& answer, HANDLE stop,
                  const std::function<void()>& ready) {
    HANDLE events[3] = {stop};
    DWORD seen[2];
    for (int i = 0; i < 2; ++i) {
        const product::KernelName name =
            product::VariableEventName(true, databaseName, kMailboxes[i], product::VariableSignal::Updated);
        events[i + 1] = CreateEventA(nullptr, TRUE, FALSE, name.text);
        EXPECT_EQ(WatchVariable(database, kMailboxes[i], product::kEveryWrite), Answer::Done);
        seen[i] = WritesOf(database, kMailboxes[i]);
        if (TimeOf(database, kMailboxes[i]) > TimeOf(database, "RWResult")) --seen[i];
    }
    ready();
    while (WaitForMultipleObjects(3, events, FALSE, kLookMs) != WAIT_OBJECT_0) {
        for (int i = 0; i < 2; ++i) {
            const DWORD writes = WritesOf(database, kMailboxes[i]);
            if (writes == seen[i]) continue;
            seen[i] = writes;
            char text[64] = {};
            DWORD size = 0;
            if (ReadVariable(database, kMailboxes[i], text, sizeof text, &size) != Answer::Done || text[0] == '\0')
                continue;
            if (const std::optional<int32_t> result = answer(kMailboxes[i], text))
                WriteVariable(database, "RWResult", &*result, sizeof *result);
        }
    }
    for (int i = 0; i < 2; ++i) {
        UnwatchVariable(database, kMailboxes[i]);
        CloseHandle(events[i + 1]);
    }
}

PrinterSide::PrinterSide(const ManagerRecord* manager, Answering answer)
    : m_answer(std::move(answer)), m_stop(CreateEventA(nullptr, TRUE, FALSE, nullptr)),
      m_ready(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
    m_thread.emplace(
        [this, database = manager->printerDatabase.handle.load(), name = std::string(manager->databaseName)] {
            const Answering counted = [this](const std::string& mailbox, const std::string& text) {
                ++m_requests;
                return m_answer(mailbox, text);
            };
            ServePrinter(database, name, counted, m_stop, [this] { SetEvent(m_ready); });
        });
    EXPECT_EQ(WaitForSingleObject(m_ready, 10000), DWORD{WAIT_OBJECT_0});
}

PrinterSide::~PrinterSide() {
    SetEvent(m_stop);
    m_thread.reset();
    CloseHandle(m_stop);
    CloseHandle(m_ready);
}

void AddDirectVariables() {
    AddModelVariable(kModel, "DNumber", 4, 0x30204, Number(1));
    AddModelVariable(kModel, "DText", 16, 0x30208, Bytes(16));
    AddModelVariable(kModel, "DVariable", 4, 0x30210, Text("vvvv"));
    AddModelVariable(kModel, "DRead", 4, 0x40010004, Number(3));
    AddModelVariable(kModel, "Plain", 4, 0x30004, Number(4));
}

bool TakeMessage(MSG& message, HWND window) {
    return WaitUntil([&] { return PeekMessageA(&message, window, 0, 0, PM_REMOVE) != FALSE; });
}

TvsManager OpenAuthorised(const std::string& printer) {
    TvsManager manager = 0;
    EXPECT_EQ(OpenManagerExA(printer.c_str(), kPowerfulUser, 2, &manager), TVS_OK);
    return manager;
}

void SetReady(TvsManager manager, uint32_t extStatus, uint32_t spoolerStatus, uint32_t portKind) {
    EXPECT_EQ(Update(manager, "PrinterExtStatus", Number(extStatus)), TVS_OK);
    EXPECT_EQ(Update(manager, "SpoolerStatus", Number(spoolerStatus)), TVS_OK);
    EXPECT_EQ(Update(manager, "Port", Joined({Number(portKind), Bytes(256)})), TVS_OK);
}

DirectProduct::DirectProduct() {
    AddDirectVariables();
    manager = OpenAuthorised();
    record = RecordOf(manager);
    database = record->printerDatabase.handle;
    SetReady(manager);
}
