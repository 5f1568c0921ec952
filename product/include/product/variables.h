// The built-in status variables: the one table that all programs share. No state: constant data.
//
// A new variable takes a line in the public list (tvsqdz_variables.h) and a row here, both in the order of the names.
// The look-ups rely on that order, so the compiler checks it, and that the table agrees with the public list. Code that
// serves a variable inside the library is named in tvsqdz/manager/variable_table.cpp; most variables have none.
#pragma once

#include "product/name_order.h"
#include "product/variable_types.h"

#include <tvsqdz_records.h>
#include <tvsqdz_variables.h>

#include <stddef.h>
#include <stdint.h>
#include <string_view>

// Whose writes the service takes. Product: those of administrators, who are the user that runs the service, and root,
// among others; the product's own programs run as such. Everyone: what ordinary applications tell or ask. What a
// composite's writer may write is decided for each of its members.
enum class Writers : uint8_t { Product, Everyone };

struct BuiltInVariable {
    const char* name = nullptr;
    uint32_t flags = 0;     // type code and behaviour bits
    uint32_t size = 0;      // in bytes, as the A exports exchange it; 0 where it varies
    uint32_t timeoutMs = 0; // carried for other programs of the product; none of ours acts on it
    // The first value: `size` bytes. Of a value that varies, its stored form: the empty value, or initialSize bytes.
    // Null for a composite.
    const void* initial = nullptr;
    uint32_t initialSize = 0;
    const char* members = nullptr; // of a composite: their names in order, each followed by ";"
    Writers writers = Writers::Product;
};

// Initial values. Little-endian, as every system is that this runs on.
namespace initial {

inline constexpr uint32_t kZero = 0;
inline constexpr uint32_t kOne = 1;
inline constexpr uint32_t kMinusOne = 0xFFFFFFFF;
inline constexpr uint8_t kZeros[296] = {}; // for every record and text, up to the largest record
inline constexpr uint32_t kAllOnes[3] = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};

// Three configurations. The first word is the size of the whole record, which the database takes as the length of the
// payload. What the numbers mean is a matter of the printer side and its windows.
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

inline constexpr BinConfig kBinConfig;
inline constexpr OptionConfig kOptionConfig;
inline constexpr FontInfo kFontInfo;

} // namespace initial

// Bits that rows carry for the product's other programs. Nothing here acts on them.
inline constexpr uint32_t kCarriedBits = 0x06340400;
template <uint32_t bits>
consteval uint32_t Carried() {
    static_assert((bits & ~kCarriedBits) == 0, "a bit that the library acts on has a name");
    return bits;
}

inline constexpr BuiltInVariable kBuiltInVariables[] = {
    {.name = "AccessControlList", .flags = SVT_VARIABLE, .initial = kEmptyVariableValue},
    {.name = "ClientStatus",
     .flags = SVT_NUMBER | SVF_READABLE,
     .size = 4,
     .initial = &initial::kZero,
     .writers = Writers::Everyone},
    {.name = "CompulsivePolling",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .initial = &initial::kZero,
     .writers = Writers::Everyone},
    {.name = "CoverageInfo", .flags = SVT_RECORD | SVF_READABLE, .size = 24, .initial = initial::kZeros},
    {.name = "CurrentFeeder",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .timeoutMs = 30000,
     .initial = &initial::kMinusOne},
    {.name = "CurrentStatus",
     .flags = SVT_COMPOSITE | SVF_READABLE,
     .size = 24,
     .members = "PrinterStatus;SpoolerStatus;ClientStatus;JobStatus;"},
    {.name = "DeleteJobId",
     .flags = SVT_NUMBER | SVF_READABLE | SVF_WRITABLE,
     .size = 4,
     .initial = &initial::kMinusOne,
     .writers = Writers::Everyone},
    {.name = "ErrCoverOpen",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .timeoutMs = 120000,
     .initial = &initial::kMinusOne},
    {.name = "ErrFormRegistError",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300400>(),
     .size = 4,
     .timeoutMs = 120000,
     .initial = &initial::kMinusOne},
    {.name = "ErrNoPaper",
     .flags = SVT_RECORD | SVF_READABLE | Carried<0x00300400>(),
     .size = 4,
     .timeoutMs = 120000,
     .initial = &initial::kMinusOne},
    {.name = "ErrNoPaper2",
     .flags = SVT_COMPOSITE | SVF_READABLE | Carried<0x04300400>(),
     .size = 8,
     .timeoutMs = 120000,
     .members = "ErrNoPaper;ErrPaperState;"},
    {.name = "ErrPaperJam",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300400>(),
     .size = 4,
     .timeoutMs = 120000,
     .initial = &initial::kMinusOne},
    {.name = "ErrPaperSizeError",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300400>(),
     .size = 4,
     .timeoutMs = 120000,
     .initial = &initial::kMinusOne},
    {.name = "ErrPaperState",
     .flags = SVT_RECORD | SVF_READABLE | Carried<0x00000400>(),
     .size = 4,
     .initial = initial::kZeros},
    {.name = "JobStatus",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300000>(),
     .size = 4,
     .timeoutMs = 60000,
     .initial = &initial::kZero,
     .writers = Writers::Everyone},
    {.name = "LMFunction", .flags = SVT_NUMBER | SVF_READABLE, .size = 4, .initial = &initial::kZero},
    {.name = "LMStatus",
     .flags = SVT_NUMBER | SVF_READABLE | SVF_PERSISTENT | Carried<0x04300000>(),
     .size = 4,
     .initial = &initial::kZero},
    {.name = "PageCount",
     .flags = SVT_NUMBER | SVF_READABLE | SVF_PERSISTENT | SVF_DIRECT | Carried<0x00300400>(),
     .size = 4,
     .initial = &initial::kMinusOne},
    {.name = "Port", .flags = SVT_RECORD | SVF_READABLE, .size = 260, .initial = initial::kZeros},
    {.name = "PortEx", .flags = SVT_COMPOSITE | SVF_READABLE, .size = 264, .members = "PrinterExtStatus;Port;"},
    {.name = "PowerSaveEnd",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .timeoutMs = 60000,
     .initial = &initial::kMinusOne},
    {.name = "PrinterBinConfig",
     .flags = SVT_VARIABLE | SVF_READABLE | SVF_PERSISTENT | SVF_RESET_ON_PORT_CHANGE | Carried<0x02340400>(),
     .timeoutMs = 3600000,
     .initial = &initial::kBinConfig,
     .initialSize = sizeof initial::kBinConfig},
    {.name = "PrinterDisplay",
     .flags = SVT_RECORD | SVF_READABLE | Carried<0x04300400>(),
     .size = 132,
     .initial = initial::kZeros},
    {.name = "PrinterDisplay2",
     .flags = SVT_RECORD | SVF_READABLE | Carried<0x04300400>(),
     .size = 260,
     .initial = initial::kZeros},
    {.name = "PrinterExtConfig",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300400>(),
     .size = 4,
     .timeoutMs = 30000,
     .initial = &initial::kMinusOne},
    {.name = "PrinterExtStatus",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300400>(),
     .size = 4,
     .timeoutMs = 30000,
     .initial = &initial::kZero},
    {.name = "PrinterFontInfo",
     .flags = SVT_VARIABLE | SVF_READABLE | SVF_PERSISTENT | SVF_RESET_ON_PORT_CHANGE | Carried<0x02340400>(),
     .initial = &initial::kFontInfo,
     .initialSize = sizeof initial::kFontInfo},
    {.name = "PrinterLocation",
     .flags = SVT_STRING | SVF_READABLE | Carried<0x04300400>(),
     .size = 260,
     .timeoutMs = 1800000,
     .initial = initial::kZeros},
    {.name = "PrinterManufacturer",
     .flags = SVT_STRING | SVF_READABLE | Carried<0x00300400>(),
     .size = 64,
     .timeoutMs = 1800000,
     .initial = initial::kZeros},
    {.name = "PrinterMemory",
     .flags = SVT_NUMBER | SVF_READABLE | SVF_PERSISTENT | Carried<0x02240400>(),
     .size = 4,
     .initial = &initial::kMinusOne},
    {.name = "PrinterModel",
     .flags = SVT_STRING | SVF_READABLE | Carried<0x00300400>(),
     .size = 64,
     .timeoutMs = 1800000,
     .initial = initial::kZeros},
    {.name = "PrinterName", .flags = SVT_STRING | SVF_READABLE, .size = 260, .initial = initial::kZeros},
    {.name = "PrinterOptConfig",
     .flags = SVT_VARIABLE | SVF_READABLE | SVF_PERSISTENT | SVF_RESET_ON_PORT_CHANGE | Carried<0x02340400>(),
     .timeoutMs = 3600000,
     .initial = &initial::kOptionConfig,
     .initialSize = sizeof initial::kOptionConfig},
    {.name = "PrinterQueue",
     .flags = SVT_VARIABLE | SVF_READABLE | Carried<0x00300000>(),
     .timeoutMs = 60000,
     .initial = kEmptyVariableValue,
     .writers = Writers::Everyone},
    {.name = "PrinterStatus",
     .flags = SVT_RECORD | SVF_READABLE | Carried<0x00300400>(),
     .size = 12,
     .timeoutMs = 30000,
     .initial = initial::kZeros},
    {.name = "PrinterStatus2",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300400>(),
     .size = 4,
     .timeoutMs = 30000,
     .initial = &initial::kMinusOne},
    // No built-in variable has the name ErrNSMError; its 4 bytes belong to printers whose model adds it.
    {.name = "PrinterStatusEx",
     .flags = SVT_COMPOSITE | SVF_READABLE,
     .size = 32,
     .members = "PrinterStatus;ErrPaperJam;ErrPaperSizeError;ErrFormRegistError;ErrNoPaper;ErrNSMError;"},
    {.name = "PrintingJobInfo",
     .flags = SVT_RECORD | SVF_READABLE | Carried<0x00300000>(),
     .size = 296,
     .timeoutMs = 60000,
     .initial = initial::kZeros,
     .writers = Writers::Everyone},
    {.name = "PrintingJobInfo2",
     .flags = SVT_COMPOSITE | SVF_READABLE | Carried<0x04300000>(),
     .size = 320,
     .timeoutMs = 60000,
     .members = "PrintingJobInfo;CoverageInfo;",
     .writers = Writers::Everyone},
    {.name = "PrintingMyJob", .flags = SVT_NUMBER | SVF_READABLE, .size = 4, .initial = &initial::kZero},
    {.name = "PrintingStatus",
     .flags = SVT_RECORD | SVF_READABLE | Carried<0x04300400>(),
     .size = 8,
     .timeoutMs = 30000,
     .initial = initial::kZeros},
    {.name = "ReadRequest",
     .flags = SVT_STRING | SVF_READABLE | SVF_WRITABLE | SVF_NOTIFY_EVERY_WRITE,
     .size = 32,
     .initial = initial::kZeros,
     .writers = Writers::Everyone},
    {.name = "ReceivePort",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .initial = &initial::kMinusOne},
    {.name = "RefreshStatus",
     .flags =
         SVT_STRING | SVF_READABLE | SVF_WRITABLE | SVF_DIRECT | SVF_WRITE_WITHOUT_AUTHORITY | Carried<0x04000000>(),
     .size = 260,
     .initial = initial::kZeros,
     .writers = Writers::Everyone},
    {.name = "RunningPSW",
     .flags = SVT_NUMBER | SVF_READABLE,
     .size = 4,
     .initial = &initial::kMinusOne,
     .writers = Writers::Everyone},
    {.name = "RWResult",
     .flags = SVT_NUMBER | SVF_READABLE | SVF_NOTIFY_EVERY_WRITE,
     .size = 4,
     .initial = &initial::kZero},
    {.name = "SendingJobInfo",
     .flags = SVT_RECORD | SVF_READABLE | Carried<0x00300000>(),
     .size = 292,
     .timeoutMs = 60000,
     .initial = initial::kZeros,
     .writers = Writers::Everyone},
    {.name = "ServerOS",
     .flags = SVT_RECORD | SVF_READABLE | Carried<0x00100000>(),
     .size = 12,
     .initial = initial::kAllOnes},
    {.name = "ServiceTag",
     .flags = SVT_STRING | SVF_READABLE | Carried<0x04300400>(),
     .size = 32,
     .timeoutMs = 1800000,
     .initial = initial::kZeros},
    {.name = "SetJob",
     .flags = SVT_NUMBER | SVF_READABLE | SVF_WRITABLE,
     .size = 4,
     .initial = &initial::kMinusOne,
     .writers = Writers::Everyone},
    {.name = "SpoolerQueue",
     .flags = SVT_VARIABLE | SVF_READABLE | Carried<0x00300400>(),
     .timeoutMs = 60000,
     .initial = kEmptyVariableValue},
    {.name = "SpoolerStatus",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300000>(),
     .size = 4,
     .timeoutMs = 60000,
     .initial = &initial::kZero},
    {.name = "SpoolingMyJob",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x00000400>(),
     .size = 4,
     .initial = &initial::kMinusOne},
    {.name = "TerminateManager",
     .flags = SVT_NUMBER | SVF_READABLE,
     .size = 4,
     .initial = &initial::kZero,
     .writers = Writers::Everyone},
    {.name = "UserAuthority",
     .flags = SVT_NUMBER | SVF_READABLE,
     .size = 4,
     .timeoutMs = 60000,
     .initial = &initial::kOne},
    {.name = "WarmupRemains",
     .flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .timeoutMs = 120000,
     .initial = &initial::kMinusOne},
    {.name = "WriteRequest",
     .flags = SVT_STRING | SVF_READABLE | SVF_WRITABLE | SVF_NOTIFY_EVERY_WRITE,
     .size = 32,
     .initial = initial::kZeros,
     .writers = Writers::Everyone},
};
inline constexpr size_t kBuiltInVariableCount = sizeof kBuiltInVariables / sizeof kBuiltInVariables[0];

constexpr uint32_t TypeOf(const BuiltInVariable& variable) {
    return variable.flags & SVT_MASK;
}

// The row of that name; null when no built-in variable has it. Names compare exactly.
constexpr const BuiltInVariable* FindBuiltInVariable(std::string_view name) {
    for (const BuiltInVariable& variable : kBuiltInVariables)
        if (variable.name == name) return &variable;
    return nullptr;
}

namespace table_checks {

consteval bool NamesAreSortedAndUnique() {
    for (size_t i = 1; i < kBuiltInVariableCount; ++i)
        if (CompareNames(kBuiltInVariables[i - 1].name, kBuiltInVariables[i].name) >= 0) return false;
    return true;
}
static_assert(NamesAreSortedAndUnique());

struct PublishedVariable {
    std::string_view name;
    uint32_t type;
    uint32_t size;
};
#define PUBLISHED(name, type, size) {#name, SVT_##type, size},
inline constexpr PublishedVariable kPublished[] = {TVS_BUILT_IN_VARIABLES(PUBLISHED)};
#undef PUBLISHED

consteval bool AgreesWithPublishedList() {
    for (size_t i = 0; i < kBuiltInVariableCount; ++i)
        if (kPublished[i].name != kBuiltInVariables[i].name || kPublished[i].type != TypeOf(kBuiltInVariables[i]) ||
            kPublished[i].size != kBuiltInVariables[i].size)
            return false;
    return true;
}
static_assert(kBuiltInVariableCount == sizeof kPublished / sizeof kPublished[0] && AgreesWithPublishedList());

consteval bool EveryRowHasAValueOrMembers() {
    for (const BuiltInVariable& variable : kBuiltInVariables) {
        const bool composite = TypeOf(variable) == SVT_COMPOSITE;
        if (composite != (variable.members != nullptr) || composite == (variable.initial != nullptr)) return false;
        if (variable.initialSize != 0 && TypeOf(variable) != SVT_VARIABLE) return false;
    }
    return true;
}
static_assert(EveryRowHasAValueOrMembers());

consteval uint32_t SizeOf(std::string_view name) {
    return FindBuiltInVariable(name)->size;
}
static_assert(SizeOf("SendingJobInfo") == sizeof(TvsJobRecord));
static_assert(SizeOf("PrintingJobInfo") == sizeof(TvsPrintingJobRecord));
static_assert(SizeOf("PrintingJobInfo2") == sizeof(TvsPrintingJobRecord2));
static_assert(SizeOf("CoverageInfo") == sizeof(TvsPrintingJobRecord2::coverage));
static_assert(SizeOf("Port") == sizeof(TvsPortRecord) && SizeOf("PortEx") == sizeof(TvsPortExRecord));

} // namespace table_checks
