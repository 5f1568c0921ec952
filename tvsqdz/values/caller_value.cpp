// Copied in once, so that what is checked is what is written.
#include "values/caller_value.h"

#include "base/caller_memory.h"
#include "product/client.h"

#include <string.h>

namespace {

constexpr uint32_t kLengthSize = sizeof(uint32_t);
constexpr uint32_t kTerminatorSize = 1;

bool IsTooLarge(uint32_t size) {
    return size > product::kValueSizeMax;
}

} // namespace

CallerValue::CallerValue(const void* data, uint32_t size)
    : m_size(IsTooLarge(size) ? 0 : size), m_block(SIZE_T{kLengthSize} + m_size + kTerminatorSize), m_result(TVS_OK) {
    if (IsTooLarge(size))
        m_result = PassOn(Answer::WrongSize);
    else if (m_block.Data() == nullptr)
        m_result = TVS_E_MEMORY;
    else if (!CopyFromCaller(Data(), data, size))
        m_result = TVS_E_FAULT;
}

CallerValue::Bytes CallerValue::Stored(bool withLength) {
    if (!withLength) return {Data(), m_size};
    memcpy(m_block.Data(), &m_size, kLengthSize);
    return {m_block.Data(), m_size + kLengthSize};
}

CallerValue::Bytes CallerValue::Text() {
    const SIZE_T length = strnlen(reinterpret_cast<const char*>(Data()), m_size);
    return {Data(), static_cast<uint32_t>(length) + kTerminatorSize};
}
