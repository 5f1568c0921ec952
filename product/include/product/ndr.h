// Bodies of the status database interface in NDR 2.0 (C706, chapter 14), for exactly its signatures.
//
//   u32    4 bytes, aligned to 4
//   text   u32 maximum count, u32 offset (0), u32 actual count, the characters with their NUL, padding to 4
//   bytes  u32 maximum count, the bytes, padding to 4
//   time   SYSTEMTIME: eight u16
//
// Both sides work in place on the buffer of an RPC_MESSAGE, whose start is aligned to 8. Nothing is allocated, no
// access leaves the buffer. A first fault (a body too short, a count beyond it, an offset, a missing NUL) sticks: what
// is read from there on is zero or empty, and Good() is false. So a stub reads or writes all its parameters and asks
// once:
//
//     NdrReader reply{message.Buffer, message.BufferLength, message.DataRepresentation};
//     const NdrBytes value = reply.Bytes();            // points into the message: copy before I_RpcFreeBuffer
//     const DWORD valueSize = reply.U32();
//     const LONG status = reply.Status();
//     if (!reply.Good()) return RPC_X_BAD_STUB_DATA;
//
// A reader takes bodies of either byte order and ASCII characters; the writer writes the local form. Bytes behind the
// last parameter are not looked at.
#pragma once

#include "product/interface.h"

#include <string_view>

namespace product {

// A byte array within a body.
struct NdrBytes {
    const BYTE* data = nullptr;
    DWORD size = 0;
};

class NdrReader {
public:
    NdrReader(const void* body, DWORD size, DWORD dataRepresentation);

    DWORD U32();
    LONG Status() { return static_cast<LONG>(U32()); }
    std::string_view Text(); // without its NUL; none is inside it. data()[size()] is the NUL
    NdrBytes Bytes();
    SYSTEMTIME Time();
    DatabaseInfo ReadDatabaseInfo();
    VariableInfo ReadVariableInfo();

    bool Good() const { return m_good; }

private:
    const BYTE* Take(DWORD size);
    WORD U16();

    const BYTE* m_body;
    DWORD m_size;
    DWORD m_at = 0; // <= m_size
    bool m_foreign;
    bool m_good;
};

class NdrWriter {
public:
    NdrWriter(void* body, DWORD size);

    void U32(DWORD value);
    void Status(LONG status) { U32(static_cast<DWORD>(status)); }
    void Text(std::string_view text); // without NUL inside
    void Bytes(const void* data, DWORD size);
    // A byte array whose bytes the caller fills in; null when it does not fit. Its padding is zero, its bytes are not.
    BYTE* Array(DWORD size);
    void Time(const SYSTEMTIME& time);
    void WriteDatabaseInfo(const DatabaseInfo& info);
    void WriteVariableInfo(const VariableInfo& info);

    bool Good() const { return m_good; }
    DWORD Used() const { return m_at; } // bytes written: the length of the body

private:
    BYTE* Take(DWORD size);
    void U16(WORD value);

    BYTE* m_body;
    DWORD m_size;
    DWORD m_at = 0;
    bool m_good = true;
};

// Bytes that a parameter takes in a body, padding included. 64 bits wide: the sum for a body is compared with
// kBodySizeMax before it becomes the length of a buffer.
inline constexpr ULONGLONG kNdrU32Size = 4;
constexpr ULONGLONG NdrBytesSize(ULONGLONG size) {
    return 4 + ((size + 3) & ~3ULL);
}
constexpr ULONGLONG NdrTextSize(std::string_view text) {
    return 12 + ((text.size() + 1ULL + 3) & ~3ULL);
}

} // namespace product
