// State: the record of the printer.
#include "network_device.h"

#include "printer_values.h"
#include "text.h"

#include "product/conditions.h"
#include "product/variable_names.h"

#include <tvsqdz.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <string.h>
#include <string_view>

using devices::Ask;
using devices::Outcome;

namespace {

constexpr DWORD kQuickShare = 15; // the quick interval is that part of the idle one
constexpr DWORD kQuickMinMs = 200;
constexpr DWORD kQuickForMs = 60000; // after a change
constexpr DWORD kBackOffMax = 2;     // times the idle interval
constexpr DWORD kJitterPercent = 10; // so that many printers are not polled at once
constexpr DWORD kAnswerMarginMs = 500;
// An answer to a poll is overdue after this time, and after twice what the second slowest answer of the last ten to
// twenty minutes took: a single slow one may come from a printer that was dead for a moment. What was read before is
// stale then, long before the question fails.
constexpr DWORD kLateMs = 1500;
constexpr ULONGLONG kSlowPeriodMs = 10 * 60 * 1000;
// While somebody follows the printer. The pause and the time for the answer are less than 2 s together, but for a
// printer that needs almost a second for an answer.
constexpr DWORD kFollowedMs = 1000;
constexpr DWORD kFollowedLateMs = 800;
constexpr DWORD kFollowedStaleMs = 1900;
constexpr DWORD kFollowedRetryMs = 2000; // of a printer that does not answer, at most

constexpr DWORD kPauseJob = 1; // "SetJob"
constexpr DWORD kResumeJob = 2;

struct Scheme {
    std::string_view name;
    const char* module;
};
constexpr char kCompanionModule[] = "oriel_snmp";
constexpr char kCompanionMark[] = "?snmp";
constexpr Scheme kSchemes[] = {
    {"ipp", "oriel_ipp"}, {"ipps", "oriel_ipp"}, {"cups", "oriel_ipp"}, {"snmp", "oriel_snmp"}};

const Scheme* SchemeOf(std::string_view uri) {
    const std::string_view scheme = uri.substr(0, uri.find(':'));
    for (const Scheme& row : kSchemes)
        if (scheme == row.name && scheme.size() < uri.size()) return &row;
    return nullptr;
}

NetworkPrinter& PrinterOf(void* self) {
    return *static_cast<NetworkPrinter*>(self);
}

void OnFinished(void* ready) {
    SetEvent(ready);
}

// What people may see: without what follows "?", where a community may be.
std::string ShownUri(const std::string& uri) {
    return uri.substr(0, uri.find('?'));
}

// ---- intervals

DWORD QuickMs(const NetworkPrinter& printer) {
    return std::min(printer.pollMs, std::max(printer.pollMs / kQuickShare, kQuickMinMs));
}

DWORD WithJitter(DWORD pause) {
    static std::atomic<DWORD> seed = GetCurrentProcessId() * 2654435761u + GetTickCount();
    const DWORD random = (seed += 2654435769u) * 1664525u + 1013904223u; // any thread's
    const DWORD most = pause * kJitterPercent / 100;
    return pause - (most != 0 ? random / 65536 % (most + 1) : 0);
}

// After what time an answer is overdue.
DWORD LateAfterMs(const NetworkPrinter& printer) {
    const auto& [now, before] = printer.slow;
    const DWORD slowest = std::max(now.slowestMs, before.slowestMs);
    const DWORD second =
        std::max({now.secondMs, before.secondMs, std::min(now.slowestMs, before.slowestMs)}); // 0: there was only one
    return std::max(printer.followed ? kFollowedLateMs : kLateMs, 2 * (second != 0 ? second : slowest));
}

// A print server tells when its queue has changed.
bool AsksServer(const NetworkPrinter& printer) {
    return SchemeOf(printer.uri)->name == "cups";
}

DWORD FollowedPauseMs(const NetworkPrinter& printer) {
    if (AsksServer(printer)) return QuickMs(printer);
    const DWORD late = std::min(LateAfterMs(printer), kFollowedStaleMs);
    return std::min(QuickMs(printer), std::clamp(kFollowedStaleMs - late, kQuickMinMs, kFollowedMs));
}

bool IsBusyPrinter(const NetworkPrinter& printer) {
    return printer.reading.state == devices::State::Printing || !printer.reading.jobs.empty();
}

DWORD PauseOf(const NetworkPrinter& printer, ULONGLONG now) {
    if (printer.failures > 0) {
        constexpr DWORD kDoublingsMax = 16;
        const ULONGLONG pause = ULONGLONG{QuickMs(printer)} << std::min(printer.failures - 1, kDoublingsMax);
        const ULONGLONG most = printer.followed ? kFollowedRetryMs : ULONGLONG{kBackOffMax} * printer.pollMs;
        return WithJitter(static_cast<DWORD>(std::min(pause, most)));
    }
    if (printer.followed) return WithJitter(FollowedPauseMs(printer));
    const bool quick = printer.tellsEvents || IsBusyPrinter(printer) || now < printer.quickUntil;
    return WithJitter(quick ? QuickMs(printer) : printer.pollMs);
}

// ---- questions

void AskModule(NetworkPrinter& printer, devices::Question question) {
    question.certificate = printer.certificate;
    question.limitMs = kDeviceLimitMs;
    printer.busy = true;
    printer.module->ask(printer.session, question);
}

LONG NumberOf(const Bytes& value) {
    LONG number = 0;
    if (value.size() == sizeof number) memcpy(&number, value.data(), sizeof number);
    return number;
}

std::string TextOf(const Bytes& value) {
    return ToUtf8({value.begin(), std::find(value.begin(), value.end(), BYTE{0})});
}

// The first job in one of these states; 0: there is none.
LONG JobIn(const NetworkPrinter& printer, std::initializer_list<LONG> states) {
    for (const devices::Job& job : printer.reading.jobs)
        if (std::find(states.begin(), states.end(), job.state) != states.end()) return job.id;
    return 0;
}

// The question that carries a write out. Nothing: no printer has the like.
std::optional<devices::Question> QuestionOf(const NetworkPrinter& printer, const DeviceRequest& write) {
    devices::Question question;
    const LONG number = NumberOf(write.value);
    if (write.subject == names::kDeleteJobId) {
        question.ask = Ask::CancelJob;
        question.job = number;
    } else if (write.subject == names::kSetJob && number == kPauseJob) {
        question.ask = Ask::HoldJob;
        question.job = JobIn(printer, {devices::kJobPending, devices::kJobProcessing});
    } else if (write.subject == names::kSetJob && number == kResumeJob) {
        question.ask = Ask::ReleaseJob;
        question.job = JobIn(printer, {devices::kJobHeld, devices::kJobStopped});
    } else if (write.subject == names::kPrinterDisplay || write.subject == names::kPrinterDisplay2) {
        question.ask = Ask::Identify;
        question.text = TextOf(write.value);
        return question;
    } else if (write.subject == names::kPrinterLocation) {
        question.ask = Ask::SetLocation;
        question.text = TextOf(write.value);
        return question;
    } else {
        return std::nullopt;
    }
    return question.job > 0 ? std::optional(question) : std::nullopt;
}

void AnswerRequest(NetworkPrinter& printer, const DeviceRequest& request, LONG result) {
    printer.answers.push_back({.id = request.id, .result = result});
}

// Begins the next question, if one is due.
void AskNext(NetworkPrinter& printer, ULONGLONG now) {
    while (!printer.busy && !printer.waiting.empty() && printer.waiting.front().kind == DeviceAsk::Write) {
        const DeviceRequest write = std::move(printer.waiting.front());
        printer.waiting.pop_front();
        if (const std::optional<devices::Question> question = QuestionOf(printer, write)) {
            printer.asked = {write};
            AskModule(printer, *question);
        } else {
            AnswerRequest(printer, write, TVS_E_NOT_NOW);
        }
    }
    if (printer.busy || (printer.waiting.empty() && now < printer.pollAt)) return;
    while (!printer.waiting.empty() && printer.waiting.front().kind != DeviceAsk::Write) {
        printer.asked.push_back(std::move(printer.waiting.front()));
        printer.waiting.pop_front();
    }
    // Who asks gets what is read now. While it prints, its pages come without an event.
    const bool events = printer.asked.empty() && !IsBusyPrinter(printer);
    if (printer.companion.session && !printer.companion.busy) {
        printer.companion.busy = true;
        printer.companion.module->ask(
            printer.companion.session,
            {.ask = Ask::Poll, .identity = !printer.companion.identity, .limitMs = kDeviceLimitMs});
    }
    printer.askedAt = now;
    if (printer.link.up) printer.lateAt = now + LateAfterMs(printer);
    AskModule(printer, {.ask = Ask::Poll,
                        .identity = !printer.identity,
                        .events = events && !printer.ofPrintServer,
                        .jobs = !printer.ofPrintServer});
}

// ---- answers

bool Answers(Outcome outcome) {
    return outcome == Outcome::Answered || outcome == Outcome::NotSupported || outcome == Outcome::Declined;
}

// What was read before stays in the database, and is old. It is not stored again.
void NoteDown(NetworkPrinter& printer, const std::string& trouble) {
    printer.link.trouble = ToAnsi(trouble);
    if (printer.link.up || printer.values.empty()) {
        printer.values.clear();
        printer.reading = {};
        const DeviceValue value = NoAnswerValue(ShownUri(printer.uri));
        printer.values[value.variable] = value;
        printer.changed.push_back(value);
    }
    printer.link.up = false;
}

void NoteLink(NetworkPrinter& printer, const devices::Answer& answer) {
    const bool up = Answers(answer.outcome);
    printer.failures = up ? 0 : printer.failures + 1;
    ++printer.link.questions;
    if (up) ++printer.link.answers;
    if (up && printer.certificate.empty() && !answer.certificate.empty()) {
        printer.certificate = answer.certificate;
        printer.trust(answer.certificate);
    }
    if (answer.outcome == Outcome::CertificateChanged) printer.certificate = printer.trusted();
    if (!up) return NoteDown(printer, answer.trouble);
    printer.link.trouble.clear();
    printer.link.up = true;
}

void NoteLate(NetworkPrinter& printer, ULONGLONG now) {
    if (!printer.busy || printer.lateAt == 0 || now < printer.lateAt) return;
    printer.lateAt = 0;
    NoteDown(printer, "the answer is overdue");
}

void NoteDuration(NetworkPrinter& printer, ULONGLONG now) {
    const DWORD took = std::max(static_cast<DWORD>(now - printer.askedAt), DWORD{1});
    auto& [slow, before] = printer.slow;
    if (const ULONGLONG since = now - printer.slowSince; since >= kSlowPeriodMs) {
        before = since < 2 * kSlowPeriodMs ? slow : SlowAnswers();
        slow = {};
        printer.slowSince = now;
    }
    slow.secondMs = std::max(slow.secondMs, std::min(slow.slowestMs, took));
    slow.slowestMs = std::max(slow.slowestMs, took);
}

bool SameValue(const DeviceValue& a, const DeviceValue& b) {
    return a.known == b.known && a.bytes == b.bytes;
}

// What the printer itself tells goes first.
devices::Reading Completed(const devices::Reading& own, const devices::Reading& more) {
    constexpr uint32_t kCovers = 1u << product::kCoverBit | 1u << product::kInterlockBit;
    devices::Reading all = own;
    if (all.pageCount < 0) all.pageCount = more.pageCount;
    if (all.currentFeeder < 0) all.currentFeeder = more.currentFeeder;
    if (all.display.empty()) all.display = more.display;
    if (all.trays.empty()) all.trays = more.trays;
    if (all.supplies.empty()) all.supplies = more.supplies;
    all.coverOpen = std::max(own.coverOpen, more.coverOpen);
    all.conditions |= more.conditions & kCovers;
    return all;
}

devices::Identity Completed(const devices::Identity& own, const devices::Identity& more) {
    devices::Identity all = own;
    if (all.serial.empty()) all.serial = more.serial;
    if (all.location.empty()) all.location = more.location;
    if (all.memoryKiB < 0) all.memoryKiB = more.memoryKiB;
    return all;
}

void NoteReading(NetworkPrinter& printer, ULONGLONG now) {
    const Companion& companion = printer.companion;
    printer.reading = companion.reading ? Completed(printer.own, *companion.reading) : printer.own;
    std::optional<devices::Identity> identity = printer.identity;
    if (identity && companion.identity) identity = Completed(*identity, *companion.identity);
    const bool first = printer.values.size() <= 1;
    bool any = false;
    for (DeviceValue& value :
         ValuesOf(printer.reading, identity ? &*identity : nullptr, !printer.ofPrintServer, ShownUri(printer.uri))) {
        const auto old = printer.values.find(value.variable);
        if (old != printer.values.end() && SameValue(old->second, value)) continue;
        any = true;
        printer.changed.push_back(value);
        printer.values[value.variable] = std::move(value);
    }
    if (any && !first) printer.quickUntil = now + kQuickForMs;
}

void AnswerRequests(NetworkPrinter& printer, const devices::Answer& answer) {
    for (const DeviceRequest& request : printer.asked) {
        DeviceAnswer reply{.id = request.id, .result = answer.outcome == Outcome::Answered ? 0 : TVS_E_NOT_NOW};
        if (reply.result == 0 && request.kind == DeviceAsk::Read) {
            const auto value = printer.values.find(request.subject);
            if (value != printer.values.end())
                reply.values.push_back(value->second);
            else
                reply.result = TVS_E_UNKNOWN;
        } else if (reply.result == 0 && request.kind == DeviceAsk::Refresh) {
            for (const auto& [name, value] : printer.values)
                reply.values.push_back(value);
        }
        printer.answers.push_back(std::move(reply));
    }
    printer.asked.clear();
}

void TakeAnswer(NetworkPrinter& printer, ULONGLONG now) {
    devices::Answer answer;
    if (!printer.busy || !printer.module->take(printer.session, &answer)) return;
    printer.busy = false;
    printer.lateAt = 0;
    const bool wasCommand = !printer.asked.empty() && printer.asked.front().kind == DeviceAsk::Write;
    NoteLink(printer, answer);
    if (!wasCommand && printer.link.up) NoteDuration(printer, now);
    if (!wasCommand) printer.tellsEvents = printer.link.up && answer.tellsEvents;
    if (answer.outcome == Outcome::Answered && !wasCommand && !answer.unchanged) {
        if (answer.reading.identity) printer.identity = std::move(answer.reading.identity);
        printer.own = std::move(answer.reading);
        NoteReading(printer, now);
    }
    AnswerRequests(printer, answer);
    // What a command did shows at once.
    printer.pollAt = (wasCommand || printer.again) && printer.link.up ? now : now + PauseOf(printer, now);
    printer.again = false;
    if (printer.link.up) return;
    // Nor are those answered that came meanwhile; to ask again would take as long.
    for (const DeviceRequest& request : printer.waiting)
        AnswerRequest(printer, request, TVS_E_NOT_NOW);
    printer.waiting.clear();
}

// What only the companion tells is not known while it is silent.
void TakeCompanion(NetworkPrinter& printer, ULONGLONG now) {
    Companion& companion = printer.companion;
    devices::Answer answer;
    if (!companion.busy || !companion.module->take(companion.session, &answer)) return;
    companion.busy = false;
    const bool answered = answer.outcome == Outcome::Answered;
    if (answered && answer.reading.identity) companion.identity = std::move(answer.reading.identity);
    companion.reading.reset();
    if (answered) companion.reading = std::move(answer.reading);
    if (printer.link.up && printer.identity) NoteReading(printer, now);
}

// ---- the functions of the device

std::vector<DeviceValue> State(void* self) {
    std::vector<DeviceValue> values;
    for (const auto& [name, value] : PrinterOf(self).values)
        values.push_back(value);
    const NetworkPrinter& printer = PrinterOf(self);
    std::string shown = ShownUri(printer.uri);
    shown.erase(0, shown.find(':') + 1);
    if (shown.starts_with("//")) shown.erase(0, 2);
    TvsPortRecord port{.portKind = 1, .portName = {}, .portDetail = {}};
    const SIZE_T slash = std::min(shown.find('/'), shown.size());
    ToAnsi(shown.substr(0, slash)).copy(port.portName, sizeof port.portName - 1);
    ToAnsi(shown.substr(slash)).copy(port.portDetail, sizeof port.portDetail - 1);
    const auto* bytes = reinterpret_cast<const BYTE*>(&port);
    values.push_back({.variable = names::kPort, .bytes = Bytes(bytes, bytes + sizeof port), .origin = shown});
    return values;
}

bool AskDevice(void* self, const DeviceRequest& request, ULONGLONG now) {
    NetworkPrinter& printer = PrinterOf(self);
    if (request.kind == DeviceAsk::Read && !IsDeviceVariable(request.subject))
        AnswerRequest(printer, request, TVS_E_UNKNOWN);
    else
        printer.waiting.push_back(request);
    AskNext(printer, now);
    return true;
}

void Drop(void* self, DWORD id) {
    NetworkPrinter& printer = PrinterOf(self);
    const auto isIt = [id](const DeviceRequest& request) { return request.id == id; };
    std::erase_if(printer.waiting, isIt);
    std::erase_if(printer.answers, [id](const DeviceAnswer& answer) { return answer.id == id; });
    // Its question goes on; a command's kind must be known at its end.
    for (DeviceRequest& request : printer.asked)
        if (request.id == id) request.id = 0;
}

DeviceNews Take(void* self, ULONGLONG now) {
    NetworkPrinter& printer = PrinterOf(self);
    TakeAnswer(printer, now);
    TakeCompanion(printer, now);
    NoteLate(printer, now);
    AskNext(printer, now);
    DeviceNews news{.changed = std::move(printer.changed), .answers = std::move(printer.answers)};
    printer.changed.clear();
    printer.answers.clear();
    const ULONGLONG next = printer.busy ? printer.lateAt : printer.pollAt;
    if (!printer.busy || next != 0) news.nextMs = static_cast<DWORD>(next > now ? next - now : 0);
    return news;
}

const DeviceLink& LinkOf(void* self) {
    return PrinterOf(self).link;
}

// Whoever begins to follow is not left with old values for a whole interval, also not those of a question that hangs.
// When the last one ends, the printer is left in peace.
void Followed(void* self, bool followed, ULONGLONG now) {
    NetworkPrinter& printer = PrinterOf(self);
    if (followed == printer.followed) return;
    printer.followed = followed;
    if (followed) {
        printer.pollAt = std::min(printer.pollAt, printer.askedAt + std::min(QuickMs(printer), kFollowedMs));
        if (printer.lateAt != 0) printer.lateAt = std::min(printer.lateAt, printer.askedAt + LateAfterMs(printer));
    } else if (!printer.busy && printer.failures == 0) {
        printer.pollAt = std::max(printer.pollAt, printer.askedAt + PauseOf(printer, now));
    }
}

void Look(void* self) {
    NetworkPrinter& printer = PrinterOf(self);
    if (printer.failures == 0 || printer.ofPrintServer) printer.pollAt = 0;
    printer.again = printer.busy;
}

std::vector<DeviceQueue> Queues(void*) {
    return {};
}

const devices::Module* LoadModule(const char* name) {
    const HMODULE library = LoadLibraryExA(name, nullptr, LOAD_LIBRARY_SEARCH_APPLICATION_DIR);
    if (!library) return nullptr;
    // By way of a plain pointer, because FARPROC has another type.
    const auto entry =
        reinterpret_cast<devices::ModuleEntry>(reinterpret_cast<void*>(GetProcAddress(library, devices::kModuleEntry)));
    const devices::Module* module = entry ? entry() : nullptr;
    return module && module->size == sizeof *module ? module : nullptr;
}

std::string UserName() {
    char name[257];
    DWORD size = sizeof name;
    return GetUserNameA(name, &size) ? ToUtf8(name) : "";
}

} // namespace

std::string HostOf(const std::string& uri) {
    const size_t begin = uri.find("://");
    if (begin == uri.npos) return "";
    std::string host = uri.substr(begin + 3, uri.find_first_of("/?", begin + 3) - begin - 3);
    if (!host.ends_with(']')) host = host.substr(0, host.rfind(':'));
    return host;
}

bool IsNetworkDevice(const std::string& uri) {
    return SchemeOf(uri) != nullptr;
}

std::string OpenNetworkPrinter(NetworkPrinter& printer) {
    const Scheme* scheme = SchemeOf(printer.uri);
    if (!scheme) return "\"" + printer.uri + "\" is no address of a device";
    printer.module = LoadModule(scheme->module);
    if (!printer.module)
        return "the module " + std::string(scheme->module) + " is not installed, or a library that it needs";
    printer.ready = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (!printer.ready) return "there is no event to have, system error " + std::to_string(GetLastError());
    std::string error;
    const size_t mark =
        std::string_view(scheme->name).starts_with("ipp") ? printer.uri.find(kCompanionMark) : printer.uri.npos;
    if (mark != printer.uri.npos) {
        const std::string given = printer.uri.substr(mark + sizeof kCompanionMark - 1);
        if (!given.empty() && !given.starts_with("=snmp://"))
            return "\"?snmp" + given + "\" names no agent: ?snmp and ?snmp=snmp://HOST do";
        printer.companion.module = LoadModule(kCompanionModule);
        if (!printer.companion.module) return std::string("the module ") + kCompanionModule + " is not installed";
        printer.companion.session =
            printer.companion.module->open({.uri = given.empty() ? "snmp://" + HostOf(printer.uri) : given.substr(1)},
                                           OnFinished, printer.ready, &error);
        if (!printer.companion.session) return error;
    }
    printer.session = printer.module->open({.uri = printer.uri.substr(0, mark), .user = UserName()}, OnFinished,
                                           printer.ready, &error);
    printer.link.device = ToAnsi(ShownUri(printer.uri));
    printer.link.answersEveryMs = printer.pollMs + kDeviceLimitMs;
    return printer.session ? "" : error;
}

void CloseNetworkPrinter(NetworkPrinter& printer) {
    if (printer.session) printer.module->close(printer.session);
    printer.session = nullptr;
    if (printer.companion.session) printer.companion.module->close(printer.companion.session);
    printer.companion.session = nullptr;
    if (printer.ready) CloseHandle(printer.ready);
    printer.ready = nullptr;
}

Device DeviceOf(NetworkPrinter& printer) {
    return {.state = State,
            .ask = AskDevice,
            .drop = Drop,
            .take = Take,
            .link = LinkOf,
            .followed = Followed,
            .look = Look,
            .queues = Queues,
            .pageMs = nullptr,
            .pagesOut = nullptr,
            .answerLimitMs = kDeviceLimitMs + kAnswerMarginMs,
            .ready = printer.ready,
            .self = &printer};
}

devices::Answer TryNetworkPrinter(NetworkPrinter& printer, DWORD limitMs, HANDLE stop) {
    devices::Answer answer{.outcome = Outcome::NoAnswer, .trouble = "the printer does not answer in time"};
    AskModule(printer, {.ask = Ask::Poll, .identity = true, .jobs = false});
    const HANDLE handles[] = {printer.ready, stop};
    if (WaitForMultipleObjects(stop ? 2 : 1, handles, FALSE, limitMs) == WAIT_OBJECT_0)
        printer.module->take(printer.session, &answer);
    return answer;
}
