// The three values as records: what is built is a copy of a constant.
#include "manager/built_values.h"

#include <stddef.h>
#include <string.h>

namespace {

// What the numbers mean is a matter of the printer side and its windows; the library only stores them.
struct Bin {
    uint16_t firstId;
    uint16_t secondId;
    uint16_t word = 9;
    uint8_t firstByte = 1;
    uint8_t secondByte = 0;
    uint32_t number = 0;
};
static_assert(sizeof(Bin) == 12 && offsetof(Bin, word) == 4 && offsetof(Bin, firstByte) == 6 &&
              offsetof(Bin, number) == 8);

struct BinConfig {
    uint32_t size = sizeof(BinConfig);
    uint32_t count = 5;
    Bin bins[5] = {{1, 1}, {2, 2}, {3, 3}, {1001, 1001}, {2001, 2001}};
};
static_assert(sizeof(BinConfig) == 68 && offsetof(BinConfig, bins) == 8);

struct OptionConfig {
    uint32_t size = sizeof(OptionConfig);
    uint32_t count = 1;
    uint16_t firstId = 2001;
    uint16_t secondId = 2001;
    uint32_t number = 0;
};
static_assert(sizeof(OptionConfig) == 16 && offsetof(OptionConfig, firstId) == 8);

struct FontInfo {
    uint32_t size = sizeof(FontInfo);
    uint32_t count = 1;
    uint32_t number = 2773;
};
static_assert(sizeof(FontInfo) == 12);

template <typename Value>
uint32_t Build(void** buffer) {
    static constexpr Value kValue;
    if (buffer != nullptr) memcpy(*buffer, &kValue, sizeof kValue);
    return sizeof kValue;
}

} // namespace

uint32_t BuildBinConfig(void** buffer) {
    return Build<BinConfig>(buffer);
}

uint32_t BuildOptionConfig(void** buffer) {
    return Build<OptionConfig>(buffer);
}

uint32_t BuildFontInfo(void** buffer) {
    return Build<FontInfo>(buffer);
}
