// Each question is one read of the printer's database. What cannot be read is no.
#include "requests/readiness.h"

#include "base/timings.h"
#include "values/user_authority.h"

namespace {

constexpr char kPrinterExtStatus[] = "PrinterExtStatus";
constexpr char kSpoolerStatus[] = "SpoolerStatus";

bool ReadNumber(const ManagerDatabase& database, const char* name, uint32_t* value) {
    DWORD size = 0;
    *value = 0;
    return ReadVariable(database, name, value, sizeof *value, &size) == Answer::Done;
}

} // namespace

bool PrinterTakesRequests(const ManagerRecord* manager) {
    if (UsesForwardedPath(manager)) return true;
    uint32_t status = 0;
    return ReadNumber(manager->printerDatabase, kPrinterExtStatus, &status) &&
           (status & TVS_EXT_STATUS_TAKES_REQUESTS) != 0;
}

bool PortRefusesRequests(const ManagerRecord* manager) {
    return (StoredPortKind(manager->printerDatabase) & TVS_PORT_NO_REQUESTS) != 0;
}

bool SpoolerIsReady(const ManagerDatabase& printerDatabase) {
    for (DWORD pause = 0;; ++pause) {
        uint32_t status = 0;
        if (!ReadNumber(printerDatabase, kSpoolerStatus, &status)) return false;
        if ((status & TVS_SPOOLER_READY) != 0) return true;
        if ((status & TVS_SPOOLER_RUNS) == 0) return false;
        Sleep(g_timings.readinessPause);
        if (pause + 1 >= g_timings.readinessPauses) return false; // what it says by now is not asked any more
    }
}

bool SpoolerTakesRefreshes(const ManagerDatabase& printerDatabase) {
    uint32_t status = 0;
    return ReadNumber(printerDatabase, kSpoolerStatus, &status) && (status & TVS_SPOOLER_RUNS) != 0;
}
