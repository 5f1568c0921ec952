// A caller's list of variable names: one text, the names separated by ";". Empty names are skipped.
#pragma once

#include "base/heap.h"
#include "product/status.h"

#include <windows.h>

#include <stdint.h>

// Copies a caller's list, of whatever length up to 64 Ki characters, into a block of the heap. The wide one is
// converted to the ANSI code page. TVS_OK, TVS_E_FAULT, TVS_E_MEMORY, or TVS_E_UNKNOWN when it is longer than any list
// of names.
Status CopyCallersNames(const char* callersNames, HeapBlock* text);
Status CopyCallersNames(const WCHAR* callersNames, HeapBlock* text);

class NameList {
public:
    NameList() = default;
    ~NameList();
    NameList(const NameList&) = delete;
    NameList& operator=(const NameList&) = delete;

    // Copies the caller's text, which has count names or more; for none it is not looked at. TVS_OK, TVS_E_FAULT,
    // TVS_E_MEMORY, or TVS_E_UNKNOWN when names are missing or the text is longer than any list of names.
    Status Read(uint32_t count, const char* callersNames);
    // The next name, good as long as the list; null when there is no more.
    const char* Next();

private:
    char* m_text = nullptr; // of the heap
    char* m_rest = nullptr;
};
