// The library's rows of the built-in status variables: the shared table joined with the library's handlers when this is
// compiled. No state: constant data.
#include "manager/variables.h"

#include "base/converters.h"
#include "product/variables.h"

#include <string_view>
#include <utility>

namespace {

// A variable that the library serves in a way of its own. Without a row here the defaults serve it, and a string
// converts between its ANSI and its wide form; a row names all converters of its variable.
struct VariableHandlers {
    const char* name = nullptr;
    ThreadProc watchThreadProc = nullptr;
    ThreadProc callbackThreadProc = nullptr;
    LocalWriteProc localWrite = nullptr;
    LocalReadProc localRead = nullptr;
    ConvertProc toWide = nullptr;
    ConvertProc toAnsi = nullptr;
};

constexpr VariableHandlers kHandlers[] = {
    {.name = "CurrentStatus", .watchThreadProc = ChangeWatch, .callbackThreadProc = ChangeCallbackWatch},
    {.name = "DeleteJobId", .localWrite = DeleteJobIdWrite},
    {.name = "JobStatus", .watchThreadProc = ChangeWatch, .callbackThreadProc = ChangeCallbackWatch},
    {.name = "Port", .localWrite = PortWrite, .toWide = PortToWide, .toAnsi = PortToAnsi},
    {.name = "PortEx", .toWide = PortExToWide, .toAnsi = PortExToAnsi},
    {.name = "PrinterExtStatus", .watchThreadProc = VariableWatch, .callbackThreadProc = VariableCallbackWatch},
    {.name = "PrinterName", .localWrite = PrinterNameWrite, .toWide = StringToWide, .toAnsi = StringToAnsi},
    {.name = "PrinterQueue",
     .watchThreadProc = VariableWatch,
     .callbackThreadProc = VariableCallbackWatch,
     .toWide = JobQueueToWide,
     .toAnsi = JobQueueToAnsi},
    {.name = "PrinterStatus", .watchThreadProc = VariableWatch, .callbackThreadProc = VariableCallbackWatch},
    {.name = "PrintingJobInfo",
     .watchThreadProc = VariableWatch,
     .callbackThreadProc = VariableCallbackWatch,
     .localWrite = PrintingJobInfoWrite,
     .toWide = PrintingJobToWide,
     .toAnsi = PrintingJobToAnsi},
    {.name = "PrintingJobInfo2",
     .watchThreadProc = VariableWatch,
     .callbackThreadProc = VariableCallbackWatch,
     .localWrite = PrintingJobInfo2Write,
     .toWide = PrintingJob2ToWide,
     .toAnsi = PrintingJob2ToAnsi},
    {.name = "PrintingMyJob", .watchThreadProc = MyJobWatch, .localRead = PrintingMyJobRead},
    {.name = "RefreshStatus", .toAnsi = StringToAnsi},
    {.name = "SendingJobInfo",
     .watchThreadProc = ChangeWatch,
     .callbackThreadProc = ChangeCallbackWatch,
     .localWrite = SendingJobInfoWrite,
     .toWide = JobRecordToWide,
     .toAnsi = JobRecordToAnsi},
    {.name = "SetJob", .localWrite = SetJobWrite},
    {.name = "SpoolerQueue",
     .watchThreadProc = ChangeWatch,
     .callbackThreadProc = ChangeCallbackWatch,
     .toWide = JobQueueToWide,
     .toAnsi = JobQueueToAnsi},
    {.name = "SpoolingMyJob", .watchThreadProc = MyJobWatch, .localRead = SpoolingMyJobRead},
    {.name = "TerminateManager", .watchThreadProc = TerminateManagerWatch, .localWrite = TerminateManagerWrite},
    {.name = "UserAuthority", .watchThreadProc = UserAuthorityWatch, .localRead = UserAuthorityRead},
};
constexpr VariableHandlers kStringHandlers = {.toWide = StringToWide, .toAnsi = StringToAnsi};
constexpr VariableHandlers kNoHandlers = {};

consteval const VariableHandlers& HandlersOf(const BuiltInVariable& variable) {
    for (const VariableHandlers& handlers : kHandlers)
        if (std::string_view(handlers.name) == variable.name) return handlers;
    return TypeOf(variable) == SVT_STRING ? kStringHandlers : kNoHandlers;
}

template <size_t place>
uint32_t BuildInitialValue(void** buffer) {
    constexpr const BuiltInVariable& kVariable = kBuiltInVariables[place];
    if (buffer != nullptr) memcpy(*buffer, kVariable.initial, kVariable.initialSize);
    return kVariable.initialSize;
}

template <size_t place>
consteval StatusVariableDef Row() {
    const BuiltInVariable& variable = kBuiltInVariables[place];
    const VariableHandlers& handlers = HandlersOf(variable);
    StatusVariableDef row = {.flags = variable.flags,
                             .size = variable.size,
                             .timeoutMs = variable.timeoutMs,
                             .watchThreadProc = handlers.watchThreadProc,
                             .callbackThreadProc = handlers.callbackThreadProc,
                             .localWrite = handlers.localWrite,
                             .localRead = handlers.localRead,
                             .toWide = handlers.toWide,
                             .toAnsi = handlers.toAnsi,
                             .name = variable.name};
    if constexpr (kBuiltInVariables[place].initialSize != 0)
        row.buildDefault = BuildInitialValue<place>;
    else
        row.defaultValue = variable.members != nullptr ? variable.members : variable.initial;
    return row;
}

struct Table {
    StatusVariableDef rows[kBuiltInVariableCount + 1];
};

template <size_t... place>
consteval Table MakeTable(std::index_sequence<place...>) {
    return {{Row<place>()..., {.size = 0xFFFFFFFF}}}; // the last ends the rows
}

constexpr Table kTable = MakeTable(std::make_index_sequence<kBuiltInVariableCount>());

consteval bool EveryHandlerHasItsVariable() {
    for (const VariableHandlers& handlers : kHandlers)
        if (FindBuiltInVariable(handlers.name) == nullptr) return false;
    return true;
}
static_assert(EveryHandlerHasItsVariable());

consteval bool StringsFitTheirConverters() {
    for (const BuiltInVariable& variable : kBuiltInVariables)
        if (TypeOf(variable) == SVT_STRING && variable.size > kStringSizeMax) return false;
    return true;
}
static_assert(StringsFitTheirConverters());

} // namespace

constinit const StatusVariableDef* const kStatusVariables = kTable.rows;

uint32_t CountStatusVariables() {
    uint32_t count = 0;
    while (kStatusVariables[count].name != nullptr)
        ++count;
    return count;
}
