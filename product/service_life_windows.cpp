// The process's handle tells, to those who may open it. No state.
#include "product/service_life.h"

namespace product {

bool BeginLife(LifeRecord& record) {
    record.process = GetCurrentProcessId();
    record.mark = kLifeMark;
    record.word.store(1, std::memory_order_release);
    return true;
}

void EndLife(LifeRecord& record) {
    record.word.store(0, std::memory_order_release);
}

bool BeginLifeWatch(const LifeRecord* record, LifeWatch* watch) {
    if (record->mark != kLifeMark) return false;
    watch->process = OpenProcess(SYNCHRONIZE, FALSE, record->process);
    watch->record = record;
    return watch->process != nullptr;
}

void EndLifeWatch(LifeWatch& watch) {
    if (watch.process) CloseHandle(watch.process);
    watch = {};
}

bool IsAlive(const LifeWatch& watch) {
    return watch.record->word.load(std::memory_order_acquire) != 0 &&
           WaitForSingleObject(watch.process, 0) == WAIT_TIMEOUT;
}

} // namespace product
