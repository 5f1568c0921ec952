// A printer side whose device is on the network: with the certificate that its printer's key has, and for a queue of
// the print server with the device behind the queue. No state.
#pragma once

#include "printer_side.h"

inline constexpr int kStopped = 0; // exit codes
inline constexpr int kCannotBegin = 1;

// Whether the device is a queue of the print server: "cups:QUEUE".
bool IsQueue(const std::string& device);
// What is asked for a queue: the printer itself, where its address says how to ask it, else the queue.
struct QueueDevice {
    std::string uri;
    bool mayChange = false; // the print server did not tell, or the printer's agent was silent
};
// Tries an agent for limitMs at most, or until stop is set, which may be null.
QueueDevice DeviceOfQueue(const std::string& device, DWORD limitMs, HANDLE stop);

// Serves until stop is set. kStopped, or kCannotBegin after the reason was logged. ServeDevice: with any device.
int ServeDevice(const PrinterSideOptions& side, const Device& device, HANDLE stop);
int ServeNetworkPrinter(const PrinterSideOptions& side, const std::string& device, DWORD pollMs, HANDLE stop);
