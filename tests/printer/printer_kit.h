// What the tests of printer sides share.
#pragma once

#include "printer_machine.h"

#include "product/device_record.h"

#include <cstring>

inline bool TakesRequests(const Database& database) {
    return (database.NumberIn("PrinterExtStatus") & 1) != 0 && database.NumberIn("SpoolerStatus") == 0xC;
}

// "DeviceState"; all zero before there is one.
inline DeviceRecord RecordIn(const Database& database) {
    DeviceRecord record{};
    Bytes bytes(sizeof record);
    DWORD size = 0;
    if (database.Read(kDeviceVariable, sizeof record, &bytes, &size) == kDone && size == sizeof record)
        std::memcpy(&record, bytes.data(), sizeof record);
    return record;
}

// What a requester does, who waits for its answer.
struct Request {
    Request(const Database& asked, const char* variable, std::string_view text) : database(asked) {
        EXPECT_EQ(database.Watch("RWResult", kEveryWrite), kDone);
        before = database.Info("RWResult").writes;
        EXPECT_EQ(database.Write(variable, BytesOf(text)), kDone);
    }
    ~Request() { database.Unwatch("RWResult"); }
    bool Answered(int waitMs) const {
        return WaitUntil([&] { return database.Info("RWResult").writes != before; }, waitMs);
    }
    LONG Result() const {
        EXPECT_TRUE(Answered(10000));
        return static_cast<LONG>(database.NumberIn("RWResult"));
    }
    const Database& database;
    DWORD before;
};

inline LONG DirectRead(const Database& database, std::string_view variable) {
    return Request(database, "ReadRequest", variable).Result();
}

inline LONG DirectWrite(const Database& database, const std::string& variable, const Bytes& value) {
    EXPECT_EQ(database.Write(variable + "W", value), kDone);
    return Request(database, "WriteRequest", variable + "W").Result();
}
