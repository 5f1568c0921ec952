// A caller's list of variable names: one text, the names separated by ";". Empty names are skipped.
#pragma once

#include "base/memory.h"
#include "product/status.h"

#include <stdint.h>
#include <string.h>
#include <windows.h>

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

// A copy of an array of the caller's, in memory of the library's own.

template <typename Element>
struct CallerArray {
    // isThere false: nothing is read, and all elements are 0.
    CallerArray(uint32_t count, const Element* from, bool isThere = true) : block(SIZE_T{count} * sizeof(Element)) {
        if (block.Data() == nullptr)
            status = TVS_E_MEMORY;
        else if (isThere && !CopyFromCaller(block.Data(), from, SIZE_T{count} * sizeof(Element)))
            status = TVS_E_FAULT;
    }

    Element operator[](uint32_t i) {
        Element element;
        memcpy(&element, block.Data() + SIZE_T{i} * sizeof element, sizeof element);
        return element;
    }

    Scratch block;
    Status status = TVS_OK; // or TVS_E_MEMORY, TVS_E_FAULT
};
