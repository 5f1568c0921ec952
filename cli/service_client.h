// The service asked without the library: for the variable that the library lets nobody read, and to learn that the
// service is another one, since the library opens its managers anew without a word.
#pragma once

#include "opened_printer.h"

#include "product/program_client.h"

// A printer's database as the service has it open for this process.
class ServiceDatabase {
public:
    // what: for the failure. Throws Failure when there is no service, or no database of the printer.
    ServiceDatabase(const OpenedPrinter& printer, const std::string& what);

    // The stored bytes. Throws Failure.
    Bytes Read(const char* variable) const;

    // Whether the service is still the one that opened the database.
    enum class Service { Same, Gone, Another };
    Service Look() const;

private:
    struct Binding {
        ~Binding() { UnbindStatusDatabase(); }
    };

    std::string m_what;
    Binding m_binding;
    Guard<DatabaseHandle, &CloseDatabase> m_database; // goes first
};
