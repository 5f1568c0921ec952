// Which code page is the ANSI one. Settled once for the process, on first need.
#include "text/code_page.h"

#include <winnls.h>
#include <winreg.h>

#include <atomic>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace oriel {
namespace {

std::atomic<const CodePage*> g_ansiCodePage{nullptr};

// 0 when the text is not a number.
UINT NumberOf(const char* text) {
    UINT number = 0;
    const char* end = text + std::strlen(text);
    const auto [last, error] = std::from_chars(text, end, number);
    return error == std::errc() && last == end ? number : 0;
}

UINT NumberInRegistry() {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Control\\Nls\\CodePage", 0, KEY_QUERY_VALUE,
                      &key) != ERROR_SUCCESS)
        return 0;
    char text[16] = {};
    DWORD size = sizeof text - 1;
    DWORD type = REG_NONE;
    const LSTATUS status = RegQueryValueExA(key, "ACP", nullptr, &type, reinterpret_cast<BYTE*>(text), &size);
    RegCloseKey(key);
    return status == ERROR_SUCCESS && type == REG_SZ ? NumberOf(text) : 0;
}

const CodePage& SettleAnsiCodePage() {
    const char* setting = std::getenv("ORIEL_ANSI_CODE_PAGE");
    UINT number = setting != nullptr ? NumberOf(setting) : 0;
    if (number == 0) number = NumberInRegistry();
    const CodePage* page = number != 0 ? FindCodePage(number) : nullptr;
    if (page == nullptr) page = FindCodePage(kWesternCodePage);
    const CodePage* settled = nullptr;
    return g_ansiCodePage.compare_exchange_strong(settled, page) ? *page : *settled;
}

} // namespace

const CodePage& AnsiCodePage() {
    const CodePage* page = g_ansiCodePage.load(std::memory_order_acquire);
    if (page != nullptr) [[likely]]
        return *page;
    // The registry may itself ask for the code page while it is opened; its own names are ASCII then.
    static thread_local bool settling = false;
    if (settling) return *FindCodePage(kWesternCodePage);
    settling = true;
    const CodePage& settled = SettleAnsiCodePage();
    settling = false;
    return settled;
}

} // namespace oriel

using namespace oriel;

UINT WINAPI GetACP(void) {
    return AnsiCodePage().number;
}

BOOL WINAPI IsDBCSLeadByteEx(UINT codePage, BYTE testChar) {
    const CodePage* page = FindCodePage(codePage);
    return page != nullptr && page->pairs[testChar] != nullptr ? TRUE : FALSE;
}

BOOL WINAPI IsDBCSLeadByte(BYTE testChar) {
    // No ANSI code page has a lead byte that is ASCII.
    return testChar >= 0x80 ? IsDBCSLeadByteEx(CP_ACP, testChar) : FALSE;
}
