// None of it: a debugger's calls, which the library uses there, read and write whatever a page's protection says.
#include "memory_kit.h"
#include "not_here.h"

BadMemory::BadMemory() : m_page(4096) {
    NotHere("memory that misbehaves");
}

BadMemory::~BadMemory() = default;

void BadMemory::Forbid(bool) {}

bool RefuseGuardCalls() {
    return false;
}

int RunForked(const std::function<int()>&) {
    NotHere("fork children");
}

size_t BytesInUse() {
    NotHere("a count of the bytes in use");
}
