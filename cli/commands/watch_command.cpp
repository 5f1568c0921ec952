// watch: prints the present values of variables and each change that the library reports, until conditions hold, it
// times out or the user ends it. It survives a restart of the service. terminate: asks all managers of the machine to
// shut down. No state.
#include "commands/commands.h"

#include "base/device_state.h"
#include "base/interrupt.h"
#include "base/layer.h"
#include "base/printers.h"
#include "base/product.h"
#include "base/service_client.h"
#include "commands/condition.h"
#include "commands/deliveries.h"

#include "product/variable_names.h"

#include <algorithm>

namespace {

constexpr DWORD kLastWordsMs = 5000;
// A message can get lost in a queue that is full, so all variables are also read from time to time.
constexpr DWORD kLookMs = 5000;
constexpr DWORD kServiceLookMs = 1000; // between checks that the service is still the same, and the device answers
constexpr DWORD kServicePollMs = 200;  // while it is gone
constexpr DWORD kReopenMs = 30000;     // to open the printer once a service runs again
constexpr int kReadsMost = 4;          // of a value that is written meanwhile

struct Watched {
    const Variable* variable = nullptr;
    Bytes value;
    std::string written; // empty: never
    bool failing = false;
};

struct Watch {
    OpenedPrinter& printer;
    const ManagerOptions& options;
    const WatchOptions& wanted;
    std::vector<Watched> variables{};
    std::vector<Condition> conditions{};
    std::optional<ServiceDatabase> service{};
    bool stale = false;                       // what the device told is no longer sure
    std::unique_ptr<Deliveries> deliveries{}; // destroyed first
};

// ---- output

Decoded DecodedValue(const Watch& watch, const Variable& variable, const Bytes& value) {
    return Decode(watch.printer.variables, variable, value);
}

std::string Shown(const Watch& watch, const Variable& variable, const Bytes& value) {
    if (variable.type == SVT_QUEUE) return value.empty() ? "(empty)" : "(an item waits)";
    return watch.options.hex ? ToHex(value.data(), value.size()) : OneLine(DecodedValue(watch, variable, value));
}

std::string TimeNow() {
    SYSTEMTIME now{};
    GetSystemTime(&now);
    return TimeText(now);
}

// A line of JSON. "start" has the value alone, "change" also the previous one.
void PrintValueJson(const Watch& watch, const char* event, const Watched& now, const Bytes* before) {
    const Variable& variable = *now.variable;
    Json json = {{"event", event},
                 {"time", now.written.empty() ? Json(nullptr) : Json(now.written)},
                 {"printer", watch.printer.shownName},
                 {"name", ToUtf8(variable.name)}};
    if (variable.type == SVT_QUEUE) {
        json["waiting"] = !now.value.empty();
    } else {
        if (before != nullptr) json["old"] = ToJson(DecodedValue(watch, variable, *before));
        AddValue(json, DecodedValue(watch, variable, now.value), now.value);
    }
    PrintJsonLine(json);
}

void PrintStart(const Watch& watch, const Watched& now) {
    if (g_output.json) {
        PrintValueJson(watch, "start", now, nullptr);
        return;
    }
    PrintLine(Styled("watching", Style::Faint) + " " + Styled(ToUtf8(now.variable->name), Style::Name) + ": " +
              Shown(watch, *now.variable, now.value));
}

void PrintChange(const Watch& watch, const Watched& before, const Watched& now) {
    if (g_output.json) {
        PrintValueJson(watch, "change", now, &before.value);
        return;
    }
    const std::string time = now.written.empty() ? "(never written)" : now.written;
    PrintLine(Styled(time, Style::Faint) + "  " + Styled(ToUtf8(now.variable->name), Style::Name) + ": " +
              Shown(watch, *now.variable, before.value) + " -> " + Shown(watch, *now.variable, now.value));
}

void PrintEvent(const Watch& watch, const char* event, const std::string& text, const std::string& why = "") {
    if (g_output.json) {
        Json json = {{"event", event}, {"time", TimeNow()}, {"printer", watch.printer.shownName}};
        if (!why.empty()) json["why"] = why;
        PrintJsonLine(json);
    } else {
        PrintLine(Styled(TimeNow(), Style::Faint) + "  " + text);
    }
}

// ---- reading

std::string WrittenNow(const Watch& watch, const Variable& variable) {
    std::string written;
    const int32_t status = ReadWriteTime(watch.printer, variable, written);
    if (status != TVS_OK) throw StatusFailure(status, WhatOf("watch", ToUtf8(variable.name), watch.printer));
    return written;
}

// Reads time and value until no write came between them. When writes do not pause, the time is that of an earlier
// write: the later one counts as another change, and none is lost.
Watched ReadNow(const Watch& watch, const Variable& variable) {
    Watched now{.variable = &variable, .written = WrittenNow(watch, variable)};
    for (int reads = 1;; ++reads) {
        Reading reading = ReadValue(watch.printer, variable, false);
        if (reading.status != TVS_OK)
            throw StatusFailure(reading.status, WhatOf("watch", ToUtf8(variable.name), watch.printer));
        now.value = std::move(reading.value);
        const std::string written = WrittenNow(watch, variable);
        if (written == now.written || reads == kReadsMost) return now;
        now.written = written;
    }
}

// Prints the variable if it was written since the last look, or with onlyValues if its value differs. A variable that
// cannot be read is reported once, and tried again.
void Look(Watch& watch, size_t place, bool onlyValues = false) {
    Watched& last = watch.variables[place];
    try {
        Watched now = ReadNow(watch, *last.variable);
        if (now.value != last.value || (now.written != last.written && !onlyValues)) PrintChange(watch, last, now);
        last = std::move(now);
    } catch (const Failure& failure) {
        // A failure because the service is gone is reported as that.
        if (watch.service->Look() != ServiceDatabase::Service::Same) return;
        if (!last.failing) PrintFailure(failure);
        last.failing = true;
    }
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

// ---- which variables

void AddVariable(Watch& watch, const Variable& variable) {
    const auto same = [&](const Watched& each) { return each.variable == &variable; };
    if (std::none_of(watch.variables.begin(), watch.variables.end(), same))
        watch.variables.push_back({.variable = &variable});
}

// Without names: all that can be watched.
void ChooseVariables(Watch& watch) {
    for (const std::string& text : watch.wanted.until)
        watch.conditions.push_back(ParseCondition(watch.printer, text));
    for (const std::string& name : watch.wanted.variables)
        AddVariable(watch, FindNamed(watch.printer, name, "watch"));
    for (const Condition& condition : watch.conditions)
        AddVariable(watch, *condition.variable);
    if (!watch.variables.empty()) return;
    for (const Variable& variable : watch.printer.variables)
        if (variable.readable) AddVariable(watch, variable);
}

// Throws Failure unless the variable can be read and watched.
void Try(Watch& watch, const Watched& each, bool registers) {
    if (!each.variable->readable)
        throw Failure{Exit::False, WhatOf("watch", ToUtf8(each.variable->name), watch.printer),
                      "this variable is write-only", ""};
    const Reading reading = ReadValue(watch.printer, *each.variable, false);
    if (reading.status != TVS_OK)
        throw StatusFailure(reading.status, WhatOf("watch", ToUtf8(each.variable->name), watch.printer));
    if (registers) Register(watch.printer, {each.variable}, watch.wanted.by);
}

// Reports and removes variables that cannot be watched. It is a failure when a condition needs one, or none is left.
void DropUnwatchable(Watch& watch, bool registers) {
    for (auto each = watch.variables.begin(); each != watch.variables.end();) {
        try {
            Try(watch, *each, registers);
            ++each;
        } catch (const Failure& failure) {
            const bool needed = std::any_of(watch.conditions.begin(), watch.conditions.end(),
                                            [&](const Condition& one) { return one.variable == each->variable; });
            if (needed || watch.variables.size() == 1 || failure.exitCode == Exit::NoService) throw;
            PrintFailure(failure);
            each = watch.variables.erase(each);
        }
    }
}

void RegisterAll(Watch& watch) {
    std::vector<const Variable*> list;
    for (const Watched& each : watch.variables)
        list.push_back(each.variable);
    watch.deliveries = Register(watch.printer, list, watch.wanted.by);
}

void Begin(Watch& watch) {
    ChooseVariables(watch);
    watch.service.emplace(watch.printer, "cannot watch \"" + watch.printer.shownName + "\"");
    DropUnwatchable(watch, false);
    try {
        RegisterAll(watch);
    } catch (const Failure& failure) {
        if (failure.code != TVS_E_UNKNOWN) throw; // -19 does not say which one
        DropUnwatchable(watch, true);
        RegisterAll(watch);
    }
    // Every write after this line is reported, so its reader may start writing.
    for (Watched& each : watch.variables) {
        each = ReadNow(watch, *each.variable);
        PrintStart(watch, each);
    }
}

// ---- following

struct Clock {
    std::optional<DWORD> timeoutMs;
    DWORD start = GetTickCount();

    DWORD Elapsed() const { return GetTickCount() - start; }
    // The rest of the time until `due` milliseconds after the start; 0 when it is over.
    DWORD Until(DWORD due) const {
        const DWORD elapsed = Elapsed();
        return elapsed < due ? due - elapsed : 0;
    }
    DWORD UntilEnd() const { return timeoutMs ? Until(*timeoutMs) : INFINITE; }
};

enum class Ended { No, Interrupted, TimedOut };

Ended Pause(const Clock& clock, HANDLE interrupted, DWORD pauseMs) {
    if (WaitForSingleObject(interrupted, std::min(pauseMs, clock.UntilEnd())) == WAIT_OBJECT_0)
        return Ended::Interrupted;
    return clock.UntilEnd() == 0 ? Ended::TimedOut : Ended::No;
}

// Opens the printer again at the restarted service, which does not know this watch.
void StartAnew(Watch& watch) {
    watch.deliveries.reset();
    watch.service.reset();
    OpenAgain(watch.printer, watch.options);
    watch.service.emplace(watch.printer, "cannot watch \"" + watch.printer.shownName + "\"");
    RegisterAll(watch);
}

// Waits for a service and continues with it.
Ended Survive(Watch& watch, const Clock& clock, HANDLE interrupted, bool gone) {
    if (gone) PrintEvent(watch, "service-ended", "the status service ended; waiting for it");
    DWORD running = 0; // how long a service has been running without opening the printer
    for (;;) {
        try {
            if (ServiceState() == SERVICE_RUNNING) {
                StartAnew(watch);
                break;
            }
            running = 0;
        } catch (const Failure&) {
            running += kServicePollMs;
            if (running > kReopenMs) throw;
        }
        if (const Ended ended = Pause(clock, interrupted, kServicePollMs); ended != Ended::No) return ended;
    }
    PrintEvent(watch, "service-restarted", "the status service was restarted");
    for (size_t i = 0; i < watch.variables.size(); ++i)
        Look(watch, i, true);
    return Ended::No;
}

// What wakes the watch besides the variables.
std::vector<HANDLE> Others(Watch& watch, HANDLE interrupted) {
    std::vector<HANDLE> others = {interrupted};
    if (const HANDLE written = watch.service->Watch(kDeviceVariable)) others.push_back(written);
    return others;
}

// Tells when what the device said is no longer sure, and when it is sure again.
void TendDevice(Watch& watch) {
    const std::optional<DeviceRecord> device = ParseDeviceRecord(watch.service->TryRead(kDeviceVariable));
    const bool stale = device && IsStale(*device);
    if (stale == watch.stale) return;
    watch.stale = stale;
    const std::string why = device ? DeviceText(*device) : "";
    if (stale)
        PrintEvent(watch, "stale", "the values of the device are stale: it " + why, why);
    else
        PrintEvent(watch, "fresh", "the values of the device are fresh again");
}

Ended TendService(Watch& watch, const Clock& clock, HANDLE interrupted) {
    const ServiceDatabase::Service found = watch.service->Look();
    if (found == ServiceDatabase::Service::Same) {
        TendDevice(watch);
        return Ended::No;
    }
    return Survive(watch, clock, interrupted, found == ServiceDatabase::Service::Gone);
}

// Follows the variables until the conditions hold (Ended::No) or something else ends the watch.
Ended Follow(Watch& watch, const Clock& clock, HANDLE interrupted) {
    DWORD lookDue = clock.Elapsed() + kLookMs;
    DWORD serviceDue = clock.Elapsed() + kServiceLookMs;
    while (!ConditionsHold(watch) && !OutputFailure()) {
        if (const Ended ended = Pause(clock, interrupted, 0); ended != Ended::No) return ended;
        const DWORD wait = std::min({clock.UntilEnd(), clock.Until(lookDue), clock.Until(serviceDue)});
        const auto told = watch.deliveries->Next(wait, Others(watch, interrupted));
        // A restart is told like a write, and is to be known as one.
        if (const Ended ended = TendService(watch, clock, interrupted); ended != Ended::No) return ended;
        serviceDue = clock.Elapsed() + kServiceLookMs;
        if (told) Look(watch, *told);
        if (clock.Until(lookDue) == 0) {
            for (size_t i = 0; i < watch.variables.size(); ++i)
                Look(watch, i);
            lookDue = clock.Elapsed() + kLookMs;
        }
    }
    return Ended::No;
}

} // namespace

Exit WatchCommand(const ManagerOptions& options, const WatchOptions& wanted) {
    const HANDLE interrupted = TakeOverInterrupts(kLastWordsMs);
    KeepRunningOnClosedPipes();
    const Clock clock{.timeoutMs = wanted.timeoutMs};
    OpenedPrinter printer = OpenPrinterOf(options);
    Watch watch{.printer = printer, .options = options, .wanted = wanted};
    Begin(watch);
    switch (Follow(watch, clock, interrupted)) {
    case Ended::No:
        return Exit::Done;
    case Ended::Interrupted:
        return watch.conditions.empty() ? Exit::Done : Exit::False;
    case Ended::TimedOut:
        break;
    }
    throw Failure{Exit::TimedOut, "watching \"" + printer.shownName + "\" timed out",
                  watch.conditions.empty() ? "" : "the condition was not met", ""};
}

Exit TerminateCommand(const ManagerOptions& options) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    const uint32_t yes = 1;
    const int32_t status = UpdatePrinterStatusA(printer.manager.Get(), names::kTerminateManager, &yes, sizeof yes);
    if (status != TVS_OK) throw StatusFailure(status, WhatOf("write", names::kTerminateManager, printer));
    if (g_output.json) PrintJson({{"printer", printer.shownName}, {"asked", true}});
    return Exit::Done;
}
