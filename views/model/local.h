// The printers of this machine, from the status database service.
//
// Values are read from the sections that the service publishes, so neither the service nor those who write notice a
// viewer. A sweep compares the counts of writes: every 50 ms, and every 100 ms when nothing has changed for 10 s. A
// variable that was written several times between two sweeps gives one change, with the number of those that were
// missed. Values that are not published are asked for, once a second.
//
// Not there: variables that cannot be read, queues, whose reads take items, and "PrintingMyJob", "SpoolingMyJob" and
// "UserAuthority", which are another thing for each user.
//
// When the service is gone the printers stay with their last values, all of them stale. Disconnected says so for all;
// there is no Stale for each. When it is back there are Connected, Gap, and a change for each value that is another
// now. A printer whose trouble becomes another one is told as Stale again.
//
// A process has one LocalPrinters, and while it lives it makes no binding of its own (service_client.h).
#pragma once

#include "model/source.h"

#include <memory>

namespace views {

class LocalPrinters final : public Source {
public:
    // Throws Failure when there cannot be a binding. A service that does not run is no failure.
    LocalPrinters();
    ~LocalPrinters() override;

    // The first one tells whether the service is there (Connected, Disconnected), and all printers as PrinterAdded.
    std::vector<Change> Wait(std::chrono::milliseconds most) override;
    void Wake() override;
    const Printers& Now() const override;
    // Of any thread; one at a time.
    void PauseJob(const Printer& printer, bool pause) override;
    void CancelJob(const Printer& printer, uint32_t job) override;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// Milliseconds since 1970, UTC.
int64_t NowMs();
// The host's name.
std::string MachineName();

} // namespace views
