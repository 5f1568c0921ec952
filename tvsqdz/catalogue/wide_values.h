// The wide reads and writes of values: the ANSI operation with a conversion behind or before it.
#pragma once

#include "access/reading.h"
#include "catalogue/status_variable.h"
#include "catalogue/variable_lookup.h"
#include "frame/heap.h"
#include "frame/manager_record.h"
#include "frame/status.h"

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

// The two steps of converting a caller's wide value: how many bytes it takes, and the conversion into a zero-filled
// buffer of that many. The second one lowers *narrowSize to the bytes that are to be written.
// TVS_OK, TVS_E_FAULT, TVS_E_MEMORY for a value that ends before its record does, or the service's answer to a value
// that is larger than any.
Status AskNarrowSize(const StatusVariableDef& variable, const void* value, uint32_t size, uint32_t* narrowSize);
Status Narrow(const StatusVariableDef& variable, const void* value, uint32_t size, BYTE* narrow, uint32_t* narrowSize);

// The frame of a wide write: the manager, the variable, and the ANSI form of the value, handed to
// write(manager, variable, data, size), whose data may be the caller's when there is nothing to convert.
template <typename Write>
Status ServeWideWrite(TvsManager manager, const WCHAR* callersVariable, const void* value, uint32_t size, Write write) {
    return WithVariable(manager, callersVariable, [&](ManagerRecord* record, const StatusVariableDef& variable) {
        if (variable.toAnsi == nullptr) return write(record, variable, value, size);
        uint32_t narrowSize = 0;
        if (const Status status = AskNarrowSize(variable, value, size, &narrowSize); status != TVS_OK) return status;
        Scratch narrow(narrowSize);
        if (narrow.Data() == nullptr) return TVS_E_MEMORY;
        if (const Status status = Narrow(variable, value, size, narrow.Data(), &narrowSize); status != TVS_OK)
            return status;
        return write(record, variable, static_cast<const void*>(narrow.Data()), narrowSize);
    });
}
