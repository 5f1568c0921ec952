// Alerts: what a printer needs from a person, shown on the desktop through the desktop module (desktop_module.h).
//
// HKEY_LOCAL_MACHINE\SOFTWARE\Tavik\Oriel\Alerts, all optional, read again while the agent runs:
//
//   LowestSeverity   REG_SZ        "info", "warning" or "error" (the default); "none" shows nothing
//   Ignore           REG_MULTI_SZ  names of printers, and words of conditions ("paper low"), in any case
//
// A condition is shown once it has lasted for 3 s, and is over when it has been absent for 6 s: one that comes and goes
// is shown once. A printer has one notification, which is replaced when a condition is added, and closed when the last
// one is over.
#pragma once

#include <windows.h>

// The module, if it is there. Null: no alerts.
struct Alerts;
Alerts* StartAlerts();
// For one thread, about every 2 s: looks at all printers. The binding of the service is the process's.
void LookForAlerts(Alerts& alerts);
// Closes what is shown.
void EndAlerts(Alerts* alerts);
