// The library's copy of a value that a caller gives to be written.
//
// In the block, the u32 length that a variable-length value is stored with lies in front of the bytes, and a NUL behind
// them.
#pragma once

#include "base/heap.h"
#include "product/status.h"

#include <stdint.h>

class CallerValue {
public:
    // Reads the caller's bytes. Result() then tells: TVS_OK, TVS_E_MEMORY, TVS_E_FAULT, or the answer of the service to
    // a value that is larger than any it keeps, for which no copy is made.
    CallerValue(const void* data, uint32_t size);

    Status Result() const { return m_result; }
    BYTE* Data() { return m_block.Data() + sizeof(uint32_t); }
    uint32_t Size() const { return m_size; }

    struct Bytes {
        const BYTE* data;
        uint32_t size;
    };
    // With the length in front, as a variable-length value is stored, or without.
    Bytes Stored(bool withLength);
    // As a text: up to the first NUL, else all of them, always terminated. size: with the NUL.
    Bytes Text();

private:
    uint32_t m_size;
    Scratch m_block;
    Status m_result;
};
