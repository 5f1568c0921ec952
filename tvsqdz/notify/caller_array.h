// A copy of an array of the caller's, in memory of the library's own.
#pragma once

#include "base/caller_memory.h"
#include "base/heap.h"
#include "product/status.h"

#include <string.h>

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
