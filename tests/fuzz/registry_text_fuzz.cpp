// .reg text: what is imported is exported as a text that gives the same again.
#include "fuzz.h"

#include <windows.h>
#include <winreg_text.h>

namespace {

std::string Export(HKEY root) {
    SIZE_T length = 0;
    REQUIRE(RegExportTextA(root, nullptr, nullptr, &length) == ERROR_SUCCESS);
    std::string text(length, '\0');
    REQUIRE(RegExportTextA(root, nullptr, text.data(), &length) == ERROR_SUCCESS);
    return text;
}

// All subkeys and values of a root.
void Clear(HKEY root) {
    char name[16384];
    DWORD size = sizeof name;
    while (RegEnumKeyExA(root, 0, name, &size, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS) {
        const std::string text = "REGEDIT4\n[-" + std::string(root == HKEY_LOCAL_MACHINE ? "HKLM" : "HKCU") + "\\" +
                                 std::string(name, size) + "]\n";
        REQUIRE(RegImportTextA(text.data(), text.size(), nullptr) == ERROR_SUCCESS);
        size = sizeof name;
    }
    while (RegEnumValueA(root, 0, name, &(size = sizeof name), nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS)
        REQUIRE(RegDeleteValueA(root, name) == ERROR_SUCCESS);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    PrivateMachine();
    DWORD line = 0;
    const LSTATUS status = RegImportTextA(reinterpret_cast<const char*>(data), size, &line);
    REQUIRE(status == ERROR_SUCCESS || (status == ERROR_BAD_FORMAT && line != 0));
    if (status != ERROR_SUCCESS) return 0;
    for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
        const std::string text = Export(root);
        Clear(root);
        REQUIRE(RegImportTextA(text.data(), text.size(), nullptr) == ERROR_SUCCESS);
        REQUIRE(Export(root) == text);
        Clear(root);
    }
    return 0;
}
