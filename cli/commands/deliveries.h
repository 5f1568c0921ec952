// Notifications of changes as one stream, whichever of the library's three forms delivers them.
#pragma once

#include "base/opened_printer.h"
#include "commands/commands.h"

#include <memory>
#include <optional>

inline constexpr size_t kOtherHandles = 2; // that are waited for too, at most

struct Deliveries {
    virtual ~Deliveries() = default; // cancels the registrations
    // Waits for a write. The index of the variable in the list; nothing when the time is up or one of the other handles
    // is set.
    virtual std::optional<size_t> Next(DWORD timeoutMs, const std::vector<HANDLE>& others) = 0;
};

// Registers all variables; there is no limit on their number. The printer must outlive the result. Throws Failure.
std::unique_ptr<Deliveries> Register(const OpenedPrinter& printer, const std::vector<const Variable*>& variables,
                                     DeliveredBy by);
