// watch: prints each change of variables as the library tells it, until a condition holds, the time is over or the user
// ends it. terminate: asks all managers of the machine to shut down.
#include "commands.h"

#include "condition.h"
#include "deliveries.h"
#include "interrupt.h"
#include "printers.h"

#include <algorithm>

namespace {

constexpr size_t kMostVariables = 63; // that can be waited for together with the interrupt
constexpr DWORD kLastWordsMs = 5000;
// A registration takes hold a moment after the call that makes it, so what was written in that moment is looked for;
// later a look finds out whether there is still a service that could tell anything.
constexpr DWORD kFirstLooksMs[] = {50, 200, 1000};
constexpr DWORD kLookMs = 5000;
constexpr int kReadsMost = 4; // of a value that is being written

struct Watched {
    const Variable* variable = nullptr;
    Bytes value;
    std::string written; // empty: never
};

struct Watch {
    const OpenedPrinter& printer;
    bool hex = false;
    std::vector<Watched> variables;
    std::vector<Condition> conditions;
};

Decoded DecodedValue(const Watch& watch, const Variable& variable, const Bytes& value) {
    return Decode(watch.printer.variables, variable, value);
}

std::string Shown(const Watch& watch, const Variable& variable, const Bytes& value) {
    if (variable.type == VariableType::Queue) return value.empty() ? "(empty)" : "(an item waits)";
    return watch.hex ? ToHex(value.data(), value.size()) : OneLine(DecodedValue(watch, variable, value));
}

std::string WrittenNow(const Watch& watch, const Variable& variable) {
    std::string written;
    const int32_t status = ReadWriteTime(watch.printer, variable, written);
    if (status != TVS_OK) throw StatusFailure(status, WhatOf("read", ToUtf8(variable.name), watch.printer));
    return written;
}

// Time and value are read until there was no write between them. Where writes do not leave off the time is that of one
// before: what came after it counts as one more change, and none is lost.
Watched ReadNow(const Watch& watch, const Variable& variable) {
    Watched now{.variable = &variable, .written = WrittenNow(watch, variable)};
    for (int reads = 1;; ++reads) {
        Reading reading = ReadValue(watch.printer, variable, false);
        if (reading.status != TVS_OK)
            throw StatusFailure(reading.status, WhatOf("read", ToUtf8(variable.name), watch.printer));
        now.value = std::move(reading.value);
        const std::string written = WrittenNow(watch, variable);
        if (written == now.written || reads == kReadsMost) return now;
        now.written = written;
    }
}

void PrintChange(const Watch& watch, const Watched& before, const Watched& now) {
    const Variable& variable = *now.variable;
    if (g_output.json) {
        Json json = {{"time", now.written.empty() ? Json(nullptr) : Json(now.written)},
                     {"printer", watch.printer.shownName},
                     {"name", ToUtf8(variable.name)}};
        if (variable.type == VariableType::Queue) {
            json["waiting"] = !now.value.empty();
        } else {
            json["old"] = ToJson(DecodedValue(watch, variable, before.value));
            AddValue(json, DecodedValue(watch, variable, now.value), now.value);
        }
        PrintJsonLine(json);
        return;
    }
    const std::string time = now.written.empty() ? "(never written)" : now.written;
    PrintLine(Styled(time, Style::Faint) + "  " + Styled(ToUtf8(variable.name), Style::Name) + ": " +
              Shown(watch, variable, before.value) + " -> " + Shown(watch, variable, now.value));
}

// As ReadNow, of a variable that was read before: only a service that is another one by now can refuse it.
Watched ReadAgain(const Watch& watch, const Variable& variable) {
    try {
        return ReadNow(watch, variable);
    } catch (Failure& failure) {
        if (failure.exitCode != Exit::False) throw;
        failure.exitCode = Exit::NoService;
        failure.why = "the status database service was started anew, and knows nothing of this watch";
        failure.next = "run the command again";
        throw;
    }
}

// Prints the variable when it was written since it was last looked at.
void Look(Watch& watch, size_t place) {
    Watched& last = watch.variables[place];
    Watched now = ReadAgain(watch, *last.variable);
    if (now.value == last.value && now.written == last.written) return;
    PrintChange(watch, last, now);
    last = std::move(now);
}

bool ConditionsHold(const Watch& watch) {
    return !watch.conditions.empty() &&
           std::all_of(watch.conditions.begin(), watch.conditions.end(), [&](const Condition& condition) {
               const auto watched =
                   std::find_if(watch.variables.begin(), watch.variables.end(),
                                [&](const Watched& each) { return each.variable == condition.variable; });
               return Holds(condition, DecodedValue(watch, *condition.variable, watched->value));
           });
}

void AddVariable(Watch& watch, const Variable& variable) {
    if (!variable.readable)
        throw Failure{Exit::False, WhatOf("watch", ToUtf8(variable.name), watch.printer),
                      "the library lets no one read it", "", 0};
    const auto same = [&](const Watched& each) { return each.variable == &variable; };
    if (std::any_of(watch.variables.begin(), watch.variables.end(), same)) return;
    watch.variables.push_back({.variable = &variable});
}

// How long until `due` milliseconds after `start`; 0 when that is over.
DWORD Remaining(DWORD start, DWORD due) {
    const DWORD elapsed = GetTickCount() - start;
    return elapsed < due ? due - elapsed : 0;
}

Exit Follow(Watch& watch, Deliveries& deliveries, std::optional<DWORD> timeoutMs, HANDLE interrupted) {
    const DWORD start = GetTickCount();
    size_t looks = 0;
    DWORD lookDue = kFirstLooksMs[0];
    while (WaitForSingleObject(interrupted, 0) != WAIT_OBJECT_0) {
        if (OutputFailed()) return Exit::False; // nobody reads any more
        const DWORD untilEnd = timeoutMs ? Remaining(start, *timeoutMs) : INFINITE;
        if (untilEnd == 0) return Exit::TimedOut;
        const DWORD untilLook = Remaining(start, lookDue);
        if (const auto told = deliveries.Next(std::min(untilEnd, untilLook), interrupted)) {
            Look(watch, *told);
        } else if (Remaining(start, lookDue) == 0) {
            for (size_t i = 0; i < watch.variables.size(); ++i)
                Look(watch, i);
            ++looks;
            lookDue = looks < std::size(kFirstLooksMs) ? kFirstLooksMs[looks] : GetTickCount() - start + kLookMs;
        }
        if (ConditionsHold(watch)) return Exit::Done;
    }
    return watch.conditions.empty() ? Exit::Done : Exit::False;
}

} // namespace

Exit WatchCommand(const ManagerOptions& options, const WatchOptions& wanted) {
    const HANDLE interrupted = TakeOverInterrupts(kLastWordsMs);
    const OpenedPrinter printer = OpenPrinterOf(options);
    Watch watch{.printer = printer, .hex = options.hex, .variables = {}, .conditions = {}};
    for (const std::string& text : wanted.until)
        watch.conditions.push_back(ParseCondition(printer, text));
    for (const std::string& name : wanted.variables)
        AddVariable(watch, FindNamed(printer, name, "watch"));
    for (const Condition& condition : watch.conditions)
        AddVariable(watch, *condition.variable);
    if (watch.variables.empty()) throw UsageFailure("watch needs a variable, or --until with a condition");
    if (watch.variables.size() > kMostVariables)
        throw UsageFailure("watch takes at most " + std::to_string(kMostVariables) + " variables");

    std::vector<const Variable*> list;
    for (Watched& each : watch.variables) {
        each = ReadNow(watch, *each.variable);
        list.push_back(each.variable);
    }
    const std::unique_ptr<Deliveries> deliveries = Register(printer, list, wanted.by);
    for (const Watched& each : watch.variables)
        if (!g_output.json)
            PrintLine(Styled("watching", Style::Faint) + " " + Styled(ToUtf8(each.variable->name), Style::Name) + ": " +
                      Shown(watch, *each.variable, each.value));
    if (ConditionsHold(watch)) return Exit::Done;

    const Exit result = Follow(watch, *deliveries, wanted.timeoutMs, interrupted);
    if (result == Exit::TimedOut)
        PrintError({Exit::TimedOut, "the time to watch \"" + printer.shownName + "\" is over",
                    watch.conditions.empty() ? "" : "the condition did not come to hold", ""});
    return result;
}

Exit TerminateCommand(const ManagerOptions& options) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    const uint32_t yes = 1;
    const int32_t status = UpdatePrinterStatusA(printer.manager.Get(), "TerminateManager", &yes, sizeof yes);
    if (status != TVS_OK) throw StatusFailure(status, WhatOf("write", "TerminateManager", printer));
    if (g_output.json) PrintJson({{"printer", printer.shownName}, {"asked", true}});
    return Exit::Done;
}
