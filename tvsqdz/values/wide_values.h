// The wide reads and writes of values: the ANSI operation with a conversion behind or before it.
#pragma once

#include "base/memory.h"
#include "manager/manager_record.h"
#include "manager/variable_index.h"
#include "manager/variables.h"
#include "product/status.h"
#include "values/reading.h"

// Reads by the ANSI operation and converts the value. Without a converter the two forms are the same bytes, and the
// operation serves the caller itself.
Status ReadWide(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target, uint32_t* returned,
                bool* returnedWritten, ReadProc read);

// The same as a way of reading.
template <ReadProc read>
Status ReadWide(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target, uint32_t* returned,
                bool* returnedWritten) {
    return ReadWide(manager, variable, target, returned, returnedWritten, read);
}

// A wide value that a caller gives to be written, on its way to the ANSI form. Its memory is read once: here when the
// value itself says how long it is, else by the conversion. So a thread that changes it meanwhile changes what is
// written, and never how much.
class WideValue {
public:
    WideValue(const StatusVariableDef& variable, const void* callersValue, uint32_t size);

    // The two steps: how many bytes the ANSI form takes, and the conversion into a zero-filled buffer of that many. The
    // second one lowers *narrowSize to the bytes that are to be written.
    // TVS_OK, TVS_E_FAULT, TVS_E_MEMORY for a value that ends before its record does, or the service's answer to a
    // value that is larger than any.
    Status AskNarrowSize(uint32_t* narrowSize);
    Status Narrow(BYTE* narrow, uint32_t* narrowSize);

private:
    Status NarrowString(BYTE* narrow, uint32_t* narrowSize);

    const StatusVariableDef& m_variable;
    void* m_value; // the caller's, which no converter writes, or m_copy
    const uint32_t m_size;
    HeapBlock m_copy;
    Status m_result = TVS_OK;
};

// The frame of a wide write: the manager, the variable, and the ANSI form of the value, handed to
// write(manager, variable, data, size), whose data may be the caller's when there is nothing to convert.
template <typename Write>
Status ServeWideWrite(TvsManager manager, const WCHAR* callersVariable, const void* value, uint32_t size, Write write) {
    return WithVariable(manager, callersVariable, [&](ManagerRecord* record, const StatusVariableDef& variable) {
        if (variable.toAnsi == nullptr) return write(record, variable, value, size);
        WideValue wide(variable, value, size);
        uint32_t narrowSize = 0;
        if (const Status status = wide.AskNarrowSize(&narrowSize); status != TVS_OK) return status;
        Scratch narrow(narrowSize);
        if (narrow.Data() == nullptr) return TVS_E_MEMORY;
        if (const Status status = wide.Narrow(narrow.Data(), &narrowSize); status != TVS_OK) return status;
        return write(record, variable, static_cast<const void*>(narrow.Data()), narrowSize);
    });
}
