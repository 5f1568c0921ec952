#include "printer_machine.h"

#include <cstring>

static const std::vector<VariableRow> kVariables = {{"AccessControlList", kTypeVariableLength, kNoList},
                                                    {"CompulsivePolling", kTypeNumber, Number(0)},
                                                    {"CurrentFeeder", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"ErrCoverOpen", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"ErrFormRegistError", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"ErrNoPaper", kTypeRecord, Number(0xFFFFFFFF)},
                                                    {"ErrPaperJam", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"ErrPaperSizeError", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"ErrPaperState", kTypeRecord, Bytes(4)},
                                                    {"JobStatus", kTypeNumber, Number(0)},
                                                    {"Level", kTypeByte, {0}},
                                                    {"LMFunction", kTypeNumber, Number(0)},
                                                    {"PageCount", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"Port", kTypeRecord, Bytes(260)},
                                                    {"PortEx", kTypeComposite, {}},
                                                    {"PowerSaveEnd", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"PrinterBinConfig", kTypeVariableLength, Bytes(8)},
                                                    {"PrinterDisplay", kTypeRecord, Bytes(132)},
                                                    {"PrinterDisplay2", kTypeRecord, Bytes(260)},
                                                    {"PrinterExtConfig", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"PrinterExtStatus", kTypeNumber, Number(0)},
                                                    {"PrinterLocation", kTypeString, Bytes(260)},
                                                    {"PrinterManufacturer", kTypeString, Bytes(64)},
                                                    {"PrinterMemory", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"PrinterModel", kTypeString, Bytes(64)},
                                                    {"PrinterName", kTypeString, Bytes(260)},
                                                    {"PrinterOptConfig", kTypeVariableLength, Bytes(8)},
                                                    {"PrinterQueue", kTypeVariableLength, kNoList},
                                                    {"PrinterStatus", kTypeRecord, Bytes(12)},
                                                    {"PrinterStatus2", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"PrintingJobInfo", kTypeRecord, Bytes(296)},
                                                    {"PrintingStatus", kTypeRecord, Bytes(8)},
                                                    {"ReadRequest", kTypeString, Bytes(32)},
                                                    {"RefreshStatus", kTypeString, Bytes(260)},
                                                    {"RWResult", kTypeNumber, Number(0)},
                                                    {"ServiceTag", kTypeString, Bytes(32)},
                                                    {"SpoolerStatus", kTypeNumber, Number(0)},
                                                    {"Temperature", kTypeWord, {0, 0}},
                                                    {"TerminateManager", kTypeNumber, Number(0)},
                                                    {"WarmupRemains", kTypeNumber, Number(0xFFFFFFFF)},
                                                    {"WriteRequest", kTypeString, Bytes(32)}};

std::string DatabaseOf(size_t printer) {
    return "TVORSQD_DB" + std::to_string(printer + 1);
}

Bytes PrinterList(DWORD entries, DWORD count) {
    Bytes list = Number(4 + 560 * entries) + Number(count);
    for (DWORD i = 0; i < entries; ++i) {
        Bytes entry(kEntrySize);
        entry[0] = static_cast<unsigned char>(i + 1);
        std::memcpy(entry.data() + kNameAt, kPrinters[i].c_str(), kPrinters[i].size());
        std::memcpy(entry.data() + kDatabaseAt, DatabaseOf(i).c_str(), DatabaseOf(i).size());
        list = list + entry;
    }
    return list;
}

void UseProductSetting(const char* name, DWORD type, const std::string& bytes) {
    HKEY key = nullptr;
    RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Tavik\\Oriel", 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr);
    EXPECT_EQ(RegSetValueExA(key, name, 0, type, reinterpret_cast<const BYTE*>(bytes.data()),
                             static_cast<DWORD>(bytes.size())),
              ERROR_SUCCESS);
    RegCloseKey(key);
}

PrinterMachine::PrinterMachine(DWORD limitMs) {
    UseProductSetting("ForwardLimit", REG_DWORD, {reinterpret_cast<const char*>(&limitMs), sizeof limitMs});
    StartService();
}

void PrinterMachine::StartService() {
    service.reset(); // before the next one
    service = std::make_unique<Service>();
    master = Database("TVORSQD_DB", {{"PrinterDatabase", kTypeVariableLength, PrinterList(4, 4)}});
    databases.clear();
    databases.reserve(std::size(kPrinters)); // and so at the same place after a restart
    for (size_t i = 0; i < std::size(kPrinters); ++i)
        databases.emplace_back(DatabaseOf(i), kVariables);
}
