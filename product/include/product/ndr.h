// Bodies of the status database interface in NDR 2.0 (C706, chapter 14), for exactly its signatures.
//
//   u32    4 bytes, aligned to 4
//   text   u32 maximum count, u32 offset (0), u32 actual count, the characters with their NUL, padding to 4
//   bytes  u32 maximum count, the bytes, padding to 4
//   count  u32
//   ServiceInstance   u32 low half, u32 high half
//   DatabaseInfo, VariableInfo   their fields in order; a SYSTEMTIME is eight u16
//
// Both sides work in place on the buffer of an RPC_MESSAGE, whose start is aligned to 8. Nothing is allocated, and no
// access leaves the buffer. The first fault sticks (a body too short, a count beyond it, an offset, a missing NUL):
// later reads are zero or empty, and Good() is false. So a stub reads or writes all parameters of a row of interface.h
// and asks once:
//
//     NdrReader reply{message.Buffer, message.BufferLength, message.DataRepresentation};
//     OutOf<kReadVariable> out;
//     reply.ReadAll(out);                              // text and bytes point into the message
//     const LONG status = reply.Status();
//     if (!reply.Good()) return RPC_X_BAD_STUB_DATA;
//
// A reader takes bodies of either byte order with ASCII characters. The writer writes the local form. Bytes behind the
// last parameter are ignored.
//
// No state.
#pragma once

#include "product/interface.h"

#include <tuple>

namespace product {

class NdrReader {
public:
    NdrReader(const void* body, DWORD size, DWORD dataRepresentation);

    // A parameter of each form. A text has no NUL inside; data()[size()] is its NUL.
    void Read(WireForms::u32& value) { value = U32(); }
    void Read(WireForms::count& count) { count.value = U32(); }
    void Read(WireForms::text& text);
    void Read(WireForms::bytes& bytes);
    void Read(ServiceInstance& instance);
    void Read(DatabaseInfo& info);
    void Read(VariableInfo& info);
    template <typename... Forms>
    void ReadAll(std::tuple<Forms...>& parameters) {
        std::apply([this](auto&... parameter) { (this->Read(parameter), ...); }, parameters);
    }
    LONG Status() { return static_cast<LONG>(U32()); }

    bool Good() const { return m_good; }

private:
    const BYTE* Take(DWORD size);
    WORD U16();
    DWORD U32();
    SYSTEMTIME Time();

    const BYTE* m_body;
    DWORD m_size;
    DWORD m_at = 0; // <= m_size
    bool m_foreign;
    bool m_good;
};

class NdrWriter {
public:
    NdrWriter(void* body, DWORD size);

    void Write(WireForms::u32 value) { U32(value); }
    void Write(WireForms::count count) { U32(count.value); }
    void Write(WireForms::text text);
    void Write(WireForms::bytes bytes);
    void Write(ServiceInstance instance);
    void Write(const DatabaseInfo& info);
    void Write(const VariableInfo& info);
    template <typename... Forms>
    void WriteAll(const std::tuple<Forms...>& parameters) {
        std::apply([this](const auto&... parameter) { (this->Write(parameter), ...); }, parameters);
    }
    void Status(LONG status) { U32(static_cast<DWORD>(status)); }
    // A byte array whose bytes the caller fills in; null when it does not fit. Its padding is zero, its bytes are not.
    BYTE* Array(DWORD size);

    bool Good() const { return m_good; }
    DWORD Used() const { return m_at; } // bytes written: the length of the body

private:
    BYTE* Take(DWORD size);
    void U16(WORD value);
    void U32(DWORD value);
    void Time(const SYSTEMTIME& time);

    BYTE* m_body;
    DWORD m_size;
    DWORD m_at = 0;
    bool m_good = true;
};

// Bytes that a parameter takes in a body, padding included. 64 bits wide: the sum for a body is compared with
// kBodySizeMax before it becomes the length of a buffer.
constexpr ULONGLONG NdrSize(WireForms::u32) {
    return 4;
}
constexpr ULONGLONG NdrSize(WireForms::count) {
    return 4;
}
constexpr ULONGLONG NdrSize(WireForms::text text) {
    return 12 + ((text.size() + 1ULL + 3) & ~3ULL);
}
constexpr ULONGLONG NdrSize(WireForms::bytes bytes) {
    return 4 + ((bytes.size + 3ULL) & ~3ULL);
}
constexpr ULONGLONG NdrSize(ServiceInstance) {
    return 8;
}
constexpr ULONGLONG NdrSize(const DatabaseInfo& info) {
    return sizeof info;
}
constexpr ULONGLONG NdrSize(const VariableInfo& info) {
    return sizeof info;
}
template <typename... Forms>
constexpr ULONGLONG NdrSizeOfAll(const std::tuple<Forms...>& parameters) {
    return std::apply([](const auto&... parameter) { return (0ULL + ... + NdrSize(parameter)); }, parameters);
}
inline constexpr ULONGLONG kNdrStatusSize = 4;

} // namespace product
