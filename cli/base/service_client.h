// Calls of the service without the library: for the variable that is write-only in the library, and to notice a restart
// of the service, after which the library reopens its managers silently. State: the object's, and the process's
// binding.
#pragma once

#include "base/opened_printer.h"

#include "product/program_client.h"

// Ends the binding, once it is made.
struct ServiceBinding {
    ~ServiceBinding() { UnbindStatusDatabase(); }
};

// Which run of the service answers, as text; empty when none does.
std::string RunningInstance();

// The event that each write of the variable pulses while it is watched; null when nobody watches it.
KernelHandle OpenWrittenEvent(const std::string& database, const char* variable);

// A printer's database as the service has it open for this process.
class ServiceDatabase {
public:
    // what: for the failure. Throws Failure when there is no service, or no database of the printer.
    ServiceDatabase(const OpenedPrinter& printer, const std::string& what);

    // The value as it is stored. Throws Failure.
    Bytes Read(const char* variable) const;
    // Empty when it cannot be read.
    Bytes TryRead(const char* variable) const;

    // The event that each write of the variable pulses. One variable can be watched. Null: there is no such variable.
    HANDLE Watch(const char* variable);

    // Whether the service takes this user's writes of the variable. Throws Failure.
    enum class Writes { Taken, Denied, NotStored };
    Writes WritesOf(const char* variable) const;

    // Whether the service is still the one that opened the database.
    enum class Service { Same, Gone, Another };
    Service Look() const;

private:
    std::string m_what;
    ServiceBinding m_binding;
    std::string m_name;
    Guard<DatabaseHandle, &CloseDatabase> m_database; // closed before the binding ends
    KernelHandle m_written;                           // the watch ends with the process
};
