// What the Printer MIB (RFC 3805) and the Host Resources MIB (RFC 2790) of a printer say, as a Reading. State: the
// object's, what was read once or changes seldom.
#pragma once

#include "agent.h"
#include "reading.h"

namespace devices {

class PrinterMib {
public:
    // False: the agent does not answer. *isPrinter: it has something of a printer.
    bool Read(Agent& agent, bool identity, Reading* reading, bool* isPrinter);

private:
    bool FindPrinter(Agent& agent);
    bool ReadStatus(Agent& agent, Reading* reading, bool* isPrinter);
    bool ReadAlerts(Agent& agent);
    bool ReadTables(Agent& agent, Reading* reading);
    bool ReadIdentity(Agent& agent, Reading* reading);

    struct Alert {
        int64_t severity = 0;
        int64_t groupIndex = 0;
        uint32_t code = 0;
    };

    uint32_t m_device = 0; // hrDeviceIndex; 0: not looked for yet
    int64_t m_configChanges = kNotKnown;
    int64_t m_alertEvents = kNotKnown;
    bool m_identified = false;
    std::vector<Alert> m_alerts{};
};

// hrPrinterDetectedErrorState: the first octet high. Octets that are missing are zero.
uint16_t ErrorBitsOf(const std::string& octets);

} // namespace devices
