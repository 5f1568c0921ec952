// The list of managers. State: g_managerList and its records, under g_managerLock (machine/process_state.h).
#include "manager/manager_record.h"

#include "base/timings.h"
#include "product/linked_list.h"

#include <string.h>

ManagerRecord* FindManager(TvsManager handle) {
    return FindInList(g_managerList, [&](const ManagerRecord& manager) { return HandleOf(&manager) == handle; });
}

void AppendManager(ManagerRecord* manager) {
    const ManagerLockHold lock;
    AppendToList(&g_managerList, manager);
}

bool UnlinkManager(ManagerRecord* manager) {
    const ManagerLockHold lock;
    return TakeFromList(&g_managerList, [&](const ManagerRecord& other) { return &other == manager; }) != nullptr;
}

void ClassifyPlatform(ManagerRecord* manager) {
    manager->flags |= PlatformBit();
}

void ReleaseManager(ManagerRecord* manager) {
    if (InterlockedDecrement(&manager->references) == 0) DestroyManager(manager);
}

PrinterNameText CurrentPrinterName(ManagerRecord* manager) {
    PrinterNameText name;
    const ManagerLockHold lock;
    memcpy(name.text, manager->printerName, sizeof name.text);
    return name;
}

void ChangePrinterName(ManagerRecord* manager, const PrinterNameText& name) {
    const ManagerLockHold lock;
    memcpy(manager->printerName, name.text, sizeof name.text);
}

DatabaseNameText CurrentDatabaseName(const ManagerRecord* manager) {
    DatabaseNameText name = {};
    const ManagerLockHold lock;
    memcpy(name.text, manager->databaseName, sizeof name.text - 1);
    return name;
}

bool DatabaseLock::Acquire(const ManagerRecord& manager) {
    return MutexHold::Acquire(manager.databaseMutex, g_timings.databaseLockBound);
}

ManagerCall::ManagerCall(TvsManager handle) {
    if (!m_call) return;
    const ManagerLockHold lock;
    m_manager = FindManager(handle);
    if (m_manager != nullptr) InterlockedIncrement(&m_manager->references);
}

ManagerCall::~ManagerCall() {
    if (m_manager != nullptr) ReleaseManager(m_manager);
}
