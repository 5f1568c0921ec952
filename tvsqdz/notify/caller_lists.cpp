#include "notify/caller_lists.h"

#include "base/memory.h"

namespace {

constexpr char kSeparator = ';';
// Copies of a caller's name lists. No state. The length of a text is unknown, so it is read into blocks of growing
// size. The first one or two hold a list of 63 names; the last one is larger than anybody needs, and limits the cost of
// an unterminated text.
constexpr SIZE_T kFirstSize = 1024;
constexpr SIZE_T kLastSize = 65536;

uint32_t CountNames(const char* text) {
    uint32_t count = 0;
    for (char before = kSeparator; *text != '\0'; before = *text++)
        if (before == kSeparator && *text != kSeparator) ++count;
    return count;
}

template <typename Character>
Status CopyLongText(const Character* callersText, HeapBlock* text) {
    for (SIZE_T size = kFirstSize; size <= kLastSize; size *= 8) {
        HeapBlock block(size * sizeof(Character));
        if (block.memory == nullptr) return TVS_E_MEMORY;
        switch (ReadCallerText(reinterpret_cast<Character*>(block.memory), size, callersText)) {
        case CallerText::Read:
            text->memory = block.Take();
            return TVS_OK;
        case CallerText::Fault:
            return TVS_E_FAULT;
        case CallerText::TooLong:
            break;
        }
    }
    return TVS_E_UNKNOWN;
}

} // namespace

Status CopyCallersNames(const char* callersNames, HeapBlock* text) {
    return CopyLongText(callersNames, text);
}

Status CopyCallersNames(const WCHAR* callersNames, HeapBlock* text) {
    HeapBlock wide;
    if (const Status status = CopyLongText(callersNames, &wide); status != TVS_OK) return status;
    const auto convert = [&](BYTE* to, int size) {
        return WideCharToMultiByte(CP_ACP, 0, reinterpret_cast<const WCHAR*>(wide.memory), -1,
                                   reinterpret_cast<char*>(to), size, nullptr, nullptr);
    };
    const int size = convert(nullptr, 0);
    HeapBlock narrow(static_cast<SIZE_T>(size));
    if (narrow.memory == nullptr) return TVS_E_MEMORY;
    if (convert(narrow.memory, size) == 0) return TVS_E_UNKNOWN;
    text->memory = narrow.Take();
    return TVS_OK;
}

NameList::~NameList() {
    FreeBlock(m_text);
}

Status NameList::Read(uint32_t count, const char* callersNames) {
    if (count == 0) return TVS_OK;
    HeapBlock text;
    if (const Status status = CopyCallersNames(callersNames, &text); status != TVS_OK) return status;
    m_text = m_rest = reinterpret_cast<char*>(text.Take());
    return CountNames(m_text) >= count ? TVS_OK : TVS_E_UNKNOWN;
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
