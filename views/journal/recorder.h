// The recorder: what changes, from a source into the journal. No state.
#pragma once

#include "journal/journal.h"
#include "model/program.h"

namespace views {

// Until the user ends it. A journal that cannot be written is tried again, and what is lost marked as a gap. Throws
// Failure when it cannot begin.
Exit Record(Source& source, const EndOnInterrupt& end);

} // namespace views
