#include "memory_kit.h"

#include <cstdint>

std::vector<AddressCase> BadMemory::Kinds(size_t size) {
    const auto at = [](uintptr_t number) { return reinterpret_cast<void*>(number); };
    unsigned char* end = m_good + m_page;
    return {
        {"NULL", nullptr, size, false, false},
        {"1", at(1), size, false, false},
        {"non-canonical", at(static_cast<uintptr_t>(0x8000000000000000ULL >> (64 - 8 * sizeof(void*)))), size, false,
         false},
        {"kernel", at(~static_cast<uintptr_t>(0xFFFFF)), size, false, false},
        {"no access", end, size, false, false},
        {"read-only", m_readOnly, size, true, false},
        {"misaligned", m_good + 3, size, true, true},
        {"one before the page's end", end - size - 1, size, true, true},
        {"up to the page's end", end - size, size, true, true},
        {"one beyond the page's end", end - size + 1, size, false, false},
        {"unmapped tail", m_unmapped + m_page - size / 2, size, false, false},
        {"behind the file's end", m_file + m_page, size, false, false},
        {"unterminated", end - size, size + 1, false, false},
        {"huge size", m_good, SIZE_MAX / 2, false, false},
    };
}

unsigned char* BadMemory::AtEnd(size_t size) {
    return m_good + m_page - size;
}
