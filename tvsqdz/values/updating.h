// Updates: the value that a caller gives, its storage, and the copies of persistent variables in the driver data. No
// state.
#pragma once

#include "base/memory.h"
#include "manager/manager_record.h"
#include "manager/variables.h"
#include "product/status.h"

#include <stdint.h>
#include <windows.h>

// Stores a value in a variable. data may be caller memory.
Status UpdateValue(ManagerRecord* manager, const StatusVariableDef& variable, const void* data, uint32_t size);

// The library's copy of a value that a caller gives to be written. In the block, the u32 length with which a
// variable-length value is stored precedes the bytes, and a NUL follows them.

class CallerValue {
public:
    // Copies the caller's bytes. Result() is then TVS_OK, TVS_E_MEMORY, TVS_E_FAULT, or the service's answer to a value
    // above its limit, for which no copy is made.
    CallerValue(const void* data, uint32_t size);

    Status Result() const { return m_result; }
    BYTE* Data() { return m_block.Data() + sizeof(uint32_t); }
    uint32_t Size() const { return m_size; }

    struct Bytes {
        const BYTE* data;
        uint32_t size;
    };
    // The bytes with the length in front, as a variable-length value is stored, or without.
    Bytes Stored(bool withLength);
    // As text: up to the first NUL, else all bytes; always terminated. size: including the NUL.
    Bytes Text();

private:
    uint32_t m_size;
    Scratch m_block;
    Status m_result;
};

// Copies of persistent variables in the driver data: registry values "SQD_<variable>" below the printer's key, which
// outlive every database.
//
// The registry type and the bytes follow the type of the variable: REG_DWORD for numbers (of 1, 2 or 4 bytes), REG_SZ
// for texts, REG_BINARY for records and variable-length values (the latter without their length).

// The size of the copy as the database stores the value: a variable-length one with its length first. 0: there is no
// copy. With a buffer the copy is read into it; 0 also when it does not fit.
DWORD ReadDriverDataValue(const char* printerName, const StatusVariableDef& variable, void* buffer, DWORD capacity);

// True when the registry has the data on return. data: the value as callers see it, `size` bytes. A copy that already
// has these bytes is not written again.
bool WriteDriverDataValue(const char* printerName, const StatusVariableDef& variable, const void* data, DWORD size);
