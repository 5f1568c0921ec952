// The service with four printers: their list, and a database for each.
#pragma once

#include "service_under_test.h"

#include <memory>

inline const std::string kPrinters[] = {"Front desk", "Back office", "Cellar", "Attic"};

std::string DatabaseOf(size_t printer);
// The printer list, with that many entries; count: what it says of them.
Bytes PrinterList(DWORD entries, DWORD count);
inline const Bytes kNoList = {4, 0, 0, 0, 0, 0, 0, 0}; // of access control entries
inline constexpr size_t kEntryAt = 8;                  // of the list, and what an entry has where
inline constexpr size_t kEntrySize = 560;
inline constexpr size_t kOwnerAt = 4;
inline constexpr size_t kNameAt = 8;
inline constexpr size_t kDatabaseAt = 268;

// A value of the product's key, which the service reads when it starts or, some, when it is asked.
void UseProductSetting(const char* name, DWORD type, const std::string& bytes);

struct PrinterMachine {
    explicit PrinterMachine(DWORD limitMs = 20000); // of a forwarded request
    void StartService();

    std::unique_ptr<Service> service;
    Database master;
    std::vector<Database> databases;
};
