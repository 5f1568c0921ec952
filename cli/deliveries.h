// Being told of changes by one of the library's three forms, whichever it is as a stream of variables.
#pragma once

#include "opened_printer.h"

#include <memory>
#include <optional>

struct Deliveries {
    virtual ~Deliveries() = default; // no more is told
    // The place in the list of a variable that was written; nothing after the time, or when `interrupted` is set.
    virtual std::optional<size_t> Next(DWORD timeoutMs, HANDLE interrupted) = 0;
};

// Registers all variables, as many as there are. The printer must outlive what is returned. Throws Failure.
std::unique_ptr<Deliveries> Register(const OpenedPrinter& printer, const std::vector<const Variable*>& variables,
                                     DeliveredBy by);
