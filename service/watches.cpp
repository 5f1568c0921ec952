// State: with the groups and the watched variables; the lock of all is here.
#include "watches.h"

#include "forwarding.h"

#include "product/device_record.h"
#include "product/linked_list.h"

#include <algorithm>
#include <new>

using namespace product;

// All watches of one group on one variable.
struct Watch {
    Watch* nextOfGroup;
    Watch* nextOfVariable;
    Group* group;
    VariableSignals* signals;
    DWORD everyWrite = 0;
    DWORD onlyChanges = 0;
    WatchMode lastMode = kEveryWrite;

    DWORD& Count(WatchMode mode) { return mode == kEveryWrite ? everyWrite : onlyChanges; }
};

namespace {

Lock g_watchesLock; // before a variable's lock

Watch* FindWatch(const Group& group, const VariableSignals& signals) REQUIRES(g_watchesLock) {
    Watch* watch = signals.watches;
    while (watch && watch->group != &group)
        watch = watch->nextOfVariable;
    return watch;
}

// The first watch of the variable has begun, or the last one has ended.
void NoteFollowers(const VariableSignals& signals) {
    const std::string_view name = signals.variable->name->Text();
    if (std::find(std::begin(kFollowedVariables), std::end(kFollowedVariables), name) != std::end(kFollowedVariables))
        WakePrinterSide(*signals.database);
}

void EndOne(Watch& watch, WatchMode mode) REQUIRES(g_watchesLock) {
    --watch.Count(mode);
    const VariableSignals& signals = *watch.signals;
    const bool last = RemoveWatchFrom(*watch.signals, mode);
    if (last && signals.variable->role == VariableRole::Mailbox) PrinterSideIsGone(*signals.database);
    if (last) NoteFollowers(signals);
    GiveBack(*watch.group->account, kShareWatches, 1);
}

// Of a watch that its group does not list any more.
void Delete(Watch* watch) REQUIRES(g_watchesLock) {
    Unlink(watch->signals->watches, &Watch::nextOfVariable, *watch);
    delete watch;
}

void DeleteIfUnused(Watch* watch) REQUIRES(g_watchesLock) {
    if (watch->everyWrite != 0 || watch->onlyChanges != 0) return;
    Unlink(watch->group->watches, &Watch::nextOfGroup, *watch);
    Delete(watch);
}

ServiceStatus AddCharged(Group& group, Database& database, Variable& variable, WatchMode mode) {
    LockHold hold{g_watchesLock};
    ServiceStatus status = kDone;
    VariableSignals* signals = SignalsOf(database, variable, *group.account, &status);
    if (!signals) return status;
    Watch* watch = FindWatch(group, *signals);
    if (!watch) {
        watch = new (std::nothrow) Watch{group.watches, signals->watches, &group, signals};
        if (!watch) return kOutOfMemory;
        group.watches = signals->watches = watch;
    }
    status = AddWatchTo(*signals, mode);
    if (status == kDone) {
        ++watch->Count(mode);
        watch->lastMode = mode;
        if (signals->watchCount.load() == 1) NoteFollowers(*signals);
    }
    DeleteIfUnused(watch);
    return status;
}

} // namespace

ServiceStatus AddWatch(Group& group, Database& database, Variable& variable, WatchMode mode) {
    if (!Charge(*group.account, kShareWatches, 1)) return kLimitReached;
    const ServiceStatus status = AddCharged(group, database, variable, mode);
    if (status != kDone) GiveBack(*group.account, kShareWatches, 1);
    return status;
}

ServiceStatus EndWatch(Group& group, const Variable& variable) {
    LockHold hold{g_watchesLock};
    const VariableSignals* signals = variable.signals.load(std::memory_order_acquire);
    Watch* watch = signals ? FindWatch(group, *signals) : nullptr;
    if (!watch) return kNotWatched;
    const WatchMode other = watch->lastMode == kEveryWrite ? kOnlyChanges : kEveryWrite;
    EndOne(*watch, watch->Count(watch->lastMode) > 0 ? watch->lastMode : other);
    DeleteIfUnused(watch);
    return kDone;
}

void DropWatches(Group& group) {
    LockHold hold{g_watchesLock};
    while (Watch* watch = group.watches) {
        group.watches = watch->nextOfGroup;
        for (const WatchMode mode : {kEveryWrite, kOnlyChanges})
            while (watch->Count(mode) > 0)
                EndOne(*watch, mode);
        Delete(watch);
    }
}

namespace {

template <typename Function> // void(const Group&)
void ForEachPrinterSide(const Database& database, Function function) {
    const Variable* mailbox = FindVariable(database, kForwardMailbox);
    const VariableSignals* signals = mailbox ? mailbox->signals.load(std::memory_order_acquire) : nullptr;
    if (!signals || signals->watchCount.load() == 0) return;
    LockHold hold{g_watchesLock};
    for (const Watch* watch = signals->watches; watch; watch = watch->nextOfVariable)
        function(*watch->group);
}

} // namespace

bool IsPrinterSide(const Group& group, const Database& database) {
    bool found = false;
    ForEachPrinterSide(database, [&](const Group& side) { found |= &side == &group; });
    return found;
}

DWORD HandlesOfPrinterSides(const Database& database) {
    DWORD handles = 0;
    ForEachPrinterSide(database, [&](const Group& side) { handles += HandlesOf(side, database); });
    return handles;
}
