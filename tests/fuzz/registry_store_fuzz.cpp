// The registry's file, damaged. The input says which bytes of a good one change: u8 page, u16 place, u8 value, over and
// over. Check sums are put right, so that the damage gets past them.
#include "fuzz.h"
#include "store/file_layer.h"

#include <fstream>
#include <vector>
#include <windows.h>
#include <winreg_text.h>

namespace {

std::string g_path;
std::string g_good;

void MakeGoodStore() {
    g_path = PrivateMachine() + "/state/registry/HKLM.sqlite";
    std::string text = "REGEDIT4\n";
    for (int key = 0; key < 12; ++key)
        text += "[HKLM\\Key " + std::to_string(key) + "\\Sub]\n\"value\"=\"" +
                std::string(static_cast<size_t>(key * 700), 'x') + "\"\n\"number\"=dword:7\n";
    REQUIRE(RegImportTextA(text.data(), text.size(), nullptr) == ERROR_SUCCESS);
    std::ifstream file(g_path, std::ios::binary);
    g_good.assign(std::istreambuf_iterator<char>(file), {});
    REQUIRE(g_good.size() % oriel::kPageSize == 0);
}

void Replace(const std::string& bytes) {
    std::ofstream(g_path + ".new", std::ios::binary) << bytes;
    REQUIRE(std::rename((g_path + ".new").c_str(), g_path.c_str()) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (g_good.empty()) MakeGoodStore();
    std::string bytes = g_good;
    Input input(data, size);
    const auto cut = input.Take<uint8_t>(); // pages that are missing
    while (!input.IsEmpty()) {
        const size_t page = input.Take<uint8_t>() % (bytes.size() / oriel::kPageSize);
        const size_t at = input.Take<uint16_t>() % oriel::kPageSize;
        bytes[page * oriel::kPageSize + at] = static_cast<char>(input.Take<uint8_t>());
    }
    for (size_t at = 0; at < bytes.size(); at += oriel::kPageSize) {
        auto* page = reinterpret_cast<unsigned char*>(bytes.data() + at);
        const uint64_t sum = oriel::PageCheckSum(page, static_cast<int64_t>(at));
        std::memcpy(page + oriel::kPageSize - oriel::kPageReserve, &sum, sizeof sum);
    }
    bytes.resize(bytes.size() - std::min<size_t>(cut, bytes.size() / oriel::kPageSize) * oriel::kPageSize);
    Replace(bytes);

    SIZE_T length = 0;
    RegExportTextA(HKEY_LOCAL_MACHINE, nullptr, nullptr, &length);
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Key 11\\Sub", 0, KEY_ALL_ACCESS, &key) == ERROR_SUCCESS) {
        std::vector<BYTE> value(1 << 20);
        auto valueSize = static_cast<DWORD>(value.size());
        RegQueryValueExA(key, "value", nullptr, nullptr, value.data(), &valueSize);
        RegSetValueExA(key, "number", 0, REG_BINARY, value.data(), 5000);
        RegDeleteValueA(key, "value");
        RegCloseKey(key);
    }
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, "Key 3\\Sub");
    return 0;
}
