// Bodies against bytes written by hand, in both byte orders, cut short at every length, and with counts that lie.
#include "dblink/ndr.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace dblink;

namespace {

using Bytes = std::vector<unsigned char>;

// u32 handle 0x01020304, text "AB", u32 0x0A0B0C0D, bytes {1,2,3,4,5}, u32 6
const Bytes kLocal = {
    0x04, 0x03, 0x02, 0x01,                         // handle
    3,    0,    0,    0,    0, 0, 0, 0, 3, 0, 0, 0, // maximum count, offset, actual count
    'A',  'B',  0,    0,                            // the characters, their NUL, padding
    0x0D, 0x0C, 0x0B, 0x0A,                         //
    5,    0,    0,    0,    1, 2, 3, 4, 5, 0, 0, 0, // count, bytes, padding
    6,    0,    0,    0,                            //
};
const Bytes kBigEndian = {
    0x01, 0x02, 0x03, 0x04,                         //
    0,    0,    0,    3,    0, 0, 0, 0, 0, 0, 0, 3, //
    'A',  'B',  0,    0,                            //
    0x0A, 0x0B, 0x0C, 0x0D,                         //
    0,    0,    0,    5,    1, 2, 3, 4, 5, 0, 0, 0, //
    0,    0,    0,    6,                            //
};
constexpr DWORD kLittle = 0x10;
constexpr DWORD kBig = 0x00;

struct Decoded {
    DWORD handle;
    std::string_view text;
    DWORD number;
    NdrBytes bytes;
    DWORD last;
    bool good;
};

Decoded Decode(const Bytes& body, DWORD size, DWORD representation) {
    NdrReader reader{body.data(), size, representation};
    Decoded decoded;
    decoded.handle = reader.U32();
    decoded.text = reader.Text();
    decoded.number = reader.U32();
    decoded.bytes = reader.Bytes();
    decoded.last = reader.U32();
    decoded.good = reader.Good();
    return decoded;
}

} // namespace

TEST(Ndr, BothByteOrdersReadTheSameAndTheLocalOneIsWrittenBack) {
    for (const auto& [body, representation] : {std::pair{kLocal, kLittle}, std::pair{kBigEndian, kBig}}) {
        const Decoded decoded = Decode(body, static_cast<DWORD>(body.size()), representation);
        ASSERT_TRUE(decoded.good);
        EXPECT_EQ(decoded.handle, 0x01020304u);
        EXPECT_EQ(decoded.text, "AB");
        EXPECT_EQ(decoded.text.data()[2], '\0');
        EXPECT_EQ(decoded.number, 0x0A0B0C0Du);
        ASSERT_EQ(decoded.bytes.size, 5u);
        EXPECT_EQ(std::memcmp(decoded.bytes.data, "\1\2\3\4\5", 5), 0);
        EXPECT_EQ(decoded.last, 6u);
        Bytes written(body.size(), 0xEE);
        NdrWriter writer{written.data(), static_cast<DWORD>(written.size())};
        writer.U32(decoded.handle);
        writer.Text(decoded.text);
        writer.U32(decoded.number);
        writer.Bytes(decoded.bytes.data, decoded.bytes.size);
        writer.U32(decoded.last);
        EXPECT_TRUE(writer.Good());
        EXPECT_EQ(writer.Used(), kLocal.size());
        EXPECT_EQ(written, kLocal);
    }
}

TEST(Ndr, EveryShorterBodyIsRefusedAndEveryShorterBufferTooSmall) {
    for (DWORD size = 0; size < kLocal.size(); ++size) {
        const Bytes cut(kLocal.begin(), kLocal.begin() + size); // its own block, so that a sanitizer sees its end
        const Decoded decoded = Decode(cut, size, kLittle);
        EXPECT_FALSE(decoded.good) << size;
        EXPECT_EQ(decoded.last, 0u);
        Bytes buffer(size);
        NdrWriter writer{buffer.data(), size};
        writer.U32(0x01020304);
        writer.Text("AB");
        writer.U32(0x0A0B0C0D);
        writer.Bytes("\1\2\3\4\5", 5);
        writer.U32(6);
        EXPECT_FALSE(writer.Good()) << size;
        EXPECT_LE(writer.Used(), size);
    }
}

TEST(Ndr, CountsThatLieAreRefused) {
    struct Lie {
        const char* what;
        size_t at;
        unsigned char value;
    };
    for (const Lie& lie :
         {Lie{"maximum count below the actual one", 4, 2}, Lie{"offset", 8, 1}, Lie{"actual count 0", 12, 0},
          Lie{"actual count beyond the body", 15, 0x80}, Lie{"text without NUL", 18, 'C'},
          Lie{"NUL inside the text", 17, 0}, Lie{"array beyond the body", 27, 0xFF}}) {
        Bytes body = kLocal;
        body[lie.at] = lie.value;
        EXPECT_FALSE(Decode(body, static_cast<DWORD>(body.size()), kLittle).good) << lie.what;
    }
    for (const DWORD representation : {0x11u, 0x20u, 0xF0u}) // EBCDIC, and no integer order
        EXPECT_FALSE(Decode(kLocal, static_cast<DWORD>(kLocal.size()), representation).good) << representation;
}

TEST(Ndr, RecordsHaveTheirFieldsInOrder) {
    // type 4, size 12, written 16 times, 2024-02-29 (Thursday) 23:59:58.999
    const Bytes body = {4,    0, 0, 0, 12, 0, 0,  0, 16, 0, 0,  0, //
                        0xE8, 7, 2, 0, 4,  0, 29, 0, 23, 0, 59, 0, 58, 0, 0xE7, 3};
    NdrReader reader{body.data(), static_cast<DWORD>(body.size()), kLittle};
    const VariableInfo info = reader.ReadVariableInfo();
    ASSERT_TRUE(reader.Good());
    EXPECT_EQ(info.type, 4u);
    EXPECT_EQ(info.size, 12u);
    EXPECT_EQ(info.writes, 16u);
    const SYSTEMTIME& time = info.writeTime;
    EXPECT_EQ(time.wYear, 2024);
    EXPECT_EQ(time.wMonth, 2);
    EXPECT_EQ(time.wDayOfWeek, 4);
    EXPECT_EQ(time.wDay, 29);
    EXPECT_EQ(time.wHour, 23);
    EXPECT_EQ(time.wMinute, 59);
    EXPECT_EQ(time.wSecond, 58);
    EXPECT_EQ(time.wMilliseconds, 999);
    Bytes written(28);
    NdrWriter writer{written.data(), 28};
    writer.WriteVariableInfo(info);
    EXPECT_EQ(written, body);
    writer = {written.data(), 24};
    writer.WriteDatabaseInfo({1, 2, time});
    EXPECT_TRUE(writer.Good());
    reader = {written.data(), 24, kLittle};
    const DatabaseInfo database = reader.ReadDatabaseInfo();
    EXPECT_EQ(database.openHandles, 1u);
    EXPECT_EQ(database.variables, 2u);
    EXPECT_EQ(std::memcmp(&database.created, &time, sizeof time), 0);
}

TEST(Ndr, SizesOfBodiesMatchWhatIsWritten) {
    for (const std::string_view text : {"", "A", "ABC", "ABCD", "ABCDE"}) {
        Bytes body(64);
        NdrWriter writer{body.data(), 64};
        writer.Text(text);
        EXPECT_EQ(writer.Used(), NdrTextSize(text));
        writer = {body.data(), 64};
        writer.Bytes(text.data(), static_cast<DWORD>(text.size()));
        EXPECT_EQ(writer.Used(), NdrBytesSize(text.size()));
    }
}
