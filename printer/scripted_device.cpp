// State: the record of the printer.
#include "scripted_device.h"

#include "product/variable_names.h"

#include <tvsqdz.h>

#include <algorithm>
#include <string.h>

namespace {

ScriptedPrinter& PrinterOf(void* self) {
    return *static_cast<ScriptedPrinter*>(self);
}

std::vector<DeviceValue> State(void* self) {
    std::vector<DeviceValue> state;
    for (const auto& [name, value] : PrinterOf(self).values)
        state.push_back(value);
    return state;
}

const Rule* RuleFor(const std::map<std::string, Rule>& rules, const std::string& variable) {
    for (const std::string& name : {variable, std::string("*")})
        if (const auto found = rules.find(name); found != rules.end()) return &found->second;
    return nullptr;
}

// Applies a rule. True: the request is done. False: there is no rule, or only its delay applies.
bool ApplyRule(ScriptedPrinter& printer, const Rule* rule, DeviceReply& reply) {
    if (!rule) return false;
    reply.delayMs = rule->delayMs / printer.speed;
    reply.result = rule->result;
    reply.silent = rule->silent;
    if (rule->sets) {
        printer.values[rule->value.variable] = rule->value;
        reply.values.push_back(rule->value);
    }
    return rule->sets || rule->silent || rule->result != 0;
}

DeviceReply Read(void* self, const std::string& variable) {
    ScriptedPrinter& printer = PrinterOf(self);
    DeviceReply reply;
    if (ApplyRule(printer, RuleFor(printer.readRules, variable), reply)) return reply;
    const auto value = printer.values.find(variable);
    if (value == printer.values.end())
        reply.result = TVS_E_UNKNOWN;
    else
        reply.values.push_back(value->second);
    return reply;
}

DeviceReply Write(void* self, const std::string& variable, const Bytes& bytes) {
    ScriptedPrinter& printer = PrinterOf(self);
    DeviceReply reply;
    if (ApplyRule(printer, RuleFor(printer.writeRules, variable), reply)) return reply;
    DeviceValue& value = printer.values[variable];
    value = {.variable = variable, .bytes = bytes, .origin = "a write request"};
    reply.values.push_back(value);
    return reply;
}

DeviceReply Refresh(void* self, const std::string&) {
    ScriptedPrinter& printer = PrinterOf(self);
    DeviceReply reply;
    if (!ApplyRule(printer, &printer.refreshRule, reply)) reply.values = State(self);
    return reply;
}

// A counter that was not set starts at 0.
DeviceValue AddPages(ScriptedPrinter& printer, DWORD count) {
    constexpr DWORD kUnknown = 0xFFFFFFFF;
    DeviceValue& value = printer.values[names::kPageCount];
    DWORD pages = 0;
    if (value.bytes.size() == sizeof pages) memcpy(&pages, value.bytes.data(), sizeof pages);
    pages = pages == kUnknown ? count : pages + count;
    const auto* bytes = reinterpret_cast<const BYTE*>(&pages);
    value = {
        .variable = names::kPageCount, .bytes = {bytes, bytes + sizeof pages}, .origin = "the pages that came out"};
    return value;
}

std::vector<DeviceQueue> Queues(void* self) {
    std::vector<DeviceQueue> queues;
    for (const Statement& statement : PrinterOf(self).statements)
        if (statement.verb == Verb::Queue) queues.push_back(statement.queue);
    return queues;
}

DWORD PageMs(void* self) {
    const ScriptedPrinter& printer = PrinterOf(self);
    return printer.pageMs == kHoldJobs ? kHoldJobs : std::max<DWORD>(printer.pageMs / printer.speed, 1);
}

std::vector<DeviceValue> PagesOut(void* self, DWORD count) {
    return {AddPages(PrinterOf(self), count)};
}

// A repeating script that falls behind, for example because the machine slept, continues from now.
constexpr ULONGLONG kCatchUpMs = 60000;

// Carries one statement out. now: of the script. False: it is not due yet.
bool Step(ScriptedPrinter& printer, ULONGLONG now, std::vector<DeviceValue>& changed) {
    const Statement& statement = printer.statements[printer.at];
    switch (statement.verb) {
    case Verb::Set:
        printer.values[statement.value.variable] = statement.value;
        changed.push_back(statement.value);
        break;
    case Verb::Initially:
        if (printer.values.emplace(statement.value.variable, statement.value).second)
            changed.push_back(statement.value);
        break;
    case Verb::Append:
        changed.push_back(statement.value);
        break;
    case Verb::Pages:
        changed.push_back(AddPages(printer, statement.number));
        break;
    case Verb::Jobs:
        printer.pageMs = statement.number;
        break;
    case Verb::Queue: // holds from the start
        break;
    case Verb::Wait:
        if (!printer.waited) printer.due += statement.waitMs;
        printer.waited = printer.due > now;
        if (printer.waited) return false;
        break;
    case Verb::OnRead:
        printer.readRules[statement.variable] = statement.rule;
        break;
    case Verb::OnWrite:
        printer.writeRules[statement.variable] = statement.rule;
        break;
    case Verb::OnRefresh:
        printer.refreshRule = statement.rule;
        break;
    case Verb::Repeat:
        printer.at = 0;
        if (now - printer.due > kCatchUpMs) printer.due = now;
        return true;
    }
    ++printer.at;
    return true;
}

std::vector<DeviceValue> Advance(void* self, ULONGLONG now, DWORD* next) {
    ScriptedPrinter& printer = PrinterOf(self);
    std::vector<DeviceValue> changed;
    now *= printer.speed;
    if (!printer.started) printer.due = now;
    printer.started = true;
    while (printer.at < printer.statements.size()) {
        if (Step(printer, now, changed)) continue;
        const ULONGLONG pause = (printer.due - now + printer.speed - 1) / printer.speed;
        *next = static_cast<DWORD>(std::min<ULONGLONG>(pause, kNothingDue - 1));
        return changed;
    }
    *next = kNothingDue;
    return changed;
}

} // namespace

Device DeviceOf(ScriptedPrinter& printer) {
    return {.state = State,
            .read = Read,
            .write = Write,
            .refresh = Refresh,
            .advance = Advance,
            .queues = Queues,
            .pageMs = PageMs,
            .pagesOut = PagesOut,
            .self = &printer};
}
