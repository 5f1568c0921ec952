// Wide reads and writes of values: the ANSI operation with a conversion after or before it. No state.
#pragma once

#include "base/memory.h"
#include "manager/manager_record.h"
#include "manager/variable_index.h"
#include "manager/variables.h"
#include "product/status.h"
#include "values/reading.h"

// Reads with the ANSI operation and converts the value. Without a converter both forms have the same bytes, and the
// operation serves the caller directly.
Status ReadWide(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target, uint32_t* returned,
                bool* returnedWritten, ReadProc read);

// The same as a ReadProc.
template <ReadProc read>
Status ReadWide(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target, uint32_t* returned,
                bool* returnedWritten) {
    return ReadWide(manager, variable, target, returned, returnedWritten, read);
}

// A wide value that a caller gives to be written, and its conversion to the ANSI form. Caller memory is read once: here
// when the value contains its own length, else by the conversion. A thread that changes it meanwhile can change what is
// written, but not how much.
class WideValue {
public:
    WideValue(const StatusVariableDef& variable, const void* callersValue, uint32_t size);

    // Two steps: the size of the ANSI form, and the conversion into a zero-filled buffer of that size. The second step
    // lowers *narrowSize to the bytes that are to be written. TVS_OK, TVS_E_FAULT, TVS_E_MEMORY for a value that is
    // shorter than its record, or the service's answer to a value above its limit.
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

// The frame of a wide write: finds the manager and the variable, converts the value, and calls write(manager, variable,
// data, size). data is caller memory when there is nothing to convert.
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
