// The registry values of printer_side_states.h. No state of its own.
#include "base/printer_side_states.h"

#include "base/failure.h"
#include "base/opened_printer.h"
#include "base/product.h"
#include "base/registry.h"

#include <cstddef>
#include <cstring>

namespace {

constexpr char kSidesKey[] = "SOFTWARE\\Tavik\\Oriel\\PrinterSides";

constexpr DWORD kStartFailed = 0x80000000; // flag in the state word

struct StoredState {
    DWORD owner;
    DWORD state;
    DWORD code;
    DWORD pauseMs;
    SYSTEMTIME since;
};
static_assert(sizeof(StoredState) == 32 && offsetof(StoredState, since) == 16);

constexpr DWORD kCannotBegin = 1; // exit codes of the printer side
constexpr DWORD kWrong = 2;
constexpr DWORD kSignals = 128; // plus the signal's number

bool Lives(DWORD process) {
    const KernelHandle handle(OpenProcess(SYNCHRONIZE, FALSE, process));
    return handle && WaitForSingleObject(handle.Get(), 0) == WAIT_TIMEOUT;
}

} // namespace

std::vector<PrinterSideState> ReadPrinterSideStates() {
    std::vector<PrinterSideState> states;
    // The process number may belong to another process by now, so the product must also be initialised.
    if (!ProductInitialised()) return states;
    const RegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, kSidesKey, KEY_QUERY_VALUE);
    if (!key) return states;
    for (const RegistryValue& value : ListValues(key.Get())) {
        StoredState stored{};
        if (value.data.size() != sizeof stored) continue;
        std::memcpy(&stored, value.data.data(), sizeof stored);
        const auto state = static_cast<SideState>(stored.state & ~kStartFailed);
        if (state < SideState::Running || state > SideState::Resting || !Lives(stored.owner)) continue;
        states.push_back({.printer = value.name,
                          .state = state,
                          .startFailed = (stored.state & kStartFailed) != 0,
                          .code = stored.code,
                          .pauseMs = stored.pauseMs,
                          .since = stored.since});
    }
    return states;
}

const char* SideStateName(SideState state) {
    switch (state) {
    case SideState::Running:
        return "running";
    case SideState::Restarting:
        return "restarting";
    case SideState::Resting:
        return "resting";
    }
    return "unknown";
}

std::string WhyNotRunning(const PrinterSideState& state) {
    if (state.state == SideState::Running) return "";
    if (state.state == SideState::Resting) return "it was asked to end; it starts again when the printer is opened";
    if (state.startFailed) return SystemFailure(state.code, "it cannot be started").why;
    if (state.code == kWrong)
        return std::string("its device or command line is wrong (") + kPrinterSideProgram + " --check tells what)";
    if (state.code == kCannotBegin) return "it could not start; its message is in the output of 'oriel up'";
    if (state.code > kSignals) return "it was ended by signal " + std::to_string(state.code - kSignals);
    return "it ended with " + std::to_string(state.code);
}

Json SideJson(const PrinterSideState& state) {
    return {{"state", SideStateName(state.state)},
            {"why", WhyNotRunning(state)},
            {"code", state.code},
            {"pauseMs", state.pauseMs},
            {"since", TimeText(state.since)}};
}

std::string SideText(const PrinterSideState& state) {
    const std::string why = WhyNotRunning(state);
    return SideStateName(state.state) + (why.empty() ? "" : ": " + why);
}

void PublishSideState(const PrinterSideState& state) {
    RegistryKey key;
    if (CreateKey(HKEY_LOCAL_MACHINE, kSidesKey, key) != ERROR_SUCCESS) return;
    StoredState stored{.owner = GetCurrentProcessId(),
                       .state = static_cast<DWORD>(state.state) | (state.startFailed ? kStartFailed : 0),
                       .code = state.code,
                       .pauseMs = state.pauseMs,
                       .since = state.since};
    RegSetValueExA(key.Get(), state.printer.c_str(), 0, REG_BINARY, reinterpret_cast<const BYTE*>(&stored),
                   sizeof stored);
}

void ForgetSideState(const std::string& printer) {
    if (const RegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, kSidesKey, KEY_SET_VALUE))
        RegDeleteValueA(key.Get(), printer.c_str());
}

void ForgetAllSideStates() {
    DeleteTree(HKEY_LOCAL_MACHINE, kSidesKey);
}
