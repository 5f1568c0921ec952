#include "notify/watcher.h"

#include "base/memory.h"
#include "machine/objects.h"
#include "machine/process_state.h"
#include "product/file_times.h"

#include <new>

void Watch::Begin(const NotificationRegistration& registration, const char* variableName, product::WatchMode mode) {
    m_registration = &registration;
    m_variable = variableName;
    m_mode = mode;
    const product::VariableSignal signal =
        mode == product::kEveryWrite ? product::VariableSignal::Updated : product::VariableSignal::Changed;
    // Before the name and the watch: when the service changes in between, the watch counts as lost.
    m_database = PrinterDatabaseOf(registration).handle;
    const DatabaseNameText database = CurrentDatabaseName(registration.thread.manager);
    // The former event last: as long as one has it, to open it again takes no call.
    const KernelHandle former(m_event);
    m_event = CreateNamedEvent(product::VariableEventName(g_terminalServer, database.text, variableName, signal));
    m_isWatched = WatchVariable(m_database, variableName, mode) == Answer::Done;
}

// A watch that is lost ended with its handle.
void Watch::End() {
    if (m_isWatched && !IsLost()) UnwatchVariable(m_database, m_variable);
    m_isWatched = false;
}

Watch::~Watch() {
    End();
    if (m_event != nullptr) CloseHandle(m_event);
}

void Watch::Renew() {
    End();
    Begin(*m_registration, m_variable, m_mode);
}

void SignalCount::Count(HANDLE event, const SignalTrust& trust) {
    if (++m_signals <= trust.signals) return;
    m_signals = 0;
    const DWORD now = GetTickCount();
    if (now >= m_lastCheck && now - m_lastCheck < trust.within) ResetEvent(event);
    m_lastCheck = now;
}

namespace {

constexpr int kBaseTries = 16;
constexpr DWORD kLooks = 12; // for the next service, after one has told that it ends

} // namespace

Watcher::Watcher(const NotificationRegistration& registration, DWORD most, const SignalTrust& trust)
    : m_registration(registration), m_trust(trust), m_wait(registration.thread.stopEvent) {
    if (registration.thread.manager->rousesWatchers) m_wait.SetRoused();
    AwaitStarts(m_wait, m_started);
    if (most <= 1) {
        m_variables = reinterpret_cast<Watched*>(m_one);
        return;
    }
    do {
        m_variables = static_cast<Watched*>(AllocateZeroed(SIZE_T{most} * sizeof(Watched)));
    } while (m_variables == nullptr &&
             WaitForSingleObject(registration.thread.stopEvent, g_timings.memoryPause) == WAIT_TIMEOUT);
}

void AwaitStarts(product::SignalWait& wait, KernelHandle& started) {
    const KernelHandle last = std::move(started);
    started = KernelHandle(OpenEventA(SYNCHRONIZE, FALSE, ObjectName(product::kServiceStartedName).text));
    wait.SetStarted(started.Get());
}

Watcher::~Watcher() {
    for (DWORD k = 0; k < m_count; ++k)
        m_variables[k].~Watched();
    if (m_variables != reinterpret_cast<Watched*>(m_one)) FreeBlock(m_variables);
}

Watcher::Told Watcher::ToTold(const Watched& watched, const product::PublishedState& state) {
    const bool everyWrite = watched.watch.Mode() == product::kEveryWrite;
    return {.isCounted = true,
            .writes = everyWrite ? state.writes : state.changes,
            .pulses = everyWrite ? state.updatedPulses : state.changedPulses,
            .time = state.writeTime};
}

Watcher::Told Watcher::ReadLast(const Watched& watched) const {
    const ManagerDatabase& database = PrinterDatabaseOf(m_registration);
    const char* name = watched.watch.Variable();
    product::PublishedState state;
    if (FindPublishedState(database, name, &state)) return ToTold(watched, state);
    Told last;
    SYSTEMTIME written;
    if (GetWriteTime(database, name, &written) == Answer::Done) last.time = product::ToTime(written);
    return last;
}

// What was written before is not news. A write at this very moment may count as such, or be told.
void Watcher::SetBase(Watched& watched, DWORD number) {
    const product::SignalWait::Turn turn(m_wait);
    m_wait.SetEvent(number, watched.watch.Event());
    for (int tries = 0; tries < kBaseTries; ++tries) { // until nothing was pulsed meanwhile
        watched.told = ReadLast(watched);
        if (m_wait.Take(number).pulses == 0) break;
    }
    watched.pulsesBefore = watched.told.pulses;
    watched.pulsesSeen = 0;
    if (!watched.watch.IsWhole()) m_isWhole = false;
}

void Watcher::Add(const char* variableName, product::WatchMode mode) {
    if (m_variables == nullptr) return;
    Watched& watched = *new (&m_variables[m_count]) Watched;
    watched.watch.Begin(m_registration, variableName, mode);
    SetBase(watched, m_count++);
}

void Watcher::TellByWaiter(DWORD number, const NotificationEntry& entry) {
    if (number >= m_count || (entry.mode & NOTIFY_BY_EVENT) == 0) return;
    Watched& watched = m_variables[number];
    watched.watcher = this;
    watched.entry = &entry;
    BeginStep(watched);
}

void Watcher::BeginStep(Watched& watched) {
    if (watched.entry == nullptr || !watched.watch.IsWhole()) return;
    m_wait.Share();
    watched.step =
        product::StepInWait(reinterpret_cast<HANDLE>(watched.entry->target), watched.watch.Event(), &Step, &watched);
}

// In a thread that waits for the event, and for nothing else: what takes a call or is unclear is left to the watcher's
// own, which the signal has woken too.
void WINAPI Watcher::Step(void* parameter) {
    Watched& watched = *static_cast<Watched*>(parameter);
    Watcher& watcher = *watched.watcher;
    const auto number = static_cast<DWORD>(&watched - watcher.m_variables);
    const product::SignalWait::Turn turn(watcher.m_wait, product::SignalWait::IfFree());
    if (!turn.held || watched.watch.IsLost()) return;
    const product::Signals signals = watcher.m_wait.Take(number);
    if (signals.pulses == 0 && !signals.isSet) return; // the watcher has had it
    product::PublishedState state;
    if (FindMappedState(PrinterDatabaseOf(watcher.m_registration), watched.watch.Variable(), &state)) {
        if (watcher.IsNews(watched, signals, ToTold(watched, state))) Deliver(*watched.entry);
    } else {
        watcher.m_wait.GiveBack(number, signals);
    }
}

// Anything may have been written before the previous service ended. A watch that could not be had missed what was
// written since.
void Watcher::RenewWatches() {
    m_isWhole = true;
    for (DWORD k = 0; k < m_count; ++k) {
        Watched& watched = m_variables[k];
        const bool isLost = watched.watch.IsLost();
        if (!isLost && watched.watch.IsWhole()) continue;
        const Told before = watched.told;
        watched.step.Reset();
        watched.watch.Renew();
        SetBase(watched, k);
        BeginStep(watched);
        watched.isNews |= isLost || before.time != watched.told.time;
    }
}

// last: read after the signals were taken. The caller has the turn.
bool Watcher::IsNews(Watched& watched, const product::Signals& signals, const Told& last) {
    const bool isSignalled = signals.pulses > 0 || signals.isSet;
    if (isSignalled) watched.signals.Count(watched.watch.Event(), m_trust);
    bool isNews = false;
    if (last.isCounted && watched.told.isCounted) {
        watched.pulsesSeen += signals.pulses;
        const DWORD given = last.pulses - watched.pulsesBefore;
        const bool isForeign = signals.isSet || static_cast<LONG>(watched.pulsesSeen - given) > 0;
        if (isForeign) watched.pulsesSeen = given;
        isNews = isForeign || last.writes != watched.told.writes;
    } else {
        watched.pulsesBefore = last.pulses;
        watched.pulsesSeen = 0;
        isNews = isSignalled || last.time > watched.told.time;
    }
    watched.told = last; // before the value is read: it is at least as new
    return isNews;
}

// Opens the manager's databases again when there is a new service, which makes the watches lost. Unless one has just
// started, one watcher asks for all watchers of a manager.
void Watcher::LookForNewService(bool isStarted) {
    ManagerRecord* manager = m_registration.thread.manager;
    if (ServiceIsKnownToLive(manager->printerDatabase)) return;
    const DWORD now = GetTickCount();
    DWORD before = manager->serviceLookedFor;
    if (!isStarted &&
        (now - before < g_timings.serviceLook / 2 || !manager->serviceLookedFor.compare_exchange_strong(before, now)))
        return;
    product::DatabaseInfo info;
    GetDatabaseInfo(manager->printerDatabase, &info);
}

// False when the watcher is to end.
bool Watcher::AwaitNews(DWORD pause) {
    if (m_variables == nullptr) return false;
    for (;;) {
        const bool idle = pause == kNoLook;
        const bool isTold = m_isWhole && m_looks == 0 && m_started; // of all that may happen
        const DWORD limit = isTold ? m_serviceLook : g_timings.watchRetry;
        const product::Woken woken = m_wait.Wait(IsLost() ? 0 : std::min(pause, limit));
        switch (woken) {
        case product::Woken::Stopped:
        case product::Woken::Failed:
            return false;
        case product::Woken::Started:
            LookForNewService(true);
            m_looks = kLooks;
            break;
        case product::Woken::TimedOut:
            if (idle) LookForNewService(m_looks > 0);
            if (m_looks > 0) --m_looks;
            break;
        case product::Woken::Signalled:
            break;
        }
        const bool isLost = IsLost();
        if (isLost) {
            m_looks = 0;
            AwaitStarts(m_wait, m_started);
        }
        if (isLost || !m_isWhole) RenewWatches();
        for (DWORD k = 0; k < m_count; ++k) {
            const product::SignalWait::Turn turn(m_wait);
            const product::Signals signals = m_wait.Take(k);
            // After the time at all: whoever may signal the event can also hide a pulse.
            const bool isQuiet = signals.pulses == 0 && !signals.isSet && !signals.mayHaveMissed;
            if (isQuiet && woken == product::Woken::Signalled) continue;
            const Told last = ReadLast(m_variables[k]);
            // The read may have found a new service. That is told, once, when the watches are made again.
            if (IsLost()) break;
            m_variables[k].isNews |= IsNews(m_variables[k], signals, last);
        }
        const bool isOver = !idle && woken == product::Woken::TimedOut;
        if (isOver || std::any_of(m_variables, m_variables + m_count, [](const Watched& each) { return each.isNews; }))
            return true;
    }
}
