// Storing a value.
#pragma once

#include "base/memory.h"
#include "manager/manager_record.h"
#include "manager/variables.h"
#include "product/status.h"

#include <stdint.h>
#include <windows.h>

// What an update does once the variable is found. data may be a caller's memory.
Status UpdateValue(ManagerRecord* manager, const StatusVariableDef& variable, const void* data, uint32_t size);

// The library's copy of a value that a caller gives to be written.
//
// In the block, the u32 length that a variable-length value is stored with lies in front of the bytes, and a NUL behind
// them.

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

// Copies of persistent variables in the printer's driver data: registry values "SQD_<variable>" below the printer's
// key, which outlive every database.
//
// The registry type and the bytes follow the variable's type: numbers REG_DWORD (with 1, 2 or 4 bytes), texts REG_SZ,
// records and variable-length values REG_BINARY (the latter without their length).

// The size of the copy in the form in which the database stores the value: a variable-length one with its length first.
// 0: there is no copy. With a buffer the copy is read into it; 0 also when it does not fit.
DWORD ReadDriverDataValue(const char* printerName, const StatusVariableDef& variable, void* buffer, DWORD capacity);

// True when the registry holds the data afterwards. data: a value as callers have it, of size bytes. A copy that holds
// the same bytes is left alone.
bool WriteDriverDataValue(const char* printerName, const StatusVariableDef& variable, const void* data, DWORD size);
