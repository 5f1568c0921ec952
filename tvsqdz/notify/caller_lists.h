// Copies of a caller's lists: variable names, and arrays. No state.
//
// A list of names is one text with the names separated by ";". Empty names are skipped.
#pragma once

#include "base/memory.h"
#include "product/status.h"

#include <stdint.h>
#include <string.h>
#include <windows.h>

// Copies a caller's list of up to 64 Ki characters into a heap block; the wide form is converted to the ANSI code page.
// TVS_OK, TVS_E_FAULT, TVS_E_MEMORY, or TVS_E_UNKNOWN when it is longer than any list of names.
Status CopyCallersNames(const char* callersNames, HeapBlock* text);
Status CopyCallersNames(const WCHAR* callersNames, HeapBlock* text);

class NameList {
public:
    NameList() = default;
    ~NameList();
    NameList(const NameList&) = delete;
    NameList& operator=(const NameList&) = delete;

    // Copies the caller's text, which must have at least count names; with count 0 it is not read. TVS_OK, TVS_E_FAULT,
    // TVS_E_MEMORY, or TVS_E_UNKNOWN when names are missing or the text is longer than any list of names.
    Status Read(uint32_t count, const char* callersNames);
    // The next name, valid as long as the list; null at the end.
    const char* Next();

private:
    char* m_text = nullptr; // of the heap
    char* m_rest = nullptr;
};

// A copy of a caller's array in the library's memory.

template <typename Element>
struct CallerArray {
    // isThere false: the array is not read, and all elements are 0.
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
