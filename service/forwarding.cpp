// A waiting call is a record on the stack of the thread that serves it. State, besides the databases': the time limit,
// whether the service ends, and the thread that answers when a printer side has no successor.
#include "forwarding.h"

#include "printers.h"
#include "settings.h"
#include "signals.h"

#include "product/device_record.h"
#include "product/variable_names.h"

#include <tvsqdz.h>

#include <algorithm>
#include <string.h>

using namespace product;

struct ForwardedCall {
    ForwardedCall* next = nullptr;
    RequestKind kind;
    HANDLE answered; // set with result
    DWORD id = 0;    // while it is in the mailbox
    LONG result = kNoAnswer;
    bool waiting = true; // in the queue
};

namespace {

constexpr char kLimitValue[] = "ForwardLimit"; // milliseconds
// As long as an asynchronous request waits for its printer side.
constexpr DWORD kDefaultLimitMs = 60000;
constexpr DWORD kShortestLimitMs = 10;
constexpr DWORD kLongestLimitMs = 600000;

// Longer than the first restart of a printer side takes.
constexpr DWORD kSuccessorMs = 2000;

DWORD g_limitMs = kDefaultLimitMs;
HANDLE g_successorAwaited = nullptr; // auto-reset
HANDLE g_stop = nullptr;
HANDLE g_thread = nullptr;
std::atomic<bool> g_ending = false;

// ---- the mailbox

// Null: no printer side made the mailbox, or none watches it now.
Variable* MailboxOf(const Database& database) {
    Variable* mailbox = FindVariable(database, kForwardMailbox);
    const VariableSignals* signals = mailbox ? mailbox->signals.load(std::memory_order_acquire) : nullptr;
    return signals && signals->watchCount.load() > 0 ? mailbox : nullptr;
}

// Cannot fail and charges nobody: the value is as large as its block.
void StoreInMailbox(Database& database, Variable& mailbox, const ForwardedRequest& request) {
    BYTE bytes[sizeof request];
    memcpy(bytes, &request, sizeof request);
    bool changed = false;
    WriteValue(mailbox, database.store, *database.account, bytes, sizeof bytes, &changed);
}

DWORD NextId(Forwarding& forwarding) REQUIRES(forwarding.lock) {
    if (++forwarding.lastId == 0) ++forwarding.lastId;
    return forwarding.lastId;
}

// Puts the first call's request into the mailbox, or empties it. An empty mailbox tells a later printer side that there
// is nothing to do. The present one need not know, so it is not signalled.
void PostFirst(Database& database) REQUIRES(database.forwarding.lock) {
    Variable* mailbox = FindVariable(database, kForwardMailbox);
    if (!mailbox) return;
    ForwardedCall* call = database.forwarding.first;
    if (!call) {
        StoreInMailbox(database, *mailbox, {});
        return;
    }
    call->id = NextId(database.forwarding);
    StoreInMailbox(database, *mailbox, {call->id, call->kind});
    SignalWritten(database, Written{mailbox, true});
}

void TakeOut(Forwarding& forwarding, ForwardedCall& call) REQUIRES(forwarding.lock) {
    ForwardedCall* before = nullptr;
    if (forwarding.first != &call)
        for (before = forwarding.first; before->next != &call;)
            before = before->next;
    (before ? before->next : forwarding.first) = call.next;
    if (forwarding.last == &call) forwarding.last = before;
    call.waiting = false;
}

void Finish(Forwarding& forwarding, ForwardedCall& call, LONG result) REQUIRES(forwarding.lock) {
    TakeOut(forwarding, call);
    call.result = result;
    SetEvent(call.answered); // its thread continues once it has the lock
}

void FailAll(Database& database) REQUIRES(database.forwarding.lock) {
    if (!database.forwarding.first) return;
    while (database.forwarding.first)
        Finish(database.forwarding, *database.forwarding.first, kNoPrinterSide);
    PostFirst(database);
}

// ---- a printer side that is gone

// Bits that say that requests are taken. A printer side that was killed could not clear them.
struct TakingBits {
    std::string_view variable;
    DWORD bits;
};
constexpr TakingBits kTakingBits[] = {{names::kPrinterExtStatus, 0x1}, {names::kSpoolerStatus, 0xC}};

constexpr LONG kUnavailable = TVS_E_NOT_NOW; // the result that a printer side gives when it stops

// A value that is as large as its block.
template <typename Value>
void StoreAndSignal(Database& database, Variable& variable, const Value& value) {
    BYTE bytes[sizeof value];
    memcpy(bytes, &value, sizeof value);
    bool changed = false;
    if (CheckValueSize(variable, sizeof bytes) != kDone) return;
    WriteValue(variable, database.store, *database.account, bytes, sizeof bytes, &changed);
    SignalWritten(database, Written{&variable, changed});
}

void ClearBits(Database& database, std::string_view name, DWORD bits) {
    Variable* variable = FindVariable(database, name);
    if (!variable || variable->type != kTypeNumber) return;
    DWORD number = 0;
    BYTE bytes[sizeof number] = {};
    if (ReadValue(*variable, bytes, sizeof bytes).size != sizeof bytes) return;
    memcpy(&number, bytes, sizeof number);
    if ((number & bits) != 0) StoreAndSignal(database, *variable, number & ~bits);
}

void EndDevice(Database& database) {
    Variable* variable = FindVariable(database, kDeviceVariable);
    if (!variable || variable->type != kTypeRecord) return;
    DeviceRecord record{};
    BYTE bytes[sizeof record] = {};
    if (ReadValue(*variable, bytes, sizeof bytes).size != sizeof bytes) return;
    memcpy(&record, bytes, sizeof record);
    if (record.version != kDeviceRecordVersion) return;
    const bool said = memcmp(record.trouble, kPrinterSideEnded, sizeof kPrinterSideEnded) == 0;
    if (record.up == 0 && said) return;
    record.up = 0;
    memset(record.trouble, 0, sizeof record.trouble);
    memcpy(record.trouble, kPrinterSideEnded, sizeof kPrinterSideEnded);
    StoreAndSignal(database, *variable, record);
}

// A watcher of "RWResult" waits for the answer to a request that was written after the last answer. Write times have
// milliseconds. A request in the same one as the last answer counts as open, since a needless answer does less harm
// than a program that waits forever.
void AnswerOpenRequest(Database& database) {
    Variable* result = FindVariable(database, names::kRWResult);
    if (!result || result->type != kTypeNumber) return;
    const VariableSignals* signals = result->signals.load(std::memory_order_acquire);
    if (!signals || signals->watchCount.load() == 0) return;
    const ULONGLONG answered = ReadWriteTime(*result);
    for (const std::string_view name : {names::kReadRequest, names::kWriteRequest}) {
        const Variable* request = FindVariable(database, name);
        if (!request || request->type == kTypeComposite || ReadWriteTime(*request) < answered) continue;
        StoreAndSignal(database, *result, kUnavailable);
        return;
    }
}

// Gives a printer side that is restarted, or stands by, some time to carry the request out.
void AwaitSuccessor(Database& database) REQUIRES(database.forwarding.lock) {
    if (database.forwarding.awaitsSuccessor) return;
    database.forwarding.awaitsSuccessor = true;
    database.forwarding.successorDue = GetTickCount() + std::min(kSuccessorMs, g_limitMs);
    SetEvent(g_successorAwaited);
}

// Answers the open request of a database whose time for a successor is over. *wait is lowered to the time left.
void EndAwaiting(Database& database, DWORD* wait) {
    LockHold hold{database.forwarding.lock};
    if (!database.forwarding.awaitsSuccessor) return;
    const DWORD now = GetTickCount();
    if (!TickReached(now, database.forwarding.successorDue)) {
        *wait = std::min(*wait, database.forwarding.successorDue - now);
        return;
    }
    database.forwarding.awaitsSuccessor = false;
    if (!MailboxOf(database)) AnswerOpenRequest(database);
}

DWORD WINAPI SuccessorThread(LPVOID) {
    const HANDLE handles[] = {g_stop, g_successorAwaited};
    DWORD wait = INFINITE;
    while (WaitForMultipleObjects(2, handles, FALSE, wait) != WAIT_OBJECT_0) {
        wait = INFINITE;
        ForEachDatabase([&wait](Database& database) { EndAwaiting(database, &wait); });
    }
    return 0;
}

bool Enter(Database& database, ForwardedCall& call) {
    LockHold hold{database.forwarding.lock};
    if (g_ending.load() || database.forwarding.ending || !MailboxOf(database)) return false;
    (database.forwarding.last ? database.forwarding.last->next : database.forwarding.first) = &call;
    database.forwarding.last = &call;
    if (database.forwarding.first == &call) PostFirst(database);
    return true;
}

// The call timed out. The answer may have come just now.
void Leave(Database& database, ForwardedCall& call) {
    LockHold hold{database.forwarding.lock};
    if (!call.waiting) return;
    const bool wasPosted = database.forwarding.first == &call;
    TakeOut(database.forwarding, call);
    if (wasPosted) PostFirst(database);
}

LONG ForwardToPrinter(RequestKind kind, std::string_view printer) {
    Database* database = DatabaseOfPrinter(printer);
    if (!database) return kNoPrinterSide;
    ForwardedCall call{.kind = kind, .answered = CreateEventA(nullptr, TRUE, FALSE, nullptr)};
    if (!call.answered) return kOutOfMemory;
    LONG result = kNoPrinterSide;
    if (Enter(*database, call)) {
        WaitForSingleObject(call.answered, g_limitMs);
        Leave(*database, call);
        result = call.result;
    }
    CloseHandle(call.answered);
    return result;
}

} // namespace

bool IsForwardingForm(DatabaseType type, const BYTE* bytes, DWORD size) {
    return type == kTypeRecord && size == sizeof(ForwardedRequest) &&
           std::all_of(bytes, bytes + size, [](BYTE byte) { return byte == 0; });
}

LONG ForwardRequest(std::string_view request) {
    struct KindRow {
        std::string_view prefix;
        RequestKind kind;
    };
    constexpr KindRow kKinds[] = {
        {"ReadRequest:", kReadRequest}, {"WriteRequest:", kWriteRequest}, {"Refresh:", kRefreshRequest}};
    if (request.size() > kRequestTextMax) return kBadArgument;
    for (const KindRow& row : kKinds)
        if (request.size() > row.prefix.size() && request.starts_with(row.prefix))
            return ForwardToPrinter(row.kind, request.substr(row.prefix.size()));
    return kBadArgument;
}

void TakeAnswer(Database& database, const BYTE* bytes, DWORD size) {
    ForwardedAnswer answer;
    if (size != sizeof answer) return;
    memcpy(&answer, bytes, sizeof answer);
    LockHold hold{database.forwarding.lock};
    // An answer that comes too late, or for another request, has another id.
    ForwardedCall* call = database.forwarding.first;
    if (!call || call->id != answer.id) return;
    Finish(database.forwarding, *call, answer.result);
    PostFirst(database);
}

void PrinterSideIsGone(Database& database) {
    LockHold hold{database.forwarding.lock};
    // Another printer side may have come meanwhile. It finds the request in the mailbox.
    if (MailboxOf(database)) return;
    const bool wasAsked = database.forwarding.ending;
    database.forwarding.ending = false;
    if (wasAsked && !database.forwarding.first) PostFirst(database); // its successor is not asked to end
    FailAll(database);
    for (const TakingBits& row : kTakingBits)
        ClearBits(database, row.variable, row.bits);
    EndDevice(database);
    AwaitSuccessor(database);
}

void WakePrinterSide(const Database& database) {
    if (const Variable* mailbox = MailboxOf(database))
        SignalUnwritten(*mailbox->signals.load(std::memory_order_acquire));
}

void AnswerUnserved(Database& database) {
    // Without a mailbox there was no printer side of ours; another program may serve the request.
    if (!FindVariable(database, kForwardMailbox)) return;
    LockHold hold{database.forwarding.lock};
    if (!MailboxOf(database)) AwaitSuccessor(database);
}

void EndPrinterSides() {
    ForEachDatabase([](Database& database) {
        if (database.state.load(std::memory_order_acquire) != DatabaseState::Ready) return;
        LockHold hold{database.forwarding.lock};
        Variable* mailbox = MailboxOf(database);
        if (!mailbox) return;
        FailAll(database);
        database.forwarding.ending = true;
        StoreInMailbox(database, *mailbox, {NextId(database.forwarding), kEndRequest});
        SignalWritten(database, Written{mailbox, true});
    });
}

bool StartForwarding() {
    DWORD limit = 0;
    if (ReadSetting(kLimitValue, REG_DWORD, &limit, sizeof limit))
        g_limitMs = std::clamp(limit, kShortestLimitMs, kLongestLimitMs);
    g_successorAwaited = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    g_stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (!g_successorAwaited || !g_stop) return false;
    g_thread = CreateThread(nullptr, 0, SuccessorThread, nullptr, 0, nullptr);
    return g_thread != nullptr;
}

void EndForwarding() {
    g_ending.store(true);
    ForEachDatabase([](Database& database) {
        LockHold hold{database.forwarding.lock};
        FailAll(database);
    });
}

void StopForwarding() {
    if (g_thread) {
        SetEvent(g_stop);
        WaitForSingleObject(g_thread, INFINITE); // bounded: the thread waits for no client
    }
    for (HANDLE handle : {g_thread, g_stop, g_successorAwaited})
        if (handle) CloseHandle(handle);
}
