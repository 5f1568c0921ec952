// The memory kit over Win32.
#include "memory_kit.h"
#include "not_here.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <cstring>

namespace {

unsigned char* Reserve(size_t pages, size_t page) {
    auto* memory = static_cast<unsigned char*>(VirtualAlloc(nullptr, pages * page, MEM_RESERVE, PAGE_NOACCESS));
    EXPECT_EQ(VirtualAlloc(memory, page, MEM_COMMIT, PAGE_READWRITE), memory) << GetLastError();
    std::memset(memory, 'x', page);
    return memory;
}

} // namespace

BadMemory::BadMemory() : m_page(4096) {
    m_good = Reserve(2, m_page);
    m_readOnly = Reserve(1, m_page);
    m_unmapped = Reserve(2, m_page);
    m_file = Reserve(2, m_page); // a mapping never reaches beyond its file
    DWORD before = 0;
    EXPECT_TRUE(VirtualAlloc(m_good + m_page, m_page, MEM_COMMIT, PAGE_NOACCESS));
    EXPECT_TRUE(VirtualProtect(m_readOnly, m_page, PAGE_READONLY, &before));
}

BadMemory::~BadMemory() {
    for (unsigned char* memory : {m_good, m_readOnly, m_unmapped, m_file})
        VirtualFree(memory, 0, MEM_RELEASE);
}

void BadMemory::Forbid(bool forbidden) {
    DWORD before = 0;
    EXPECT_TRUE(VirtualProtect(m_good, m_page, forbidden ? PAGE_NOACCESS : PAGE_READWRITE, &before));
}

bool RefuseGuardCalls() {
    return false;
}

int RunForked(const std::function<int()>&) {
    NotHere("fork children");
}

size_t BytesInUse() {
    NotHere("a count of the bytes in use");
}
