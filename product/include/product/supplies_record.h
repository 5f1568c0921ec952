// The variable in which a printer side tells the supplies of its printer: toner, ink, waste containers, drums and so
// on. Like "DeviceState" it is no status variable; the printer side makes it. No state.
//
// A variable-length value, little-endian: u32 length of what follows; u32 count; that many SupplyRecord.
#pragma once

#include <stddef.h>
#include <stdint.h>

inline constexpr char kSuppliesVariable[] = "DeviceSupplies";

// 140 bytes. Texts are in the ANSI code page, with a NUL; empty: the printer does not tell.
struct SupplyRecord {
    char name[64];    // as people know it: "Black Toner Cartridge"
    char kind[24];    // prtMarkerSuppliesType of RFC 3805 in words, without blanks: "toner", "wasteToner"
    char colour[16];  // "black", "#000000"
    char unit[24];    // of level and capacity: "percent", "impressions", "tenthsOfMilliliters"
    int32_t percent;  // 0 to 100; -1: not known
    int32_t level;    // -1: not known
    int32_t capacity; // -1: not known
};
static_assert(sizeof(SupplyRecord) == 140 && offsetof(SupplyRecord, kind) == 64 &&
              offsetof(SupplyRecord, colour) == 88 && offsetof(SupplyRecord, unit) == 104 &&
              offsetof(SupplyRecord, percent) == 128);
