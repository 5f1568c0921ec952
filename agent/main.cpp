// TVORPZ.EXE, the desktop agent: the product's presence on the user's desktop. The library starts it when a manager of
// some client kinds is opened, and knows it by its window.
//
//     TVORPZ.EXE /S
//
// There is one for each desktop. A second one signals that there is an agent, and ends. It shows alerts (alerts.h). It
// ends when it is asked to, when all managers of the machine are asked to terminate, when the product is stopped, and
// with the desktop. It starts again when somebody opens a manager.
//
// Three threads: the first has the window, the second waits for the end, the third looks for alerts. State: what the
// second and the third need, set before they start.
#include "alerts.h"
#include "layer.h"

#include "product/desktop_agent.h"
#include "product/guards.h"
#include "product/log.h"
#include "product/object_names.h"
#include "product/program_client.h"

namespace {

constexpr int kEnded = 0;
constexpr int kCannotBegin = 1;
constexpr int kWrong = 2;

constexpr char kOneAgentMutex[] = "TVORSQD:DesktopAgent";
constexpr DWORD kOneAgentMs = 5000;   // for another agent that is starting to have its window
constexpr DWORD kLookMs = 2000;       // between checks of product and desktop
constexpr DWORD kPostAgainMs = 20;    // to a queue that is full
constexpr DWORD kLastAlertsMs = 3000; // to close what is shown

HWND g_window = nullptr;
HANDLE g_termination = nullptr;
HANDLE g_ending = nullptr;   // the message loop has ended
bool g_productWasUp = false; // some client kinds work without a product that is up, and so does their agent

// Held while the agent looks for a window and makes its own, so that of two agents that start at once one finds the
// other's window. An agent that cannot get it, because another process keeps it, starts anyway: two agents do no harm.
struct OneAgentHold {
    OneAgentHold() {
        if (m_mutex) m_hold.Acquire(m_mutex.Get(), kOneAgentMs);
    }

private:
    KernelHandle m_mutex{product::CreateMutexForEveryone(kOneAgentMutex)};
    MutexHold m_hold; // ends first
};

LRESULT CALLBACK OnMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
    case product::kAgentEndMessage:
        DestroyWindow(window);
        return 0;
    case WM_DESTROY:
        PostQuitMessage(0);
        return 0;
    default:
        return DefWindowProcA(window, message, wParam, lParam);
    }
}

// False when no window can be made. g_window stays null when another agent has one.
bool BecomeTheAgent() {
    const OneAgentHold hold;
    if (FindWindowA(product::kAgentWindowClass, nullptr) != nullptr) return true;
    WNDCLASSEXA windowClass = {};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = OnMessage;
    windowClass.lpszClassName = product::kAgentWindowClass;
    if (RegisterClassExA(&windowClass) == 0) return false;
    g_window = CreateWindowExA(0, product::kAgentWindowClass, "", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    return g_window != nullptr;
}

// A program that started an agent waits for the event of the printer that it opens, which is in the list. Only waiters
// have these events open. If the service hangs, the opens hang as well, so this needs no bound.
void SignalReady() {
    std::vector<std::string> databases;
    ListPrinterDatabases(&databases);
    for (const std::string& database : databases) {
        const KernelHandle event(OpenEventA(EVENT_MODIFY_STATE, FALSE, product::AgentReadyName(database).text));
        if (event) SetEvent(event.Get());
    }
}

// The event is not kept open: it would outlive a start-up process that was killed.
bool ProductIsUp() {
    const bool terminalServer = product::MachineIsTerminalServer();
    const KernelHandle event(
        OpenEventA(SYNCHRONIZE, FALSE, product::ObjectName(terminalServer, product::kProductInitialisedName).text));
    return event && WaitForSingleObject(event.Get(), 0) == WAIT_OBJECT_0;
}

// Waits for a while. The agent works without the event if it cannot be had.
bool IsTerminated() {
    const DWORD wait = g_termination != nullptr ? WaitForSingleObject(g_termination, kLookMs) : WAIT_FAILED;
    if (wait == WAIT_FAILED) Sleep(kLookMs);
    return wait == WAIT_OBJECT_0;
}

DWORD WINAPI WaitForEnd(LPVOID) {
    SignalReady();
    do {
        const bool up = ProductIsUp();
        if ((g_productWasUp && !up) || !DesktopLives()) break;
        g_productWasUp = up;
    } while (!IsTerminated());
    while (!PostMessageA(g_window, product::kAgentEndMessage, 0, 0)) {
        // A full queue is being emptied. A window that cannot be reached is useless.
        if (GetLastError() != ERROR_NOT_ENOUGH_QUOTA) TerminateProcess(GetCurrentProcess(), kEnded);
        Sleep(kPostAgainMs);
    }
    return 0;
}

// It is apart from the thread that waits for the end, because the desktop or the service may keep it waiting.
DWORD WINAPI ShowAlerts(LPVOID) {
    Alerts* alerts = StartAlerts();
    if (alerts == nullptr) return 0;
    do
        LookForAlerts(*alerts);
    while (WaitForSingleObject(g_ending, kLookMs) == WAIT_TIMEOUT);
    EndAlerts(alerts);
    return 0;
}

bool StartWaiting() {
    const bool terminalServer = product::MachineIsTerminalServer();
    g_termination =
        product::CreateEventForEveryone(product::ObjectName(terminalServer, product::kTerminationName).text);
    const KernelHandle thread(CreateThread(nullptr, 0, WaitForEnd, nullptr, 0, nullptr));
    return static_cast<bool>(thread);
}

int Run() {
    g_productWasUp = ProductIsUp();
    if (!BindStatusDatabase() || !BecomeTheAgent()) return kCannotBegin;
    if (g_window == nullptr) {
        SignalReady();
        return kEnded;
    }
    if (!StartWaiting()) return kCannotBegin;
    g_ending = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const KernelHandle alerts(g_ending ? CreateThread(nullptr, 0, ShowAlerts, nullptr, 0, nullptr) : nullptr);
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0) // unbounded: until the agent is asked to end
        DispatchMessageA(&message);
    if (alerts) {
        SetEvent(g_ending);
        WaitForSingleObject(alerts.Get(), kLastAlertsMs);
    }
    return kEnded;
}

} // namespace

int main(int count, char** words) {
    if (count != 2 || lstrcmpiA(words[1], product::kAgentSwitch) != 0) {
        product::NameLog("TVORPZ");
        product::Log(product::LogLevel::Error,
                     std::string("usage: ") + product::kAgentExecutable + " " + product::kAgentSwitch);
        return kWrong;
    }
    return LeaveCreator() ? Run() : kCannotBegin;
}
