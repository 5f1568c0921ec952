// Wide reads and writes of values. No state.
#include "values/wide_values.h"

#include "base/converters.h"
#include "base/memory.h"
#include "product/client.h"

#include <algorithm>
#include <string.h>

namespace {

// No wide form is larger; the rest of a larger buffer is never used.
constexpr uint32_t kWideSizeMax = 2 * product::kValueSizeMax;
// Converters access this much of any value: the count of a queue, the NUL of a string.
constexpr uint32_t kCountSize = sizeof(uint32_t);
constexpr uint32_t kNulSize = 1;

// Reads into a buffer of at least that many bytes and converts from it. The status of the conversion takes precedence
// over that of the read, unless nothing was read.
Status ReadAndConvert(ManagerRecord* manager, const StatusVariableDef& variable, void* wide, uint32_t wideSize,
                      uint32_t ansiRoom, uint32_t* returned, bool* returnedWritten, ReadProc read) {
    const uint32_t room = std::max(ansiRoom, kCountSize);
    Scratch ansi(room + kNulSize);
    if (ansi.Data() == nullptr) return TVS_E_MEMORY;
    uint32_t ansiSize = 0;
    const Status status = read(manager, variable, {ansi.Data(), room, nullptr}, &ansiSize, returnedWritten);
    return ansiSize != 0 ? variable.toWide(wide, ansi.Data(), wideSize, returned) : status;
}

// For a value of varying size the wide size follows from its bytes, else from the ANSI size.
Status AskWideSize(ManagerRecord* manager, const StatusVariableDef& variable, uint32_t* returned, bool* returnedWritten,
                   ReadProc read) {
    uint32_t ansiSize = 0;
    const Status status = read(manager, variable, {nullptr, 0, nullptr}, &ansiSize, returnedWritten);
    if (ansiSize == 0) return status;
    if ((variable.flags & SVT_PROBED) == 0) return variable.toWide(nullptr, nullptr, ansiSize, returned);
    return ReadAndConvert(manager, variable, nullptr, ansiSize, ansiSize, returned, returnedWritten, read);
}

bool IsString(const StatusVariableDef& variable) {
    return TypeOf(variable) == SVT_STRING;
}

} // namespace

Status ReadWide(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target, uint32_t* returned,
                bool* returnedWritten, ReadProc read) {
    if (variable.toWide == nullptr) return read(manager, variable, target, returned, returnedWritten);
    if (target.size == 0) return AskWideSize(manager, variable, returned, returnedWritten, read);
    const uint32_t wideSize = std::min(target.size, kWideSizeMax);
    // A value of fixed size is read whole, because only the conversion knows character boundaries. A value of varying
    // size needs less room than its wide form.
    const uint32_t ansiRoom = (variable.flags & SVT_PROBED) != 0 ? wideSize : variable.size;
    return ReadAndConvert(manager, variable, target.buffer, wideSize, ansiRoom, returned, returnedWritten, read);
}

WideValue::WideValue(const StatusVariableDef& variable, const void* callersValue, uint32_t size)
    : m_variable(variable), m_value(const_cast<void*>(callersValue)), m_size(size) {
    if (size > kWideSizeMax) {
        m_result = PassOn(Answer::WrongSize);
    } else if ((variable.flags & SVT_PROBED) != 0) {
        m_result = CopyWideQueue(callersValue, size, &m_copy);
        m_value = m_copy.memory;
    }
}

Status WideValue::AskNarrowSize(uint32_t* narrowSize) {
    if (m_result != TVS_OK) return m_result;
    m_variable.toAnsi(m_value, nullptr, m_size, narrowSize); // of a queue the count is read, of other values nothing
    if (*narrowSize == 0) return TVS_E_MEMORY;
    // A text may have more bytes than characters, up to the size of its field.
    if (IsString(m_variable)) *narrowSize = std::max(*narrowSize, m_variable.size);
    return TVS_OK;
}

Status WideValue::Narrow(BYTE* narrow, uint32_t* narrowSize) {
    return IsString(m_variable) ? NarrowString(narrow, narrowSize)
                                : m_variable.toAnsi(m_value, narrow, m_size, narrowSize);
}

// The text ends before the caller's size, as an ANSI one does, but its bytes may fill the whole field.
Status WideValue::NarrowString(BYTE* narrow, uint32_t* narrowSize) {
    WCHAR text[kStringSizeMax + 1];
    const uint32_t characters = m_size / sizeof(WCHAR);
    if (!CopyCallerText(text, std::min(characters - 1, kStringSizeMax), static_cast<const WCHAR*>(m_value)))
        return TVS_E_FAULT;
    const Status status = m_variable.toAnsi(text, narrow, *narrowSize * sizeof(WCHAR), narrowSize);
    if (status == TVS_OK) {
        const SIZE_T length = strnlen(reinterpret_cast<const char*>(narrow), *narrowSize);
        *narrowSize = std::max(characters, static_cast<uint32_t>(length) + 1);
    }
    return status;
}
