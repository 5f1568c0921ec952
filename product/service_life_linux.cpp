// The kernel marks the word when the process ends, so a look costs no call. No state.
#include "product/service_life.h"

#include <oriel_life.h>

namespace product {

bool BeginLife(LifeRecord& record) {
    record.process = GetCurrentProcessId();
    record.mark = kLifeMark;
    return OrielTellLife(reinterpret_cast<DWORD*>(&record.word)) != FALSE;
}

void EndLife(LifeRecord& record) {
    record.word.store(0, std::memory_order_release);
}

bool BeginLifeWatch(const LifeRecord* record, LifeWatch* watch) {
    if (record->mark != kLifeMark) return false;
    watch->record = record;
    return true;
}

void EndLifeWatch(LifeWatch& watch) {
    watch = {};
}

bool IsAlive(const LifeWatch& watch) {
    const DWORD word = watch.record->word.load(std::memory_order_acquire);
    return word != 0 && (word & ORIEL_LIFE_ENDED) == 0;
}

} // namespace product
