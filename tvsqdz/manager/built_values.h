// Initial values of the configuration variables that are built when they are needed.
#pragma once

#include <stdint.h>

// Each answers the size of its value in bytes and, unless buffer is null, fills *buffer with it. All fields are
// little-endian; the first one is the size of the whole, which is what the database stores as the value's length.
uint32_t BuildBinConfig(void** buffer);    // "PrinterBinConfig", 68 bytes
uint32_t BuildOptionConfig(void** buffer); // "PrinterOptConfig", 16 bytes
uint32_t BuildFontInfo(void** buffer);     // "PrinterFontInfo", 12 bytes
