#include "notify/name_list.h"

#include "frame/caller_memory.h"
#include "frame/heap.h"

namespace {

constexpr char kSeparator = ';';
// The text is read into blocks of growing size, for it does not say how long it is. A list of 63 names fits the first
// one or two; the last one is more than anybody needs, and bounds what a text without an end costs.
constexpr SIZE_T kFirstSize = 1024;
constexpr SIZE_T kLastSize = 65536;

uint32_t CountNames(const char* text) {
    uint32_t count = 0;
    for (char before = kSeparator; *text != '\0'; before = *text++)
        if (before == kSeparator && *text != kSeparator) ++count;
    return count;
}

} // namespace

NameList::~NameList() {
    FreeBlock(m_text);
}

Status NameList::Read(uint32_t count, const char* callersNames) {
    if (count == 0) return TVS_OK;
    for (SIZE_T size = kFirstSize; size <= kLastSize; size *= 8) {
        HeapBlock block(size);
        if (block.memory == nullptr) return TVS_E_MEMORY;
        char* text = reinterpret_cast<char*>(block.memory);
        switch (ReadCallerText(text, size, callersNames)) {
        case CallerText::Read:
            block.Take();
            m_text = m_rest = text;
            return CountNames(text) >= count ? TVS_OK : TVS_E_UNKNOWN;
        case CallerText::Fault:
            return TVS_E_FAULT;
        case CallerText::TooLong:
            break;
        }
    }
    return TVS_E_UNKNOWN;
}

const char* NameList::Next() {
    while (*m_rest == kSeparator)
        ++m_rest;
    if (*m_rest == '\0') return nullptr;
    const char* name = m_rest;
    while (*m_rest != '\0' && *m_rest != kSeparator)
        ++m_rest;
    if (*m_rest == kSeparator) *m_rest++ = '\0';
    return name;
}
