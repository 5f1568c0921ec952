#include "printer_machine.h"

#include <cstring>

std::string DatabaseOf(size_t printer) {
    return "TVORSQD_DB" + std::to_string(printer + 1);
}

Bytes PrinterList(DWORD entries, DWORD count) {
    Bytes list = Number(4 + 560 * entries);
    const Bytes counted = Number(count);
    list.insert(list.end(), counted.begin(), counted.end());
    for (DWORD i = 0; i < entries; ++i) {
        Bytes entry(kEntrySize);
        entry[0] = static_cast<unsigned char>(i + 1);
        std::memcpy(entry.data() + kNameAt, kPrinters[i].c_str(), kPrinters[i].size());
        std::memcpy(entry.data() + kDatabaseAt, DatabaseOf(i).c_str(), DatabaseOf(i).size());
        list.insert(list.end(), entry.begin(), entry.end());
    }
    return list;
}

PrinterMachine::PrinterMachine(DWORD limitMs, const std::vector<VariableRow>& rows) : variables(rows) {
    HKEY key = nullptr;
    EXPECT_EQ(
        RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Tavik\\Oriel", 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr),
        ERROR_SUCCESS);
    EXPECT_EQ(RegSetValueExA(key, "ForwardLimit", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&limitMs), 4),
              ERROR_SUCCESS);
    RegCloseKey(key);
    StartService();
}

void PrinterMachine::StartService() {
    service.reset(); // before the next one
    service = std::make_unique<Service>();
    master = ReadyDatabase("TVORSQD_DB", {{"PrinterDatabase", kTypeVariableLength, PrinterList(4, 4)}});
    databases.clear();
    for (size_t i = 0; i < std::size(kPrinters); ++i)
        databases.push_back(ReadyDatabase(DatabaseOf(i), variables));
}
