// The built-in status variables: constant data. The rows stand in the order of their names, which the look-up relies
// on; the compiler checks the order, and that the rows agree with the published list.
#include "manager/variables.h"

#include "base/converters.h"
#include "manager/built_values.h"
#include "product/name_order.h"

#include <tvsqdz_variables.h>

#include <string_view>

namespace {

// Initial values. Little-endian, as every system is that this runs on.
constexpr uint32_t kZeroNumber = 0;
constexpr uint32_t kOne = 1;
constexpr uint32_t kMinusOne = 0xFFFFFFFF;
constexpr uint8_t kZeros[296] = {}; // of every record and text, up to the largest record
constexpr uint32_t kAllOnes[3] = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};

// Bits that the rows carry for the product's other programs. The library does not act on them.
constexpr uint32_t kCarriedBits = 0x06340400;
template <uint32_t bits>
constexpr uint32_t Carried() {
    static_assert((bits & ~kCarriedBits) == 0, "a bit that the library acts on has a name");
    return bits;
}

} // namespace

constexpr uint32_t kEmptyVariableValue[2] = {4, 0};

constexpr StatusVariableDef kStatusVariables[] = {
    {.flags = SVT_VARIABLE, .defaultValue = kEmptyVariableValue, .name = "AccessControlList"},
    {.flags = SVT_NUMBER | SVF_READABLE, .size = 4, .defaultValue = &kZeroNumber, .name = "ClientStatus"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .defaultValue = &kZeroNumber,
     .name = "CompulsivePolling"},
    {.flags = SVT_RECORD | SVF_READABLE, .size = 24, .defaultValue = kZeros, .name = "CoverageInfo"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .timeoutMs = 30000,
     .defaultValue = &kMinusOne,
     .name = "CurrentFeeder"},
    {.flags = SVT_COMPOSITE | SVF_READABLE,
     .size = 24,
     .defaultValue = "PrinterStatus;SpoolerStatus;ClientStatus;JobStatus;",
     .watchThreadProc = ChangeWatch,
     .callbackThreadProc = ChangeCallbackWatch,
     .name = "CurrentStatus"},
    {.flags = SVT_NUMBER | SVF_READABLE | SVF_WRITABLE,
     .size = 4,
     .defaultValue = &kMinusOne,
     .localWrite = DeleteJobIdWrite,
     .name = "DeleteJobId"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .timeoutMs = 120000,
     .defaultValue = &kMinusOne,
     .name = "ErrCoverOpen"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300400>(),
     .size = 4,
     .timeoutMs = 120000,
     .defaultValue = &kMinusOne,
     .name = "ErrFormRegistError"},
    {.flags = SVT_RECORD | SVF_READABLE | Carried<0x00300400>(),
     .size = 4,
     .timeoutMs = 120000,
     .defaultValue = &kMinusOne,
     .name = "ErrNoPaper"},
    {.flags = SVT_COMPOSITE | SVF_READABLE | Carried<0x04300400>(),
     .size = 8,
     .timeoutMs = 120000,
     .defaultValue = "ErrNoPaper;ErrPaperState;",
     .name = "ErrNoPaper2"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300400>(),
     .size = 4,
     .timeoutMs = 120000,
     .defaultValue = &kMinusOne,
     .name = "ErrPaperJam"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300400>(),
     .size = 4,
     .timeoutMs = 120000,
     .defaultValue = &kMinusOne,
     .name = "ErrPaperSizeError"},
    {.flags = SVT_RECORD | SVF_READABLE | Carried<0x00000400>(),
     .size = 4,
     .defaultValue = kZeros,
     .name = "ErrPaperState"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300000>(),
     .size = 4,
     .timeoutMs = 60000,
     .defaultValue = &kZeroNumber,
     .watchThreadProc = ChangeWatch,
     .callbackThreadProc = ChangeCallbackWatch,
     .name = "JobStatus"},
    {.flags = SVT_NUMBER | SVF_READABLE, .size = 4, .defaultValue = &kZeroNumber, .name = "LMFunction"},
    {.flags = SVT_NUMBER | SVF_READABLE | SVF_PERSISTENT | Carried<0x04300000>(),
     .size = 4,
     .defaultValue = &kZeroNumber,
     .name = "LMStatus"},
    {.flags = SVT_NUMBER | SVF_READABLE | SVF_PERSISTENT | SVF_DIRECT | Carried<0x00300400>(),
     .size = 4,
     .defaultValue = &kMinusOne,
     .name = "PageCount"},
    {.flags = SVT_RECORD | SVF_READABLE,
     .size = 260,
     .defaultValue = kZeros,
     .localWrite = PortWrite,
     .toWide = PortToWide,
     .toAnsi = PortToAnsi,
     .name = "Port"},
    {.flags = SVT_COMPOSITE | SVF_READABLE,
     .size = 264,
     .defaultValue = "PrinterExtStatus;Port;",
     .toWide = PortExToWide,
     .toAnsi = PortExToAnsi,
     .name = "PortEx"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .timeoutMs = 60000,
     .defaultValue = &kMinusOne,
     .name = "PowerSaveEnd"},
    {.flags = SVT_VARIABLE | SVF_READABLE | SVF_PERSISTENT | SVF_RESET_ON_PORT_CHANGE | Carried<0x02340400>(),
     .timeoutMs = 3600000,
     .buildDefault = BuildBinConfig,
     .name = "PrinterBinConfig"},
    {.flags = SVT_RECORD | SVF_READABLE | Carried<0x04300400>(),
     .size = 132,
     .defaultValue = kZeros,
     .name = "PrinterDisplay"},
    {.flags = SVT_RECORD | SVF_READABLE | Carried<0x04300400>(),
     .size = 260,
     .defaultValue = kZeros,
     .name = "PrinterDisplay2"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300400>(),
     .size = 4,
     .timeoutMs = 30000,
     .defaultValue = &kMinusOne,
     .name = "PrinterExtConfig"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300400>(),
     .size = 4,
     .timeoutMs = 30000,
     .defaultValue = &kZeroNumber,
     .watchThreadProc = VariableWatch,
     .callbackThreadProc = VariableCallbackWatch,
     .name = "PrinterExtStatus"},
    {.flags = SVT_VARIABLE | SVF_READABLE | SVF_PERSISTENT | SVF_RESET_ON_PORT_CHANGE | Carried<0x02340400>(),
     .buildDefault = BuildFontInfo,
     .name = "PrinterFontInfo"},
    {.flags = SVT_STRING | SVF_READABLE | Carried<0x04300400>(),
     .size = 260,
     .timeoutMs = 1800000,
     .defaultValue = kZeros,
     .toWide = StringToWide,
     .toAnsi = StringToAnsi,
     .name = "PrinterLocation"},
    {.flags = SVT_STRING | SVF_READABLE | Carried<0x00300400>(),
     .size = 64,
     .timeoutMs = 1800000,
     .defaultValue = kZeros,
     .toWide = StringToWide,
     .toAnsi = StringToAnsi,
     .name = "PrinterManufacturer"},
    {.flags = SVT_NUMBER | SVF_READABLE | SVF_PERSISTENT | Carried<0x02240400>(),
     .size = 4,
     .defaultValue = &kMinusOne,
     .name = "PrinterMemory"},
    {.flags = SVT_STRING | SVF_READABLE | Carried<0x00300400>(),
     .size = 64,
     .timeoutMs = 1800000,
     .defaultValue = kZeros,
     .toWide = StringToWide,
     .toAnsi = StringToAnsi,
     .name = "PrinterModel"},
    {.flags = SVT_STRING | SVF_READABLE,
     .size = 260,
     .defaultValue = kZeros,
     .localWrite = PrinterNameWrite,
     .toWide = StringToWide,
     .toAnsi = StringToAnsi,
     .name = "PrinterName"},
    {.flags = SVT_VARIABLE | SVF_READABLE | SVF_PERSISTENT | SVF_RESET_ON_PORT_CHANGE | Carried<0x02340400>(),
     .timeoutMs = 3600000,
     .buildDefault = BuildOptionConfig,
     .name = "PrinterOptConfig"},
    {.flags = SVT_VARIABLE | SVF_READABLE | Carried<0x00300000>(),
     .timeoutMs = 60000,
     .defaultValue = kEmptyVariableValue,
     .watchThreadProc = VariableWatch,
     .callbackThreadProc = VariableCallbackWatch,
     .toWide = JobQueueToWide,
     .toAnsi = JobQueueToAnsi,
     .name = "PrinterQueue"},
    {.flags = SVT_RECORD | SVF_READABLE | Carried<0x00300400>(),
     .size = 12,
     .timeoutMs = 30000,
     .defaultValue = kZeros,
     .watchThreadProc = VariableWatch,
     .callbackThreadProc = VariableCallbackWatch,
     .name = "PrinterStatus"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300400>(),
     .size = 4,
     .timeoutMs = 30000,
     .defaultValue = &kMinusOne,
     .name = "PrinterStatus2"},
    {.flags = SVT_COMPOSITE | SVF_READABLE,
     .size = 32,
     .defaultValue = "PrinterStatus;ErrPaperJam;ErrPaperSizeError;ErrFormRegistError;ErrNoPaper;ErrNSMError;",
     .name = "PrinterStatusEx"},
    {.flags = SVT_RECORD | SVF_READABLE | Carried<0x00300000>(),
     .size = 296,
     .timeoutMs = 60000,
     .defaultValue = kZeros,
     .watchThreadProc = VariableWatch,
     .callbackThreadProc = VariableCallbackWatch,
     .localWrite = PrintingJobInfoWrite,
     .toWide = PrintingJobToWide,
     .toAnsi = PrintingJobToAnsi,
     .name = "PrintingJobInfo"},
    {.flags = SVT_COMPOSITE | SVF_READABLE | Carried<0x04300000>(),
     .size = 320,
     .timeoutMs = 60000,
     .defaultValue = "PrintingJobInfo;CoverageInfo;",
     .watchThreadProc = VariableWatch,
     .callbackThreadProc = VariableCallbackWatch,
     .localWrite = PrintingJobInfo2Write,
     .toWide = PrintingJob2ToWide,
     .toAnsi = PrintingJob2ToAnsi,
     .name = "PrintingJobInfo2"},
    {.flags = SVT_NUMBER | SVF_READABLE,
     .size = 4,
     .defaultValue = &kZeroNumber,
     .watchThreadProc = MyJobWatch,
     .localRead = PrintingMyJobRead,
     .name = "PrintingMyJob"},
    {.flags = SVT_RECORD | SVF_READABLE | Carried<0x04300400>(),
     .size = 8,
     .timeoutMs = 30000,
     .defaultValue = kZeros,
     .name = "PrintingStatus"},
    {.flags = SVT_STRING | SVF_READABLE | SVF_WRITABLE | SVF_NOTIFY_EVERY_WRITE,
     .size = 32,
     .defaultValue = kZeros,
     .toWide = StringToWide,
     .toAnsi = StringToAnsi,
     .name = "ReadRequest"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .defaultValue = &kMinusOne,
     .name = "ReceivePort"},
    {.flags =
         SVT_STRING | SVF_READABLE | SVF_WRITABLE | SVF_DIRECT | SVF_WRITE_WITHOUT_AUTHORITY | Carried<0x04000000>(),
     .size = 260,
     .defaultValue = kZeros,
     .toAnsi = StringToAnsi,
     .name = "RefreshStatus"},
    {.flags = SVT_NUMBER | SVF_READABLE, .size = 4, .defaultValue = &kMinusOne, .name = "RunningPSW"},
    {.flags = SVT_NUMBER | SVF_READABLE | SVF_NOTIFY_EVERY_WRITE,
     .size = 4,
     .defaultValue = &kZeroNumber,
     .name = "RWResult"},
    {.flags = SVT_RECORD | SVF_READABLE | Carried<0x00300000>(),
     .size = 292,
     .timeoutMs = 60000,
     .defaultValue = kZeros,
     .watchThreadProc = ChangeWatch,
     .callbackThreadProc = ChangeCallbackWatch,
     .localWrite = SendingJobInfoWrite,
     .toWide = JobRecordToWide,
     .toAnsi = JobRecordToAnsi,
     .name = "SendingJobInfo"},
    {.flags = SVT_RECORD | SVF_READABLE | Carried<0x00100000>(),
     .size = 12,
     .defaultValue = kAllOnes,
     .name = "ServerOS"},
    {.flags = SVT_STRING | SVF_READABLE | Carried<0x04300400>(),
     .size = 32,
     .timeoutMs = 1800000,
     .defaultValue = kZeros,
     .toWide = StringToWide,
     .toAnsi = StringToAnsi,
     .name = "ServiceTag"},
    {.flags = SVT_NUMBER | SVF_READABLE | SVF_WRITABLE,
     .size = 4,
     .defaultValue = &kMinusOne,
     .localWrite = SetJobWrite,
     .name = "SetJob"},
    {.flags = SVT_VARIABLE | SVF_READABLE | Carried<0x00300400>(),
     .timeoutMs = 60000,
     .defaultValue = kEmptyVariableValue,
     .watchThreadProc = ChangeWatch,
     .callbackThreadProc = ChangeCallbackWatch,
     .toWide = JobQueueToWide,
     .toAnsi = JobQueueToAnsi,
     .name = "SpoolerQueue"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x00300000>(),
     .size = 4,
     .timeoutMs = 60000,
     .defaultValue = &kZeroNumber,
     .name = "SpoolerStatus"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x00000400>(),
     .size = 4,
     .defaultValue = &kMinusOne,
     .watchThreadProc = MyJobWatch,
     .localRead = SpoolingMyJobRead,
     .name = "SpoolingMyJob"},
    {.flags = SVT_NUMBER | SVF_READABLE,
     .size = 4,
     .defaultValue = &kZeroNumber,
     .watchThreadProc = TerminateManagerWatch,
     .localWrite = TerminateManagerWrite,
     .name = "TerminateManager"},
    {.flags = SVT_NUMBER | SVF_READABLE,
     .size = 4,
     .timeoutMs = 60000,
     .defaultValue = &kOne,
     .watchThreadProc = UserAuthorityWatch,
     .localRead = UserAuthorityRead,
     .name = "UserAuthority"},
    {.flags = SVT_NUMBER | SVF_READABLE | Carried<0x04300000>(),
     .size = 4,
     .timeoutMs = 120000,
     .defaultValue = &kMinusOne,
     .name = "WarmupRemains"},
    {.flags = SVT_STRING | SVF_READABLE | SVF_WRITABLE | SVF_NOTIFY_EVERY_WRITE,
     .size = 32,
     .defaultValue = kZeros,
     .toWide = StringToWide,
     .toAnsi = StringToAnsi,
     .name = "WriteRequest"},
    // The end of the rows.
    {.size = 0xFFFFFFFF},
};

namespace {

constexpr uint32_t kRowCount = sizeof kStatusVariables / sizeof kStatusVariables[0] - 1;

consteval bool NamesAreSortedAndUnique() {
    for (uint32_t i = 1; i < kRowCount; ++i)
        if (CompareNames(kStatusVariables[i - 1].name, kStatusVariables[i].name) >= 0) return false;
    return true;
}
static_assert(NamesAreSortedAndUnique());

struct PublishedVariable {
    std::string_view name;
    uint32_t type;
    uint32_t size;
};
#define PUBLISHED(name, type, size) {#name, SVT_##type, size},
constexpr PublishedVariable kPublished[] = {TVS_BUILT_IN_VARIABLES(PUBLISHED)};
#undef PUBLISHED

consteval bool AgreesWithPublishedList() {
    for (uint32_t i = 0; i < kRowCount; ++i)
        if (kPublished[i].name != kStatusVariables[i].name || kPublished[i].type != TypeOf(kStatusVariables[i]) ||
            kPublished[i].size != kStatusVariables[i].size)
            return false;
    return true;
}
static_assert(kRowCount == sizeof kPublished / sizeof kPublished[0] && AgreesWithPublishedList());
static_assert(kRowCount == 57);

// A variable of a fixed size has its value here; one of a varying size may build it.
consteval bool EveryFixedSizeHasAValue() {
    for (uint32_t i = 0; i < kRowCount; ++i)
        if (kStatusVariables[i].defaultValue == nullptr && kStatusVariables[i].size != 0) return false;
    return true;
}
static_assert(EveryFixedSizeHasAValue());

consteval uint32_t SizeOf(std::string_view name) {
    for (uint32_t i = 0; i < kRowCount; ++i)
        if (kStatusVariables[i].name == name) return kStatusVariables[i].size;
    return 0;
}
static_assert(SizeOf("SendingJobInfo") == sizeof(TvsJobRecord));
static_assert(SizeOf("PrintingJobInfo") == sizeof(TvsPrintingJobRecord));
static_assert(SizeOf("PrintingJobInfo2") == sizeof(TvsPrintingJobRecord2));
static_assert(SizeOf("CoverageInfo") == sizeof(TvsPrintingJobRecord2::coverage));
static_assert(SizeOf("Port") == sizeof(TvsPortRecord) && SizeOf("PortEx") == sizeof(TvsPortExRecord));

consteval bool ConvertedStringsFitTheirConverters() {
    for (uint32_t i = 0; i < kRowCount; ++i)
        if (TypeOf(kStatusVariables[i]) == SVT_STRING && kStatusVariables[i].size > kStringSizeMax) return false;
    return true;
}
static_assert(ConvertedStringsFitTheirConverters());

} // namespace

uint32_t CountStatusVariables() {
    uint32_t count = 0;
    while (kStatusVariables[count].name != nullptr)
        ++count;
    return count;
}
