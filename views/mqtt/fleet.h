// The printers of all machines that tell a broker (`oriel bridge mqtt`), as a source for the views. State: the
// object's; the thread of its connection takes messages in, the one that calls Wait reads them.
//
// Whoever may publish at the broker may have written them, so everything is checked and bounded: sizes, nesting, names,
// the number of machines, printers and variables. What is no document of ours is left out.
//
// A machine that is offline keeps its printers with their last values, all of them stale; so do all machines when the
// connection to the broker breaks.
#pragma once

#include "model/source.h"
#include "mqtt/connection.h"

#include <memory>

namespace views {

class FleetPrinters final : public Source {
public:
    // Throws Failure for wrong options. A broker that does not answer is no failure.
    explicit FleetPrinters(const BrokerOptions& options);
    ~FleetPrinters() override;

    std::vector<Change> Wait(std::chrono::milliseconds most) override;
    void Wake() override;
    const Printers& Now() const override;
    // Throw Failure: commands are not sent to other machines.
    void PauseJob(const Printer& printer, bool pause) override;
    void CancelJob(const Printer& printer, uint32_t job) override;

    // Waits until the broker has told all that it has. Throws Failure when it does not.
    void WaitForAll(std::chrono::milliseconds most);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace views
