// What all watchers share: the watches of variables, the wait, and what is news. docs/notifications.md has the argument
// why no write is missed and none is told twice.
//
// A watcher remembers where its last wait on each event ended, so it sees every pulse, however late. What a pulse means
// is told by counts: the published number of writes says whether there was a new one, and the published number of the
// service's pulses whether somebody else gave this one. Both were counted before the pulse. Where nothing is published,
// every pulse and every later write time is news.
//
// Threads that wait for the event of a registration look for its news and tell it too (TellByWaiter): it need not come
// through the watcher's thread.
//
// State: with each watcher, on its stack.
#pragma once

#include "base/timings.h"
#include "notify/delivery.h"
#include "product/guards.h"
#include "product/signal_wait.h"

#include <algorithm>

// The event of a printer's variable, which the service pulses at every write or at every change while the watch exists.
// A restarted service does not know the watch: it is lost.
class Watch {
public:
    Watch() = default;
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // variableName: owned by the caller.
    void Begin(const NotificationRegistration& registration, const char* variableName, product::WatchMode mode);
    void Renew();

    HANDLE Event() const { return m_event; } // null when it cannot be had; changes with a renewal
    const char* Variable() const { return m_variable; }
    product::WatchMode Mode() const { return m_mode; }
    bool IsLost() const { return PrinterDatabaseOf(*m_registration).handle != m_database; }
    // False: the event or the watch cannot be had now, and it has to be renewed.
    bool IsWhole() const { return m_event != nullptr && m_isWatched; }

private:
    void End();

    const NotificationRegistration* m_registration = nullptr;
    const char* m_variable = nullptr;
    product::WatchMode m_mode = product::kOnlyChanges;
    DatabaseHandle m_database = 0; // in which the watch was made
    HANDLE m_event = nullptr;
    bool m_isWatched = false;
};

// Waits for "TVORSDB:Started" too from now on. It is another event than the last one, which is closed, when the system
// has lost all names. Null: it cannot be had now.
void AwaitStarts(product::SignalWait& wait, KernelHandle& started);

// Detects an event that somebody left set: it is reset after more than so many signals in so many milliseconds.
struct SignalTrust {
    uint32_t signals;
    DWORD within;
};
inline constexpr SignalTrust kTrusted = {100, 1000};
inline constexpr SignalTrust kTrustedInList = {102, INFINITE};
class SignalCount {
public:
    void Count(HANDLE event, const SignalTrust& trust);

private:
    uint32_t m_signals = 0;
    DWORD m_lastCheck = GetTickCount();
};

// No time to look again without a signal.
inline constexpr DWORD kNoLook = INFINITE;

class Watcher {
public:
    // most: variables, at most SignalWait::kEventsMax. Without memory for them it waits until there is some, or until
    // the thread is to end; Run then returns at once.
    Watcher(const NotificationRegistration& registration, DWORD most, const SignalTrust& trust = kTrusted);
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    // Watches one more variable; writes before are no news. Then ThreadHasBegun.
    void Add(const char* variableName, product::WatchMode mode);

    // If the entry sets an event when the variable of that number is written, threads of this process that wait for it
    // look for themselves. Before Run.
    void TellByWaiter(DWORD number, const NotificationEntry& entry);

    // Until the thread is to end. tell is called with the number of a variable, from 0 in the order of the calls of
    // Add, when it was written, somebody else signalled it, or the service is a new one. It delivers, and returns
    // kNoLook, or a time in milliseconds after which it is to be called again.
    template <typename Tell> // DWORD(DWORD number)
    void Run(Tell tell) {
        DWORD pause = kNoLook;
        while (AwaitNews(pause)) {
            pause = kNoLook;
            for (DWORD k = 0; k < m_count; ++k) {
                if (!m_variables[k].isNews) continue;
                const DWORD again = tell(k);
                m_variables[k].isNews = again != kNoLook;
                pause = std::min(pause, again);
            }
        }
    }

private:
    // What was told of a variable, or need not be.
    struct Told {
        bool isCounted = false; // the published counts are known
        ULONGLONG writes = 0;   // or changes
        DWORD pulses = 0;       // the service's
        ULONGLONG time = 0;     // of the last write
    };
    struct Watched {
        Watch watch;
        SignalCount signals;
        bool isNews = false;
        Told told;
        DWORD pulsesBefore = 0; // of the service when the watch began
        DWORD pulsesSeen = 0;   // since then
        // Of TellByWaiter.
        const NotificationEntry* entry = nullptr;
        Watcher* watcher = nullptr;
        KernelHandle step; // ends before the watch
    };

    // The databases were opened again. The watches are renewed in their order, so the first one tells of all.
    bool IsLost() const { return m_count > 0 && m_variables[0].watch.IsLost(); }
    bool AwaitNews(DWORD pause);
    void RenewWatches();
    void SetBase(Watched& watched, DWORD number);
    void BeginStep(Watched& watched);
    static void WINAPI Step(void* watched);
    bool IsNews(Watched& watched, const product::Signals& signals, const Told& last);
    static Told ToTold(const Watched& watched, const product::PublishedState& state);
    Told ReadLast(const Watched& watched) const;
    void LookForNewService(bool isStarted);

    const NotificationRegistration& m_registration;
    const SignalTrust m_trust;
    KernelHandle m_started;
    DWORD m_looks = 0; // for a new service, that follow soon
    product::SignalWait m_wait;
    DWORD m_count = 0;
    bool m_isWhole = true; // all watches are
    // A copy beside what each wait needs: after a pause every other page costs the watcher as much as all of its code.
    const DWORD m_serviceLook = g_timings.serviceLook;
    Watched* m_variables = nullptr; // m_count of them: m_one, or in a block of the heap since few watch many
    alignas(Watched) BYTE m_one[sizeof(Watched)];
};
