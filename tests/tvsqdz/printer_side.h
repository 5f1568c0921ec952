// A printer side as small as one can be: it watches the mailbox of a printer's database and answers what comes.
#pragma once

#include "machine.h"
#include "product/client.h"

#include <atomic>
#include <functional>
#include <optional>
#include <string>

// mailbox: the variable that was written; text: what it says. The result for "RWResult"; none: it never answers.
using Answering = std::function<std::optional<int32_t>(const std::string& mailbox, const std::string& text)>;

// Runs one until the event is set. What was asked before it began, and not answered, it answers first.
void ServePrinter(DatabaseHandle database, const std::string& databaseName, const Answering& answer, HANDLE stop,
                  const std::function<void()>& ready);

// The same on a thread.
class PrinterSide {
public:
    PrinterSide(const ManagerRecord* manager, Answering answer);
    ~PrinterSide();

    int Requests() const { return m_requests; }

private:
    Answering m_answer;
    HANDLE m_stop;
    HANDLE m_ready;
    std::atomic<int> m_requests = 0;
    std::optional<TestThread> m_thread;
};

// Stores a value without the length that an update would add.
void StoreBytes(DatabaseHandle database, const std::string& variable, const Bytes& value);
Bytes StoredBytes(DatabaseHandle database, const std::string& variable);

// The variables that a printer of the test's model can be asked for: DNumber, DText (16 bytes), DVariable, DRead (only
// read), and Plain, which it cannot.
void AddDirectVariables();
// Takes the next message of a window of this thread's; false when none comes in time.
bool TakeMessage(MSG& message, HWND window);

// A manager of the user who may do everything, whatever the printer's access control list says.
inline constexpr char kPowerfulUser[] = "\\\\.\\kptmon";
TvsManager OpenAuthorised(const std::string& printer = kPrinter);
// The status that direct requests need: of the printer and the spooler.
void SetReady(TvsManager manager, uint32_t extStatus = 1, uint32_t spoolerStatus = 0xC, uint32_t portKind = 0);

// The product with a manager of that user on a printer that is ready for requests.
struct DirectProduct : Product {
    DirectProduct();
    TvsManager manager;
    ManagerRecord* record;
    DatabaseHandle database;
};
