// State: the event and the time for last words, set once before the handler, which runs on a thread of its own.
#include "base/interrupt.h"

#include "base/failure.h"

namespace {

HANDLE g_interrupted = nullptr;
DWORD g_lastWordsMs = 0;

BOOL WINAPI OnConsoleControl(DWORD event) {
    SetEvent(g_interrupted);
    // After any other event, such as a closed console, the process ends as soon as this returns. Give the main thread
    // time to end it first.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(g_lastWordsMs);
    return TRUE;
}

} // namespace

HANDLE TakeOverInterrupts(DWORD lastWordsMs) {
    g_lastWordsMs = lastWordsMs;
    g_interrupted = CreateEventA(nullptr, TRUE, FALSE, nullptr); // for as long as the process lives
    if (g_interrupted == nullptr) throw SystemFailure(GetLastError(), "cannot create an event");
    if (!SetConsoleCtrlHandler(OnConsoleControl, TRUE)) throw SystemFailure(GetLastError(), "cannot take over Ctrl-C");
    return g_interrupted;
}
