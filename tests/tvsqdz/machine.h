// The product on the test's private machine: what is set up in the registry, the real service, and managers on its
// printers.
#pragma once

#include "exports/attach.h"
#include "manager/manager_record.h"
#include "not_here.h"
#include "private_machine.h"
#include "product/client.h"
#include "status_service.h"

#include <gtest/gtest.h>
#include <tvsqdz.h>
#include <windows.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

Bytes Text(const std::string& text); // without a NUL
Bytes Joined(const std::vector<Bytes>& parts);
template <typename Record>
Bytes BytesOfRecord(const Record& record) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    return {bytes, bytes + sizeof record};
}

HANDLE NewEvent(bool manual = false);
// Waits for an event, a mutex or a thread.
bool IsSet(HANDLE handle, DWORD timeoutMs = 10000);
// A window of this thread's, of a class of that name.
HWND MakeWindow(const char* className, const char* title = "");
// Takes the next message of a window of this thread's; false when none comes in time.
bool TakeMessage(MSG& message, HWND window);

// Sets a value of HKEY_LOCAL_MACHINE (or of the root given), making its key.
void SetRegistryValue(const std::string& key, const std::string& name, DWORD type, const Bytes& data,
                      HKEY root = HKEY_LOCAL_MACHINE);
void SetRegistryText(const std::string& key, const std::string& name, const std::string& text,
                     HKEY root = HKEY_LOCAL_MACHINE);
// Empty when it is not there.
Bytes RegistryValue(const std::string& key, const std::string& name, DWORD* type = nullptr);

// The directory of the installed product, with a backslash at its end; it holds a TVSDBN.EXE.
std::string InstallDirectory();
// "DIRPATH", and the file that says that the product is installed.
void InstallProduct();
// A printer of a driver, known to the registry as the spooler leaves it there.
void AddPrinter(const std::string& name, const std::string& driver);
// The same printer known to the spooler: with a key if it is local, without one if its name begins with a server.
void AddToSpooler(std::string name, std::string driver = "Test Model");
// A variable of a registered model. size: of the record; data: behind size and flags.
void AddModelVariable(const std::string& driver, const std::string& name, uint32_t size, uint32_t flags,
                      const Bytes& data);
inline const std::string kPrinterKeys = "System\\CurrentControlSet\\Control\\Print\\Printers\\";
inline const std::string kPrinter = "Front desk";
inline const std::string kModel = "Test Model";
inline const std::string kDriverData = kPrinterKeys + kPrinter + "\\PrinterDriverData";
// All of the above: the product, the printer, its model with variables of all kinds (machine.cpp lists them), and the
// event that says that the product is initialised.
void SetUpProduct();
inline constexpr uint32_t kVariableCount = 57 + 17; // the model's too
HANDLE ProductInitialisedEvent();                   // set

// The library in this process.
struct Library {
    Library();
    ~Library();
};

// The product, set up, its service running, and the library attached.
struct Product {
    struct SetUp {
        SetUp() { SetUpProduct(); }
    } setUp;
    Service service;
    Library library;
    void KillService() { service.process.Kill(); }
    void RestartService() {
        KillService();
        service = Service();
    }
};

// With a manager on its printer.
struct Opened : testing::Test, Product {
    explicit Opened(const char* user = "operator");
    TvsManager manager = 0;
    ManagerRecord* record;
    DatabaseHandle database;
};

// A user who may do everything, whatever the printer's access control list says.
inline constexpr char kPowerfulUser[] = "\\\\.\\kptmon";
// The same with a manager of that user's, and a printer that is ready for requests.
struct OpenedReady : Opened {
    OpenedReady();
};
// The status that requests need: of the printer and the spooler.
void SetReady(TvsManager manager, uint32_t extStatus = 1, uint32_t spoolerStatus = 0xC, uint32_t portKind = 0);

// Opens a manager; its status when that fails is a failure of the test.
TvsManager OpenPrinter(uint32_t clientKind = 2, const std::string& printer = kPrinter, const char* user = "operator");
// The status of an open, which is closed again when it succeeds.
int32_t OpenStatus(const std::string& printer, uint32_t clientKind, const char* user = nullptr);
// Its record, which stays while the manager is open.
ManagerRecord* RecordOf(TvsManager manager);

struct ReadResult {
    int32_t status;
    uint32_t returnedSize;
    Bytes bytes; // the whole buffer, 0xEE where nothing was written
};
ReadResult Read(TvsManager manager, const std::string& variable, uint32_t size,
                decltype(&GetPrinterStatusA) read = GetPrinterStatusA);
int32_t Update(TvsManager manager, const std::string& variable, const Bytes& data);
int32_t UpdateRecord(TvsManager manager, const std::string& variable, const auto& record) {
    return Update(manager, variable, BytesOfRecord(record));
}
// The result of an asynchronous write; fails the test when there is none to be had.
int32_t ResultOf(TvsManager manager, uint32_t number);
// What lies in the database, with the length that an update would add.
void StoreBytes(DatabaseHandle database, const std::string& variable, const Bytes& value);
Bytes StoredBytes(DatabaseHandle database, const std::string& variable);
// The value of a number variable; fails the test when it cannot be read.
uint32_t NumberOf(TvsManager manager, const std::string& variable);

// A thread that runs a function; joined with the guard.
class TestThread {
public:
    explicit TestThread(std::function<void()> function);
    ~TestThread();
    HANDLE Handle() const { return m_thread; }

private:
    std::function<void()> m_function;
    HANDLE m_thread;
};
