// No state.
#include "product/ndr.h"

#include <string.h>

namespace product {

namespace {

// The first byte of a data representation label: integer order in the high half, character set in the low one.
constexpr DWORD kIntegerMask = 0xF0;
constexpr DWORD kLittleEndian = 0x10;
constexpr DWORD kCharacterMask = 0x0F;
constexpr DWORD kAscii = 0;

constexpr DWORD Swapped(DWORD value) {
    return value >> 24 | (value >> 8 & 0xFF00) | (value << 8 & 0xFF0000) | value << 24;
}

constexpr DWORD Padding(DWORD at) {
    return (4 - at % 4) % 4;
}

} // namespace

NdrReader::NdrReader(const void* body, DWORD size, DWORD dataRepresentation)
    : m_body(static_cast<const BYTE*>(body)), m_size(size),
      m_foreign((dataRepresentation & kIntegerMask) != kLittleEndian),
      m_good(body && (dataRepresentation & kCharacterMask) == kAscii &&
             ((dataRepresentation & kIntegerMask) == kLittleEndian || (dataRepresentation & kIntegerMask) == 0)) {}

const BYTE* NdrReader::Take(DWORD size) {
    if (!m_good || size > m_size - m_at) {
        m_good = false;
        return nullptr;
    }
    const BYTE* taken = m_body + m_at;
    m_at += size;
    return taken;
}

WORD NdrReader::U16() {
    const BYTE* place = Take(2);
    if (!place) return 0;
    WORD value;
    memcpy(&value, place, sizeof value);
    return m_foreign ? static_cast<WORD>(value >> 8 | value << 8) : value;
}

DWORD NdrReader::U32() {
    Take(Padding(m_at));
    const BYTE* place = Take(4);
    if (!place) return 0;
    DWORD value;
    memcpy(&value, place, sizeof value);
    return m_foreign ? Swapped(value) : value;
}

void NdrReader::Read(WireForms::text& text) {
    text = {};
    const DWORD maximumCount = U32();
    const DWORD offset = U32();
    const DWORD count = U32();
    if (offset != 0 || count == 0 || count > maximumCount) m_good = false;
    const BYTE* characters = Take(count);
    // One NUL, at the end: a text that ended before its count would be another text to the one who counts.
    if (characters && memchr(characters, 0, count) != characters + count - 1) m_good = false;
    if (m_good) text = {reinterpret_cast<const char*>(characters), count - 1};
}

void NdrReader::Read(WireForms::bytes& bytes) {
    const DWORD count = U32();
    const BYTE* data = Take(count);
    bytes = data ? NdrBytes{data, count} : NdrBytes{};
}

void NdrReader::Read(ServiceInstance& instance) {
    const DWORD low = U32();
    instance = ServiceInstance{U32()} << 32 | low;
}

SYSTEMTIME NdrReader::Time() {
    SYSTEMTIME time;
    WORD* const fields[] = {&time.wYear, &time.wMonth,  &time.wDayOfWeek, &time.wDay,
                            &time.wHour, &time.wMinute, &time.wSecond,    &time.wMilliseconds};
    for (WORD* field : fields)
        *field = U16();
    return time;
}

void NdrReader::Read(DatabaseInfo& info) {
    info.openHandles = U32();
    info.variables = U32();
    info.created = Time();
}

void NdrReader::Read(VariableInfo& info) {
    info.type = U32();
    info.size = U32();
    info.writes = U32();
    info.writeTime = Time();
}

NdrWriter::NdrWriter(void* body, DWORD size) : m_body(static_cast<BYTE*>(body)), m_size(body ? size : 0) {}

BYTE* NdrWriter::Take(DWORD size) {
    if (!m_good || size > m_size - m_at) {
        m_good = false;
        return nullptr;
    }
    BYTE* taken = m_body + m_at;
    m_at += size;
    return taken;
}

void NdrWriter::U16(WORD value) {
    if (BYTE* place = Take(2)) memcpy(place, &value, sizeof value);
}

void NdrWriter::U32(DWORD value) {
    const DWORD padding = Padding(m_at);
    BYTE* place = Take(padding);
    if (place) memset(place, 0, padding);
    if (BYTE* number = Take(4)) memcpy(number, &value, sizeof value);
}

BYTE* NdrWriter::Array(DWORD size) {
    U32(size);
    BYTE* bytes = Take(size);
    const DWORD padding = Padding(m_at);
    BYTE* behind = Take(padding);
    if (!behind) return nullptr;
    memset(behind, 0, padding);
    return bytes;
}

void NdrWriter::Write(WireForms::bytes bytes) {
    BYTE* array = Array(bytes.size);
    if (array && bytes.size > 0) memcpy(array, bytes.data, bytes.size);
}

void NdrWriter::Write(WireForms::text text) {
    // Longer than any body: the array below would not fit anyway, but its count must not wrap.
    if (text.size() >= kBodySizeMax) {
        m_good = false;
        return;
    }
    const DWORD count = static_cast<DWORD>(text.size()) + 1;
    U32(count);
    U32(0);
    if (BYTE* characters = Array(count)) {                           // the array's count is the text's actual count
        text.copy(reinterpret_cast<char*>(characters), text.size()); // an empty text may have no address
        characters[text.size()] = 0;
    }
}

void NdrWriter::Time(const SYSTEMTIME& time) {
    for (WORD field : {time.wYear, time.wMonth, time.wDayOfWeek, time.wDay, time.wHour, time.wMinute, time.wSecond,
                       time.wMilliseconds})
        U16(field);
}

void NdrWriter::Write(ServiceInstance instance) {
    U32(static_cast<DWORD>(instance));
    U32(static_cast<DWORD>(instance >> 32));
}

void NdrWriter::Write(const DatabaseInfo& info) {
    U32(info.openHandles);
    U32(info.variables);
    Time(info.created);
}

void NdrWriter::Write(const VariableInfo& info) {
    U32(info.type);
    U32(info.size);
    U32(info.writes);
    Time(info.writeTime);
}

} // namespace product
