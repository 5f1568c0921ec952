// Jobs as the JOB_INFO_1A records of callers.
#pragma once

#include "spooler/back_end.h"

#include <span>

namespace oriel {

// As WriteRecords (record_space.h) does. first: place of the first one in the queue, from 0.
DWORD WriteJobRecords(std::span<const Job> jobs, size_t first, const std::string& printer, LPBYTE buffer, DWORD size,
                      LPDWORD needed);

} // namespace oriel
