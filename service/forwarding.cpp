// Waiting calls lie on the stacks of the threads that serve them. State beside the databases': the time limit, whether
// the service ends, and the thread that answers for a printer side that has no successor.
#include "forwarding.h"

#include "printers.h"
#include "settings.h"
#include "signals.h"

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
HANDLE g_successorAwaited = nullptr; // automatic
HANDLE g_stop = nullptr;
HANDLE g_thread = nullptr;
std::atomic<bool> g_ending = false;

// ---- the mailbox

// Null: no printer side ever made it, or none watches it now.
Variable* MailboxOf(const Database& database) {
    Variable* mailbox = FindVariable(database, kForwardMailbox);
    const VariableSignals* signals = mailbox ? mailbox->signals.load(std::memory_order_acquire) : nullptr;
    return signals && signals->watchCount.load() > 0 ? mailbox : nullptr;
}

// Never fails, and nobody is charged: the value's size is that of its block.
void StoreInMailbox(Database& database, Variable& mailbox, const ForwardedRequest& request) {
    BYTE bytes[sizeof request];
    memcpy(bytes, &request, sizeof request);
    bool changed = false;
    WriteValue(mailbox, database.arena, *database.account, bytes, sizeof bytes, &changed);
}

DWORD NextId(Forwarding& forwarding) REQUIRES(forwarding.lock) {
    if (++forwarding.lastId == 0) ++forwarding.lastId;
    return forwarding.lastId;
}

// Puts the first call's request into the mailbox, or none. That the mailbox was emptied tells a printer side that comes
// later what it need not do, and the one that is there nothing: it is not signalled.
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
    SetEvent(call.answered); // its thread goes on when it gets the lock
}

void FailAll(Database& database) REQUIRES(database.forwarding.lock) {
    if (!database.forwarding.first) return;
    while (database.forwarding.first)
        Finish(database.forwarding, *database.forwarding.first, kNoPrinterSide);
    PostFirst(database);
}

// ---- a printer side that is gone

// Bits that say that requests are taken, which whoever took them cannot take back any more.
struct TakingBits {
    std::string_view variable;
    DWORD bits;
};
constexpr TakingBits kTakingBits[] = {{names::kPrinterExtStatus, 0x1}, {names::kSpoolerStatus, 0xC}};

constexpr LONG kUnavailable = TVS_E_NOT_NOW; // what a printer side answers when it stops

void StoreNumber(Database& database, Variable& variable, DWORD number) {
    BYTE bytes[sizeof number];
    memcpy(bytes, &number, sizeof number);
    bool changed = false;
    if (CheckValueSize(variable, sizeof number) != kDone) return;
    WriteValue(variable, database.arena, *database.account, bytes, sizeof bytes, &changed); // as large as the block
    SignalWritten(database, Written{&variable, changed});
}

void ClearBits(Database& database, std::string_view name, DWORD bits) {
    Variable* variable = FindVariable(database, name);
    if (!variable || variable->type != kTypeNumber) return;
    DWORD number = 0;
    BYTE bytes[sizeof number] = {};
    if (ReadValue(*variable, bytes, sizeof bytes).size != sizeof bytes) return;
    memcpy(&number, bytes, sizeof number);
    if ((number & bits) != 0) StoreNumber(database, *variable, number & ~bits);
}

// Whoever watches "RWResult" waits for the answer to the request that was written since the last one. Times tell
// milliseconds: a request within that of the last answer counts as open, for the worse would be that somebody waits for
// good.
void AnswerOpenRequest(Database& database) {
    Variable* result = FindVariable(database, names::kRWResult);
    if (!result || result->type != kTypeNumber) return;
    const VariableSignals* signals = result->signals.load(std::memory_order_acquire);
    if (!signals || signals->watchCount.load() == 0) return;
    const ULONGLONG answered = ReadWriteTime(*result);
    for (const std::string_view name : {names::kReadRequest, names::kWriteRequest}) {
        const Variable* request = FindVariable(database, name);
        if (!request || request->type == kTypeComposite || ReadWriteTime(*request) < answered) continue;
        StoreNumber(database, *result, static_cast<DWORD>(kUnavailable));
        return;
    }
}

// A printer side that is started again, or stood by, carries the request out. How long one is waited for.
void AwaitSuccessor(Database& database) REQUIRES(database.forwarding.lock) {
    if (database.forwarding.awaitsSuccessor) return;
    database.forwarding.awaitsSuccessor = true;
    database.forwarding.successorDue = GetTickCount() + std::min(kSuccessorMs, g_limitMs);
    SetEvent(g_successorAwaited);
}

// Answers for a database whose time is over; *wait: until that of another is, at most.
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

// The time is over; the answer may have come in this very moment.
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
    // One that comes too late, or for another request, has another number.
    ForwardedCall* call = database.forwarding.first;
    if (!call || call->id != answer.id) return;
    Finish(database.forwarding, *call, answer.result);
    PostFirst(database);
}

void PrinterSideIsGone(Database& database) {
    LockHold hold{database.forwarding.lock};
    // Another may have come meanwhile: it finds the request in the mailbox.
    if (MailboxOf(database)) return;
    const bool wasAsked = database.forwarding.ending;
    database.forwarding.ending = false;
    if (wasAsked && !database.forwarding.first) PostFirst(database); // its successor is not asked to end
    FailAll(database);
    for (const TakingBits& row : kTakingBits)
        ClearBits(database, row.variable, row.bits);
    AwaitSuccessor(database);
}

void AnswerUnserved(Database& database) {
    // Where no printer side of ours has been, another kind may serve the request.
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
        WaitForSingleObject(g_thread, INFINITE); // it waits for no client
    }
    for (HANDLE handle : {g_thread, g_stop, g_successorAwaited})
        if (handle) CloseHandle(handle);
}
