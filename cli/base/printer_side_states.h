// The states of the printer sides, which `oriel up` publishes in the registry. State: that key.
//
// HKEY_LOCAL_MACHINE\SOFTWARE\Tavik\Oriel\PrinterSides has a REG_BINARY value for each side, named like its printer:
//
//    0  u32  the process of `oriel up` that wrote it
//    4  u32  1 running, 2 restarting, 3 resting; | 0x80000000: it could not be started
//    8  u32  its last exit code, or the system's error when it could not be started; 0: neither
//   12  u32  milliseconds from `since` until it is started again; 0: it runs, or is not started again
//   16       since: SYSTEMTIME, UTC
//
// Everybody may read the key; writing takes the right to change the registry. Values of a process that has ended are
// ignored.
#pragma once

#include "base/output.h"

#include <windows.h>

#include <string>
#include <vector>

enum class SideState : DWORD {
    Running = 1,
    Restarting = 2, // it ended by itself or could not be started, and will be started again
    Resting = 3,    // it was asked to end, like all managers; it starts again when its printer is opened
};

struct PrinterSideState {
    std::string printer; // ANSI
    SideState state = SideState::Running;
    bool startFailed = false; // code is the system's
    DWORD code = 0;
    DWORD pauseMs = 0;
    SYSTEMTIME since{};
};

// The states of the printer sides that a running `oriel up` looks after, in no order. Empty when no product is up. A
// value that cannot be read is left out.
std::vector<PrinterSideState> ReadPrinterSideStates();

// "running", "restarting", "resting": for tables and JSON.
const char* SideStateName(SideState state);
// Why it does not run, as a phrase without a full stop: "it was ended by signal 9", "its device or command line is
// wrong (TVSPSD.EXE --check tells what)". Empty when it runs.
std::string WhyNotRunning(const PrinterSideState& state);

// {"state", "why", "code", "pauseMs", "since"}.
Json SideJson(const PrinterSideState& state);
// "running", "restarting: it ended with 3".
std::string SideText(const PrinterSideState& state);

// For `oriel up`. When the registry cannot be written, only this report is lost.
void PublishSideState(const PrinterSideState& state);
void ForgetSideState(const std::string& printer);
void ForgetAllSideStates();
