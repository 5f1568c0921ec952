// Waiting calls lie on the stacks of the threads that serve them. State beside the databases': the time limit, whether
// the service ends, and a copy of the printer list as it was read last.
#include "forwarding.h"

#include "clock.h"
#include "signals.h"

#include "dblink/printer_list.h"

#include <algorithm>
#include <new>
#include <string.h>
#include <vector>

using namespace dblink;

struct ForwardedCall {
    ForwardedCall* next = nullptr;
    RequestKind kind;
    HANDLE answered; // set with result
    DWORD id = 0;    // while it is in the mailbox
    LONG result = kNoAnswer;
    bool waiting = true; // in the queue
};

namespace {

constexpr char kSettingsKey[] = "SOFTWARE\\Tavik\\Oriel";
constexpr char kLimitValue[] = "ForwardLimit"; // milliseconds
// As long as an asynchronous request waits for its printer side.
constexpr DWORD kDefaultLimitMs = 60000;
constexpr DWORD kShortestLimitMs = 10;
constexpr DWORD kLongestLimitMs = 600000;

DWORD g_limitMs = kDefaultLimitMs;
std::atomic<bool> g_ending = false;

// ---- the printer list: which database a printer has

struct ListCopy {
    const Variable* variable = nullptr;
    DWORD sequence = 0;
    std::vector<BYTE> bytes;
};

Lock g_listLock;
ListCopy g_list GUARDED_BY(g_listLock);

// The list as it is now. Any client may have written anything there: only whole entries are looked at.
bool RefreshList() NEEDS(g_listLock) {
    const Database* master = FindDatabase(kMasterDatabase);
    if (!master || master->state.load(std::memory_order_acquire) != DatabaseState::Ready) return false;
    const Variable* variable = FindVariable(*master, kPrinterListVariable);
    if (!variable || variable->type == kTypeComposite) return false;
    for (;;) {
        // A count taken before the value is never ahead of it: what is read may be newer, and is then read once more.
        const DWORD sequence = SequenceBegin(*variable);
        if (g_list.variable == variable && g_list.sequence == sequence) return true;
        const ValueState state = ReadValue(*variable, g_list.bytes.data(), static_cast<DWORD>(g_list.bytes.size()));
        const bool fits = state.size <= g_list.bytes.size();
        g_list.variable = nullptr;
        try {
            g_list.bytes.resize(state.size);
        } catch (const std::bad_alloc&) {
            return false;
        }
        if (!fits) continue; // with room for it now
        g_list.variable = variable;
        g_list.sequence = sequence;
        return true;
    }
}

// Null: the printer has none that can be used.
Database* DatabaseOfPrinter(std::string_view printer) {
    LockHold hold{g_listLock};
    if (!RefreshList()) return nullptr;
    Database* database = FindDatabase(DatabaseInPrinterList(g_list.bytes.data(), g_list.bytes.size(), printer));
    return database && database->state.load(std::memory_order_acquire) == DatabaseState::Ready ? database : nullptr;
}

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

// Puts the first call's request into the mailbox, or none. That the mailbox was emptied tells a printer side that comes
// later what it need not do, and the one that is there nothing: it is not signalled.
void PostFirst(Database& database) NEEDS(database.forwarding.lock) {
    Variable* mailbox = FindVariable(database, kForwardMailbox);
    if (!mailbox) return;
    ForwardedCall* call = database.forwarding.first;
    if (!call) {
        StoreInMailbox(database, *mailbox, {});
        return;
    }
    DWORD& id = database.forwarding.lastId;
    if (++id == 0) ++id;
    call->id = id;
    StoreInMailbox(database, *mailbox, {call->id, call->kind});
    SignalWritten(database, *mailbox, true);
}

void TakeOut(Forwarding& forwarding, ForwardedCall& call) NEEDS(forwarding.lock) {
    ForwardedCall* before = nullptr;
    if (forwarding.first != &call)
        for (before = forwarding.first; before->next != &call;)
            before = before->next;
    (before ? before->next : forwarding.first) = call.next;
    if (forwarding.last == &call) forwarding.last = before;
    call.waiting = false;
}

void Finish(Forwarding& forwarding, ForwardedCall& call, LONG result) NEEDS(forwarding.lock) {
    TakeOut(forwarding, call);
    call.result = result;
    SetEvent(call.answered); // its thread goes on when it gets the lock
}

void FailAll(Database& database) NEEDS(database.forwarding.lock) {
    if (!database.forwarding.first) return;
    while (database.forwarding.first)
        Finish(database.forwarding, *database.forwarding.first, kNoPrinterSide);
    PostFirst(database);
}

bool Enter(Database& database, ForwardedCall& call) {
    LockHold hold{database.forwarding.lock};
    if (g_ending.load() || !MailboxOf(database)) return false;
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

ForwardingRole ForwardingRoleOf(std::string_view name) {
    if (name == kForwardMailbox) return ForwardingRole::Mailbox;
    if (name == kForwardAnswer) return ForwardingRole::Answer;
    return ForwardingRole::None;
}

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
    if (!MailboxOf(database)) FailAll(database);
}

void InitialiseForwarding() {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kSettingsKey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS) return;
    DWORD type = 0;
    DWORD limit = 0;
    DWORD size = sizeof limit;
    const LSTATUS status = RegQueryValueExA(key, kLimitValue, nullptr, &type, reinterpret_cast<BYTE*>(&limit), &size);
    RegCloseKey(key);
    if (status == ERROR_SUCCESS && type == REG_DWORD && size == sizeof limit)
        g_limitMs = std::clamp(limit, kShortestLimitMs, kLongestLimitMs);
}

void EndForwarding() {
    g_ending.store(true);
    ForEachDatabase([](Database& database) {
        LockHold hold{database.forwarding.lock};
        FailAll(database);
    });
}
