// The exchange on both paths. No state: a request in progress is in the printer's database.
#include "requests/exchange.h"

#include "base/timings.h"
#include "machine/objects.h"
#include "machine/process_state.h"
#include "manager/variable_index.h"
#include "product/file_times.h"
#include "product/guards.h"
#include "product/signal_wait.h"
#include "product/variable_names.h"
#include "values/user_authority.h"

#include <stdio.h>
#include <string.h>

namespace {

constexpr char kRefresh[] = "Refresh";

struct ForwardText {
    char text[product::kRequestTextMax + 1];
};

// When the service does not know the handle, it is not the one with which the request began.
Status Ended(Answer answer) {
    return PassOn(answer == Answer::UnknownDatabase ? Answer::CallFailed : answer);
}

const char* MailboxOf(RequestKind kind) {
    return kind == RequestKind::Read ? names::kReadRequest : names::kWriteRequest;
}

Answer WriteText(DatabaseHandle database, const char* variable, const char* text) {
    return WriteVariable(database, variable, text, static_cast<DWORD>(strlen(text) + 1));
}

// The name in a request: for a write the companion, which carries the value.
struct RequestText {
    RequestText(RequestKind kind, const char* variableName) {
        const char* name = kind == RequestKind::Refresh ? names::kRefreshStatus : variableName;
        snprintf(text, sizeof text, "%s%s", name, kind == RequestKind::Write ? "W" : "");
    }
    char text[product::kVariableNameMax + 2]; // the service refuses longer names
};

Answer PostRequest(const PrinterRequest& request) {
    return WriteText(request.printerDatabase, MailboxOf(request.kind),
                     RequestText(request.kind, request.variableName).text);
}

// A watch on the result, ended by the destructor.
struct ResultWatch {
    explicit ResultWatch(DatabaseHandle database) : m_database(database) {
        // Without the watch the result is still checked from time to time.
        m_set = WatchVariable(database, names::kRWResult, product::kEveryWrite) == Answer::Done;
    }
    ~ResultWatch() {
        if (m_set) UnwatchVariable(m_database, names::kRWResult);
    }
    ResultWatch(const ResultWatch&) = delete;
    ResultWatch& operator=(const ResultWatch&) = delete;

private:
    DatabaseHandle m_database;
    bool m_set;
};

DWORD Smaller(DWORD a, DWORD b) {
    return a < b ? a : b;
}

// Waits until the write count of the result differs from the given one. It also looks after each slice: the service may
// have ended, or the library be about to be unloaded.
Status AwaitResult(DatabaseHandle database, HANDLE event, product::SignalWait& signals, DWORD writesBefore,
                   DWORD boundMs) {
    const DWORD start = GetTickCount();
    const DWORD slice = g_timings.answerLook;
    for (;;) {
        const DWORD waited = GetTickCount() - start;
        const bool isLast = boundMs != INFINITE && waited >= boundMs;
        const DWORD left = boundMs == INFINITE ? slice : Smaller(slice, isLast ? 0 : boundMs - waited);
        signals.Wait(left);
        DWORD writes = 0;
        if (const Answer answer = GetWriteCount(database, names::kRWResult, &writes); answer != Answer::Done)
            return Ended(answer);
        if (writes != writesBefore) return TVS_OK;
        if (isLast || !CallsAreLetIn()) return TVS_E_REQUEST_LOCK;
        if (signals.Take(0).isSet) ResetEvent(event); // somebody left it set
    }
}

bool WriteTimeOf(DatabaseHandle database, const char* name, ULONGLONG* time) {
    SYSTEMTIME written;
    if (GetWriteTime(database, name, &written) != Answer::Done) return false;
    *time = product::ToTime(written);
    return *time != 0;
}

bool MayBeUnanswered(DatabaseHandle database) {
    ULONGLONG read = 0;
    ULONGLONG write = 0;
    ULONGLONG result = 0;
    return WriteTimeOf(database, names::kReadRequest, &read) && WriteTimeOf(database, names::kWriteRequest, &write) &&
           WriteTimeOf(database, names::kRWResult, &result) && (read >= result || write >= result);
}

// The previous requester died with the mutex. Its answer may still come, and must not be taken for ours.
void AwaitLateAnswer(DatabaseHandle database) {
    const DWORD start = GetTickCount();
    while (MayBeUnanswered(database) && CallsAreLetIn() && GetTickCount() - start < g_timings.lateAnswerBound)
        Sleep(g_timings.lateAnswerPause);
}

Status ReadResult(DatabaseHandle database) {
    int32_t result = 0;
    DWORD size = 0;
    const Answer answer = ReadVariable(database, names::kRWResult, &result, sizeof result, &size);
    return answer == Answer::Done ? result : Ended(answer);
}

} // namespace

PrinterRequest RequestOf(const ManagerRecord* manager, RequestKind kind, const char* variableName) {
    return {.printerDatabase = manager->printerDatabase.handle,
            .databaseName = CurrentDatabaseName(manager),
            .kind = kind,
            .variableName = variableName};
}

RequestKind WriteKindOf(const char* variableName) {
    return strcmp(variableName, names::kRefreshStatus) == 0 ? RequestKind::Refresh : RequestKind::Write;
}

bool FitsMailbox(const ManagerRecord* manager, RequestKind kind, const StatusVariableDef& variable) {
    const StatusVariableDef* mailbox = FindStatusVariable(manager, MailboxOf(kind));
    return mailbox != nullptr && strlen(RequestText(kind, variable.name).text) < mailbox->size;
}

CallerValue::Bytes BytesToPlace(const StatusVariableDef& variable, CallerValue& value) {
    const bool isRefresh = WriteKindOf(variable.name) == RequestKind::Refresh;
    return isRefresh ? value.Text() : value.Stored((variable.flags & SVT_VARIABLE) != 0);
}

Status CheckPlace(const ManagerDatabase& printerDatabase, const StatusVariableDef& variable,
                  const CallerValue::Bytes& bytes) {
    if (WriteKindOf(variable.name) == RequestKind::Refresh)
        return SpoolerTakesRefreshes(printerDatabase) ? TVS_OK : TVS_E_NOT_NOW;
    // The companion is made by the first write to it, and takes what the variable itself takes.
    product::VariableInfo info = {};
    if (GetVariableInfo(printerDatabase, variable.name, &info) != Answer::Done) return TVS_E_UNKNOWN;
    const bool sizeIsFixed = info.type <= product::kTypeNumber || info.type == product::kTypeRecord;
    return !sizeIsFixed || info.size == bytes.size ? TVS_OK : TVS_E_UNKNOWN;
}

Status PlaceBytes(const ManagerDatabase& printerDatabase, const char* variableName, const CallerValue::Bytes& bytes,
                  DWORD* writes) {
    const RequestKind kind = WriteKindOf(variableName);
    const RequestText place(kind, variableName);
    const Answer answer = WriteVariable(printerDatabase, place.text, bytes.data, bytes.size);
    if (writes != nullptr && GetWriteCount(printerDatabase, place.text, writes) != Answer::Done) *writes = 0;
    if (answer == Answer::Done) return TVS_OK;
    return kind == RequestKind::Refresh ? PassOn(answer) : TVS_E_UNKNOWN;
}

bool IsStillPlaced(const ManagerDatabase& printerDatabase, const char* variableName, DWORD writes) {
    DWORD now = 0;
    const RequestText place(WriteKindOf(variableName), variableName);
    return writes != 0 && GetWriteCount(printerDatabase, place.text, &now) == Answer::Done && now == writes;
}

Status AskPrinterSide(const PrinterRequest& request, DWORD mutexWait, DWORD boundMs) {
    const DatabaseHandle database = request.printerDatabase;
    if (mutexWait == WAIT_ABANDONED) AwaitLateAnswer(database);
    const KernelHandle event(CreateNamedEvent(product::VariableEventName(
        g_terminalServer, request.databaseName.text, names::kRWResult, product::VariableSignal::Updated)));
    if (!event) return TVS_E_MEMORY;
    {
        const ResultWatch watch(database);
        product::SignalWait signals(nullptr);
        signals.SetEvent(0, event.Get());
        DWORD writes = 0;
        Answer answer = GetWriteCount(database, names::kRWResult, &writes);
        if (answer == Answer::Done) answer = PostRequest(request);
        if (answer != Answer::Done) return Ended(answer);
        if (const Status status = AwaitResult(database, event.Get(), signals, writes, boundMs); status != TVS_OK)
            return status;
    }
    return ReadResult(database);
}

Status PostForwardedRequest(const PrinterRequest& request) {
    // The text of a refresh is in its own variable; the request names nothing.
    return request.kind == RequestKind::Refresh ? TVS_OK : Ended(PostRequest(request));
}

Status ForwardPostedRequest(const PrinterRequest& request, const char* printerName) {
    const char* kind = request.kind == RequestKind::Refresh ? kRefresh : MailboxOf(request.kind);
    ForwardText text;
    snprintf(text.text, sizeof text.text, "%s:%s", kind, printerName); // a printer's name has at most 259 bytes
    const Status result = PassOn(ForwardRequest(text.text));
    WriteVariable(request.printerDatabase, names::kRWResult, &result, sizeof result);
    return result;
}

// Each question is one read of the printer's database; a value that cannot be read means no.

namespace {

bool ReadNumber(const ManagerDatabase& database, const char* name, uint32_t* value) {
    DWORD size = 0;
    *value = 0;
    return ReadVariable(database, name, value, sizeof *value, &size) == Answer::Done;
}

} // namespace

bool PrinterTakesRequests(const ManagerRecord* manager) {
    if (UsesForwardedPath(manager)) return true;
    uint32_t status = 0;
    return ReadNumber(manager->printerDatabase, names::kPrinterExtStatus, &status) &&
           (status & TVS_EXT_STATUS_TAKES_REQUESTS) != 0;
}

bool PortRefusesRequests(const ManagerRecord* manager) {
    return (StoredPortKind(manager->printerDatabase) & TVS_PORT_NO_REQUESTS) != 0;
}

bool SpoolerIsReady(const ManagerDatabase& printerDatabase) {
    for (DWORD pause = 0;; ++pause) {
        uint32_t status = 0;
        if (!ReadNumber(printerDatabase, names::kSpoolerStatus, &status)) return false;
        if ((status & TVS_SPOOLER_READY) != 0) return true;
        if ((status & TVS_SPOOLER_RUNS) == 0) return false;
        Sleep(g_timings.readinessPause);
        if (pause + 1 >= g_timings.readinessPauses) return false; // the last state is not read again
    }
}

bool SpoolerTakesRefreshes(const ManagerDatabase& printerDatabase) {
    uint32_t status = 0;
    return ReadNumber(printerDatabase, names::kSpoolerStatus, &status) && (status & TVS_SPOOLER_RUNS) != 0;
}
