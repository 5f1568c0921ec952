// What has become of the printer sides, as `oriel up` keeps it in the registry for whoever asks.
//
// HKEY_LOCAL_MACHINE\SOFTWARE\Tavik\Oriel\PrinterSides has a REG_BINARY value for each side, named like its printer:
//
//    0  u32  the process of `oriel up` that wrote it
//    4  u32  1 runs, 2 restarts, 3 rests; | 0x80000000: it could not be started
//    8  u32  what the side ended with last, or the system's error when it could not be started; 0: neither
//   12  u32  milliseconds from `since` until it is started again; 0: it is not, or it runs
//   16       since: SYSTEMTIME, UTC
//
// All may read it, only who may change the registry can write it. What a process left that lives no more is passed
// over.
#pragma once

#include "output.h"

#include <windows.h>

#include <string>
#include <vector>

enum class SideState : DWORD {
    Running = 1,
    Restarting = 2, // it ended by itself, or could not be started, and is started again
    Resting = 3,    // it was asked to end, as all managers were; it is started again when its printer is opened
};

struct PrinterSideState {
    std::string printer; // ANSI
    SideState state = SideState::Running;
    bool startFailed = false; // code is the system's
    DWORD code = 0;
    DWORD pauseMs = 0;
    SYSTEMTIME since{};
};

// Of the printer sides that a living `oriel up` looks after, in no order; a printer that has none is not in it. Empty
// where no product is up. Never fails: what cannot be read is not there.
std::vector<PrinterSideState> ReadPrinterSideStates();

// "running", "restarting", "resting": for tables and JSON.
const char* SideStateName(SideState state);
// Why it does not run, as one phrase without a full stop: "it was ended by signal 9", "its script or command line is
// wrong (TVSPSD.EXE --check tells what)". Empty when it runs.
std::string WhyNotRunning(const PrinterSideState& state);

// {"state", "why", "code", "pauseMs", "since"}.
Json SideJson(const PrinterSideState& state);
// "running", "restarting: it ended with 3".
std::string SideText(const PrinterSideState& state);

// For `oriel up`. A registry that cannot be written loses what is told here, and nothing else.
void PublishSideState(const PrinterSideState& state);
void ForgetSideState(const std::string& printer);
void ForgetAllSideStates();
