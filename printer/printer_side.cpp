// One thread waits for a request, for the device and for its answers, and handles one after the other.
//
// Its wait remembers which pulses it has seen, so it misses no request. It also looks from time to time, at the values
// that the service publishes: that costs no call. State: the record of the printer.
#include "printer_side.h"

#include "jobs.h"
#include "link.h"
#include "queues.h"

#include "product/device_record.h"
#include "product/file_times.h"
#include "product/log.h"
#include "product/signal_wait.h"
#include "product/supplies_record.h"
#include "product/variable_names.h"

#include <tvsqdz.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string.h>

using namespace product;

namespace {

constexpr DWORD kDeafLookMs = 250; // without an event that tells of the next service: all names were lost
constexpr DWORD kLookMs = 4000; // between looks at all that events tell too, and whether somebody follows the printer
constexpr DWORD kAskMs = 30000; // between calls of the service that only see whether it still knows us
constexpr DWORD kFirstRetryMs = 50; // to connect; half as long again each time
constexpr DWORD kLongestRetryMs = 2000;

// Where requests are forwarded, the request variable is written first. Its request is carried out only if it is not
// forwarded within once to twice this time and somebody waits for "RWResult".
constexpr DWORD kForwardGraceMs = 150;
// A request that was carried out by its variable is not carried out again when it is forwarded within this time.
constexpr DWORD kDoubledMs = 2000;

constexpr DWORD kOrdinaryPort = 0x1; // any value but 0 (no port is known) and TVS_PORT_NO_REQUESTS
// "SpoolerStatus" while requests are taken.
constexpr DWORD kSpoolerUp = TVS_SPOOLER_RUNS | TVS_SPOOLER_READY;

// A request being carried out.
struct Job {
    RequestKind kind = kNoRequest; // of a refresh by the request variable: kWriteRequest
    DWORD writes = 0;              // the count of the request variable
    bool byVariable = false;       // the answer goes to "RWResult"
    DWORD forwardId = 0;           // the answer goes to the mailbox's
    DWORD id = 0;                  // of the device's answer
    bool silent = false;           // the device never answers
    ULONGLONG limit = 0;           // when the requester is told that there is no answer; 0: never
};

// The last request that was carried out by its variable; it may be forwarded too.
struct Carried {
    RequestKind kind = kNoRequest;
    DWORD writes = 0;
    LONG result = 0;
    ULONGLONG at = 0;
};

struct PrinterSide {
    const PrinterSideOptions& options;
    const Device& device;
    HANDLE stop;
    Link link;
    KernelHandle serviceStarted{}; // of the service that is connected
    DWORD lastTick = GetTickCount();
    ULONGLONG now = 0;       // milliseconds since the start
    DWORD seen[2] = {};      // write counts of the two request variables
    DWORD unclaimed[2] = {}; // counts that no forwarded request has come for yet
    ULONGLONG graceEnd = 0;  // when these are checked; 0: there are none
    DWORD mailboxId = 0;
    bool forwarded = false; // "LMFunction": requests come through the mailbox
    std::optional<Job> job{};
    DWORD lastId = 0; // of a request to the device
    Carried carried{};
    std::optional<DeviceRecord> told{}; // what "DeviceState" says; none: not stored yet
    ULONGLONG questions = 0;            // of the device, as it was told last
    ULONGLONG answers = 0;              // of them
    ULONGLONG answeredAt = 0;           // the last of them, as a FILETIME
    bool linkUp = false;                // as "PrinterExtStatus" and "SpoolerStatus" say
    Queues queues{};
    JobTaker* jobs = nullptr;
};

constexpr const char* kRequestVariables[] = {names::kReadRequest, names::kWriteRequest};

DWORD VariableOf(RequestKind kind) {
    return kind == kReadRequest ? kWatchedRead : kWatchedWrite;
}

void UpdateClock(PrinterSide& side) {
    const DWORD tick = GetTickCount();
    side.now += tick - side.lastTick;
    side.lastTick = tick;
}

void Warn(const PrinterSide& side, const std::string& message) {
    Log(LogLevel::Warning, side.options.printer + ": " + message);
}

// ---- values

void WarnOfValue(PrinterSide& side, const std::string& origin, const std::string& variable, LONG status) {
    if (!side.link.lost)
        Warn(side, origin + ": \"" + variable + "\" does not take this value (" + std::to_string(status) + ")");
}

void PutWaitingItems(PrinterSide& side) {
    const QueueResult result = PutItems(side.link, side.queues);
    if (result.status != kDone) WarnOfValue(side, result.origin, result.variable, result.status);
}

// The first failure. A value that cannot be stored is logged, and the others are stored.
LONG StoreValues(PrinterSide& side, const std::vector<DeviceValue>& values) {
    LONG first = kDone;
    for (const DeviceValue& value : values) {
        if (value.item) {
            AddItem(side.queues, value);
            continue;
        }
        if (value.onlyIfEmpty && !ReadTextOf(side.link, value.variable.c_str()).empty()) continue;
        const LONG status = StoreValue(side.link, value);
        if (status != kDone) WarnOfValue(side, value.origin, value.variable, status);
        if (first == kDone) first = status;
    }
    PutWaitingItems(side);
    return first;
}

Bytes BytesOfNumber(DWORD number) {
    Bytes bytes(sizeof number);
    memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

bool IsOneOf(const std::vector<DeviceValue>& values, const char* variable) {
    return std::any_of(values.begin(), values.end(),
                       [&](const DeviceValue& value) { return value.variable == variable; });
}

// The printer side runs, and takes requests while the printer answers.
DWORD SpoolerStatusOf(bool linkUp) {
    return linkUp ? kSpoolerUp : DWORD{TVS_SPOOLER_RUNS};
}

DWORD ExtStatusOf(bool linkUp) {
    return linkUp ? DWORD{TVS_EXT_STATUS_TAKES_REQUESTS} : 0;
}

// Adds what every printer has and the device does not set. By default a printer takes requests.
void AddWhatIsMissing(const PrinterSideOptions& options, bool linkUp, std::vector<DeviceValue>& values) {
    const auto add = [&](const char* variable, Bytes bytes) {
        if (!IsOneOf(values, variable))
            values.push_back({.variable = variable, .bytes = std::move(bytes), .origin = "the printer side"});
    };
    if (!options.port.empty()) {
        TvsPortRecord port = {.portKind = kOrdinaryPort, .portName = {}, .portDetail = {}};
        options.port.copy(port.portName, sizeof port.portName - 1);
        const auto* bytes = reinterpret_cast<const BYTE*>(&port);
        add(names::kPort, Bytes(bytes, bytes + sizeof port));
    }
    add(names::kSpoolerStatus, BytesOfNumber(SpoolerStatusOf(linkUp)));
    add(names::kPrinterExtStatus, BytesOfNumber(ExtStatusOf(linkUp)));
    // The variables that say that requests are taken come last.
    std::stable_partition(values.begin(), values.end(), [](const DeviceValue& value) {
        return value.variable != names::kSpoolerStatus && value.variable != names::kPrinterExtStatus;
    });
}

// ---- the device's link

void SetText(char (&field)[128], const std::string& text) {
    memset(field, 0, sizeof field);
    text.copy(field, sizeof field - 1);
}

// anew: even if it says the same.
void StoreRecord(PrinterSide& side, const DeviceRecord& record, bool anew) {
    if (!anew && side.told && memcmp(&record, &*side.told, sizeof record) == 0) return;
    if (!side.told) {
        const LONG status = CreateRecord(side.link, kDeviceVariable, &record, sizeof record);
        if (status != kDone && status != kVariableExists) return;
    }
    side.told = record;
    WriteBytes(side.link, kDeviceVariable, &record, sizeof record);
}

// Tells how the device stands with its printer, when that changed or the printer was asked again: whoever looks for its
// values waits for the next write.
void TellLink(PrinterSide& side) {
    const DeviceLink& link = side.device.link(side.device.self);
    if (link.answers != side.answers) {
        FILETIME now;
        GetSystemTimeAsFileTime(&now);
        side.answeredAt = ToTime(now);
        side.answers = link.answers;
    }
    if (link.device.empty() || side.link.lost) return;
    if (link.up != side.linkUp) {
        side.linkUp = link.up;
        StoreValues(side, {{.variable = names::kSpoolerStatus, .bytes = BytesOfNumber(SpoolerStatusOf(link.up))},
                           {.variable = names::kPrinterExtStatus, .bytes = BytesOfNumber(ExtStatusOf(link.up))}});
        Log(link.up ? LogLevel::Note : LogLevel::Warning,
            side.options.printer + ": " + (link.up ? "the printer answers" : link.trouble));
    }
    DeviceRecord record{.version = kDeviceRecordVersion,
                        .up = link.up ? 1u : 0u,
                        .answersEveryMs = link.answersEveryMs,
                        .process = GetCurrentProcessId(),
                        .answeredAt = side.answeredAt};
    SetText(record.device, link.device);
    SetText(record.trouble, link.trouble);
    StoreRecord(side, record, link.questions != side.questions);
    side.questions = link.questions;
}

// ---- requests

void Answer(PrinterSide& side, const Job& job, LONG result) {
    if (job.byVariable) {
        WriteBytes(side.link, names::kRWResult, &result, sizeof result);
        side.carried = {job.kind, job.writes, result, side.now};
    }
    if (job.forwardId != 0) {
        const ForwardedAnswer answer = {job.forwardId, result};
        WriteBytes(side.link, kForwardAnswer, &answer, sizeof answer);
    }
}

void FinishJob(PrinterSide& side, LONG result) {
    const Job job = *side.job;
    side.job.reset();
    Answer(side, job, result);
}

// The companion's value in the form of the variable itself.
LONG ReadCompanion(PrinterSide& side, const std::string& companion, Bytes* value) {
    if (const LONG status = ReadBytes(side.link, companion.c_str(), value); status != kDone) return status;
    VariableInfo info = {};
    if (const LONG status = InfoOf(side.link, companion.c_str(), &info); status != kDone) return status;
    if (info.type != kTypeVariableLength) return kDone;
    DWORD length = 0;
    if (value->size() < sizeof length) return kWrongSize;
    memcpy(&length, value->data(), sizeof length);
    if (length > value->size() - sizeof length) return kWrongSize;
    value->erase(value->begin(), value->begin() + sizeof length);
    value->resize(length);
    return kDone;
}

// Hands the request to the device. kDone, or the result of one that names nothing: anybody may write the request
// variables.
LONG AskDevice(PrinterSide& side) {
    Job& job = *side.job;
    DeviceRequest request{.id = job.id};
    if (job.kind != kRefreshRequest) request.subject = ReadTextOf(side.link, kRequestVariables[VariableOf(job.kind)]);
    if (job.kind == kRefreshRequest || (job.kind == kWriteRequest && request.subject == names::kRefreshStatus)) {
        request.kind = DeviceAsk::Refresh;
        request.subject = ReadTextOf(side.link, names::kRefreshStatus);
    } else if (job.kind == kWriteRequest) {
        if (request.subject.size() < 2 || request.subject.back() != 'W') return TVS_E_UNKNOWN;
        request.kind = DeviceAsk::Write;
        const LONG status = ReadCompanion(side, request.subject, &request.value);
        if (status != kDone) return status == kUnknownVariable ? TVS_E_UNKNOWN : status;
        request.subject.pop_back();
    } else if (request.subject.empty()) {
        return TVS_E_UNKNOWN;
    } else if (request.subject == names::kRefreshStatus) {
        request.kind = DeviceAsk::Refresh;
    }
    job.silent = !side.device.ask(side.device.self, request, side.now);
    if (side.device.answerLimitMs != INFINITE) job.limit = side.now + side.device.answerLimitMs;
    return kDone;
}

// Stores what the device has new, and tells the requester its answer. True: there was something.
bool TakeNews(PrinterSide& side, DWORD* next) {
    const DeviceNews news = side.device.take(side.device.self, side.now);
    *next = news.nextMs;
    StoreValues(side, news.changed);
    TellLink(side); // first, so that a requester that is told finds it
    for (const DeviceAnswer& answer : news.answers) {
        const LONG stored = StoreValues(side, answer.values);
        if (side.job && side.job->id == answer.id) FinishJob(side, answer.result != 0 ? answer.result : stored);
    }
    return !news.changed.empty() || !news.answers.empty();
}

void DropJob(PrinterSide& side) {
    side.device.drop(side.device.self, side.job->id);
    side.job.reset();
}

// A job that is not answered yet is dropped: its requester has given up, or ignores the printer's mutex. A late answer
// would be taken for the answer to the new request.
void BeginJob(PrinterSide& side, const Job& job) {
    if (side.job) {
        if (side.job->forwardId != 0 && side.job->forwardId != job.forwardId)
            Answer(side, {.forwardId = side.job->forwardId}, TVS_E_NOT_NOW);
        DropJob(side);
    }
    side.job = job;
    side.job->id = ++side.lastId;
    if (const LONG result = AskDevice(side); result != kDone) FinishJob(side, result);
    DWORD next = 0;
    TakeNews(side, &next); // many answers are there at once
}

// A job that is never answered is kept only to answer its requester when the printer side ends.
bool IsDue(const PrinterSide& side) {
    return side.job && !side.job->silent;
}

void BeginGrace(PrinterSide& side) {
    if (side.graceEnd == 0) side.graceEnd = side.now + kForwardGraceMs;
}

// Whether the variable was written since it was last checked.
bool IsNew(PrinterSide& side, DWORD which, DWORD* writes) {
    VariableInfo info = {};
    if (InfoOf(side.link, kRequestVariables[which], &info) != kDone) return false;
    *writes = info.writes;
    return info.writes != side.seen[which];
}

void CheckVariable(PrinterSide& side, RequestKind kind) {
    const DWORD which = VariableOf(kind);
    DWORD writes = 0;
    if (!IsNew(side, which, &writes)) return;
    if (side.forwarded) {
        BeginGrace(side);
        return;
    }
    side.seen[which] = writes;
    BeginJob(side, {.kind = kind, .writes = writes, .byVariable = true});
}

// A request that was already there at the end of the last grace will not be forwarded.
void EndGrace(PrinterSide& side) {
    side.graceEnd = 0;
    for (const RequestKind kind : {kReadRequest, kWriteRequest}) {
        const DWORD which = VariableOf(kind);
        DWORD writes = 0;
        if (!IsNew(side, which, &writes)) continue;
        if (side.unclaimed[which] != writes) {
            side.unclaimed[which] = writes;
            BeginGrace(side);
            continue;
        }
        side.seen[which] = writes;
        if (!IsDue(side) && SomebodyWaits(side.link))
            BeginJob(side, {.kind = kind, .writes = writes, .byVariable = true});
    }
}

// The request of a forwarded one may have been seen already, in its variable.
bool JoinsKnownRequest(PrinterSide& side, RequestKind kind, DWORD writes, DWORD id) {
    if (side.job && side.job->kind == kind && side.job->writes == writes && side.job->forwardId == 0) {
        side.job->forwardId = id;
        return true;
    }
    Carried& carried = side.carried;
    if (carried.kind != kind || carried.writes != writes || side.now - carried.at > kDoubledMs) return false;
    carried.kind = kNoRequest;
    Answer(side, {.forwardId = id}, carried.result);
    return true;
}

void CheckMailbox(PrinterSide& side) {
    Bytes value;
    ForwardedRequest request = {};
    if (ReadBytes(side.link, kForwardMailbox, &value) != kDone || value.size() != sizeof request) return;
    memcpy(&request, value.data(), sizeof request);
    if (request.id == 0 || request.id == side.mailboxId) return;
    side.mailboxId = request.id;
    const auto kind = static_cast<RequestKind>(request.kind);
    if (kind == kEndRequest) {
        SetEvent(side.stop);
        return;
    }
    Job job = {.kind = kind, .forwardId = request.id};
    if (kind == kReadRequest || kind == kWriteRequest) {
        const DWORD which = VariableOf(kind);
        if (!IsNew(side, which, &job.writes) && JoinsKnownRequest(side, kind, job.writes, request.id)) return;
        side.seen[which] = job.writes;
    }
    BeginJob(side, job);
}

void CheckTimes(PrinterSide& side) {
    if (side.job && side.job->limit != 0 && side.now >= side.job->limit) {
        side.device.drop(side.device.self, side.job->id);
        FinishJob(side, TVS_E_NOT_NOW);
    }
    if (side.graceEnd != 0 && side.now >= side.graceEnd) EndGrace(side);
}

// Where requests are forwarded, the event of a request variable is enough. Reading the variable would take the time in
// which the mailbox is written, and its pulse would be missed.
void OnRequestEvent(PrinterSide& side, RequestKind kind) {
    if (side.forwarded)
        BeginGrace(side);
    else
        CheckVariable(side, kind);
}

void CheckAll(PrinterSide& side) {
    side.forwarded = ReadNumberOf(side.link, names::kLMFunction) != 0;
    CheckMailbox(side);
    CheckVariable(side, kReadRequest);
    CheckVariable(side, kWriteRequest);
}

// Whether a manager of the polling kind is open, or was since the last look. Such a manager sets the variable, does not
// reset it, and holds its event open.
bool IsPollingWanted(PrinterSide& side) {
    if (ReadNumberOf(side.link, names::kCompulsivePolling) == 0) return false;
    if (HasEvent(side.link, names::kCompulsivePolling, VariableSignal::Updated)) return true;
    constexpr DWORD kOff = 0;
    WriteBytes(side.link, names::kCompulsivePolling, &kOff, sizeof kOff);
    return true;
}

// Somebody waits for a change of the printer's status, or asked for polling when it opened the printer.
void TendFollowers(PrinterSide& side) {
    if (!side.device.followed) return;
    const bool followed =
        IsPollingWanted(side) || std::any_of(std::begin(kFollowedVariables), std::end(kFollowedVariables),
                                             [&](const char* variable) { return IsWatched(side.link, variable); });
    side.device.followed(side.device.self, followed, side.now);
}

// ---- beginning and end of a connection

// A predecessor that was killed may have left a request unanswered: it was written after the last answer, and its
// requester still waits. All earlier requests are over. Write times have milliseconds. A request in the same one as the
// last answer counts as later, since a needless answer does less harm than a requester that waits forever.
void FindUnanswered(PrinterSide& side) {
    VariableInfo answer = {};
    const bool waits = SomebodyWaits(side.link) && InfoOf(side.link, names::kRWResult, &answer) == kDone;
    for (const DWORD which : {kWatchedRead, kWatchedWrite}) {
        VariableInfo info = {};
        if (InfoOf(side.link, kRequestVariables[which], &info) != kDone) return;
        const bool later = ToTime(info.writeTime) >= ToTime(answer.writeTime);
        const bool open = waits && later && !ReadTextOf(side.link, kRequestVariables[which]).empty();
        side.seen[which] = open ? info.writes - 1 : info.writes;
    }
}

void BeginService(PrinterSide& side) {
    if (side.job) DropJob(side);
    side.told.reset();
    side.carried = {};
    side.mailboxId = 0;
    side.graceEnd = 0;
    if (const QueueResult made = MakeQueues(side.link, side.queues, side.device.queues(side.device.self));
        made.status != kDone)
        Warn(side, "the queue \"" + made.variable + "\" cannot be made (" + std::to_string(made.status) + ")");
    if (!side.device.link(side.device.self).device.empty()) {
        const Bytes none = EmptyQueue();
        CreateQueue(side.link, kSuppliesVariable, none.data(), static_cast<DWORD>(none.size()));
    }
    FindUnanswered(side);
    std::copy(std::begin(side.seen), std::end(side.seen), side.unclaimed);
    std::vector<DeviceValue> values = side.device.state(side.device.self);
    side.linkUp = side.device.link(side.device.self).up;
    AddWhatIsMissing(side.options, side.linkUp, values);
    StoreValues(side, values);
    TellLink(side);
}

// Says that requests are no longer taken, and answers those that wait.
void EndService(PrinterSide& side) {
    if (side.link.lost) return;
    const DWORD extStatus = ReadNumberOf(side.link, names::kPrinterExtStatus) & ~TVS_EXT_STATUS_TAKES_REQUESTS;
    const DWORD spoolerStatus = ReadNumberOf(side.link, names::kSpoolerStatus) & ~kSpoolerUp;
    WriteBytes(side.link, names::kPrinterExtStatus, &extStatus, sizeof extStatus);
    WriteBytes(side.link, names::kSpoolerStatus, &spoolerStatus, sizeof spoolerStatus);
    if (side.told) {
        DeviceRecord record = *side.told;
        record.up = 0;
        SetText(record.trouble, kPrinterSideEnded);
        StoreRecord(side, record, false);
    }
    if (side.job) Answer(side, *side.job, TVS_E_NOT_NOW);
    // A request may have been made since the last check. Later ones wait for the next printer side. The service answers
    // those in the mailbox when the watch ends.
    for (const RequestKind kind : {kReadRequest, kWriteRequest}) {
        DWORD writes = 0;
        if (IsNew(side, VariableOf(kind), &writes) && SomebodyWaits(side.link))
            Answer(side, {.kind = kind, .writes = writes, .byVariable = true}, TVS_E_NOT_NOW);
    }
}

// ---- the loop

void WatchEvents(PrinterSide& side, SignalWait& signals) {
    for (DWORD which = 0; which < kWatchedCount; ++which)
        signals.SetEvent(which, side.link.events[which]);
    signals.SetEvent(kWatchedCount, side.jobs->pagesOut);
    signals.SetEvent(kWatchedCount + 1, side.device.ready);
    signals.SetEvent(kWatchedCount + 2, side.jobs->serverTold);
    // The last service may have had another event of that name: when the system has lost all names.
    side.serviceStarted =
        KernelHandle(OpenEventA(SYNCHRONIZE, FALSE, ObjectName(side.link.terminalServer, kServiceStartedName).text));
    signals.SetStarted(side.serviceStarted.Get());
}

void HandleSignal(PrinterSide& side, DWORD which) {
    switch (which) {
    case kWatchedRead:
        OnRequestEvent(side, kReadRequest);
        break;
    case kWatchedWrite:
        OnRequestEvent(side, kWriteRequest);
        break;
    case kWatchedMailbox:
        CheckMailbox(side);
        TendFollowers(side); // the service signals them here too
        break;
    case kWatchedFunction:
        side.forwarded = ReadNumberOf(side.link, names::kLMFunction) != 0;
        break;
    default:
        break;
    }
}

// False: stop was set.
bool WaitForWork(PrinterSide& side, SignalWait& signals, DWORD wait) {
    const Woken woken = signals.Wait(wait);
    UpdateClock(side);
    if (woken == Woken::Stopped) return false;
    if (woken == Woken::Failed) side.link.lost = true; // the handles are invalid: the next connection has new ones
    if (woken == Woken::Started) CheckAll(side);       // a new service does not know the link
    if (woken != Woken::Signalled) return true;
    DWORD next = 0;
    bool any = false;
    for (DWORD which = 0; which < kWatchedCount; ++which) {
        const Signals since = signals.Take(which);
        if (since.pulses == 0 && !since.isSet) continue;
        any = true;
        // The service only pulses. Whoever left the event set would keep this loop from ever waiting.
        if (since.isSet) ResetEvent(side.link.events[which]);
        HandleSignal(side, which);
    }
    if (TakeServerNews(*side.jobs) && side.device.look) side.device.look(side.device.self);
    if (const DWORD pages = TakePagesOut(*side.jobs); pages > 0)
        StoreValues(side, side.device.pagesOut(side.device.self, pages));
    else if (!any && !TakeNews(side, &next))
        CheckAll(side); // woken to look for a pulse that was missed
    return true;
}

DWORD Until(const PrinterSide& side, ULONGLONG due) {
    return due > side.now ? static_cast<DWORD>(std::min<ULONGLONG>(due - side.now, kLookMs)) : 0;
}

// Returns true when the link is lost, false when stop was set.
bool ServeLink(PrinterSide& side) {
    SignalWait signals(side.stop);
    WatchEvents(side, signals);
    const DWORD look = side.serviceStarted ? kLookMs : kDeafLookMs;
    ULONGLONG lookAt = side.now + look, askAt = side.now + kAskMs;
    CheckAll(side); // what was written before
    TendFollowers(side);
    while (!side.link.lost) {
        DWORD next = kNothingDue;
        TakeNews(side, &next);
        if (side.device.pageMs) SetPace(*side.jobs, side.device.pageMs(side.device.self));
        CheckTimes(side);
        DWORD wait = std::min(next, Until(side, lookAt));
        if (side.job && side.job->limit != 0) wait = std::min(wait, Until(side, side.job->limit));
        if (side.graceEnd != 0) wait = std::min(wait, Until(side, side.graceEnd));
        if (!side.queues.waiting.empty()) wait = std::min(wait, kQueueRetryMs);
        if (!WaitForWork(side, signals, wait)) return false;
        if (side.now < lookAt) continue;
        lookAt = side.now + look;
        if (side.now >= askAt) {
            AskService(side.link);
            askAt = side.now + kAskMs;
        }
        CheckAll(side);
        TendFollowers(side);
    }
    return true;
}

// Returns when stop was set.
void Serve(PrinterSide& side) {
    const Device& device = side.device;
    DWORD retry = kFirstRetryMs;
    bool goOn = true;
    while (goOn) {
        UpdateClock(side);
        // State() gives values again at the next connection. Items are given once. Nobody waits for an answer.
        for (const DeviceValue& value : device.take(device.self, side.now).changed)
            if (value.item) AddItem(side.queues, value);
        const std::string failure = Connect(side.link);
        if (failure.empty()) {
            BeginService(side);
            ReportAgain(*side.jobs);
            retry = kFirstRetryMs;
            goOn = ServeLink(side);
            if (!goOn) EndService(side);
        } else if (retry == kLongestRetryMs) { // not at once: when the product starts this is normal
            Warn(side, failure + "; waiting");
        }
        Disconnect(side.link);
        if (goOn && WaitForSingleObject(side.stop, retry) == WAIT_OBJECT_0) goOn = false;
        retry = std::min(retry + retry / 2, kLongestRetryMs);
    }
}

} // namespace

bool ServePrinter(const PrinterSideOptions& options, const Device& device, HANDLE stop) {
    PrinterSide side{.options = options, .device = device, .stop = stop, .link = {.printer = options.printer}};
    side.jobs = StartJobs(options.printer, stop,
                          options.ofPrintServer ? JobDuty::Follow
                          : device.pageMs       ? JobDuty::Print
                                                : JobDuty::Report);
    if (!side.jobs) return false;
    Serve(side);
    EndJobs(side.jobs);
    CloseQueues(side.queues);
    return true;
}
