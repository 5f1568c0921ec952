// What tells of changes of the embedded spool's jobs: an event "OrielJobs:<printer's number>" for everyone, which
// exists while somebody waits for it.
#pragma once

#include <cstdint>
#include <windef.h>

namespace oriel {

// Something became of a job of this printer. Without anybody who waits it is a look for a name and no more. Leaves the
// last error alone.
void TellOfJobs(int64_t printer);

} // namespace oriel
