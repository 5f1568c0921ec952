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

const Rule* RuleFor(const ScriptedPrinter& printer, const DeviceRequest& request) {
    switch (request.kind) {
    case DeviceAsk::Read:
        return RuleFor(printer.readRules, request.subject);
    case DeviceAsk::Write:
        return RuleFor(printer.writeRules, request.subject);
    case DeviceAsk::Refresh:
        return &printer.refreshRule;
    }
    return nullptr;
}

// What the printer does where no rule says otherwise.
void Carry(ScriptedPrinter& printer, const DeviceRequest& request, DeviceAnswer& answer) {
    switch (request.kind) {
    case DeviceAsk::Read:
        if (const auto value = printer.values.find(request.subject); value != printer.values.end())
            answer.values.push_back(value->second);
        else
            answer.result = TVS_E_UNKNOWN;
        break;
    case DeviceAsk::Write: {
        DeviceValue& value = printer.values[request.subject];
        value = {.variable = request.subject, .bytes = request.value, .origin = "a write request"};
        answer.values.push_back(value);
        break;
    }
    case DeviceAsk::Refresh:
        answer.values = State(&printer);
        break;
    }
}

bool Ask(void* self, const DeviceRequest& request, ULONGLONG now) {
    ScriptedPrinter& printer = PrinterOf(self);
    const Rule* rule = RuleFor(printer, request);
    if (rule && rule->silent) return false;
    PendingAnswer pending{.due = now + (rule ? rule->delayMs / printer.speed : 0), .answer = {.id = request.id}};
    if (rule && rule->sets) {
        printer.values[rule->value.variable] = rule->value;
        pending.answer.values.push_back(rule->value);
    }
    if (rule) pending.answer.result = rule->result;
    if (!rule || (!rule->sets && rule->result == 0)) Carry(printer, request, pending.answer);
    printer.pending.push_back(std::move(pending));
    return true;
}

void Drop(void* self, DWORD id) {
    std::erase_if(PrinterOf(self).pending, [id](const PendingAnswer& pending) { return pending.answer.id == id; });
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

// The statements up to now. Returns the milliseconds until the next one.
DWORD Advance(ScriptedPrinter& printer, ULONGLONG now, std::vector<DeviceValue>& changed) {
    now *= printer.speed;
    if (!printer.started) printer.due = now;
    printer.started = true;
    while (printer.at < printer.statements.size()) {
        if (Step(printer, now, changed)) continue;
        const ULONGLONG pause = (printer.due - now + printer.speed - 1) / printer.speed;
        return static_cast<DWORD>(std::min<ULONGLONG>(pause, kNothingDue - 1));
    }
    return kNothingDue;
}

DeviceNews Take(void* self, ULONGLONG now) {
    ScriptedPrinter& printer = PrinterOf(self);
    DeviceNews news;
    news.nextMs = Advance(printer, now, news.changed);
    std::erase_if(printer.pending, [&](PendingAnswer& pending) {
        const bool due = pending.due <= now;
        if (due)
            news.answers.push_back(std::move(pending.answer));
        else
            news.nextMs = std::min(news.nextMs, static_cast<DWORD>(pending.due - now));
        return due;
    });
    return news;
}

const DeviceLink& LinkOf(void* self) {
    return PrinterOf(self).link;
}

} // namespace

Device DeviceOf(ScriptedPrinter& printer) {
    return {.state = State,
            .ask = Ask,
            .drop = Drop,
            .take = Take,
            .link = LinkOf,
            .followed = nullptr,
            .look = nullptr,
            .queues = Queues,
            .pageMs = PageMs,
            .pagesOut = PagesOut,
            .self = &printer};
}
