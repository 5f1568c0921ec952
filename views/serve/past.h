// The day before the server began, for this machine's printers: made from the journal, where a recorder wrote one. No
// state.
#pragma once

#include "serve/board.h"

namespace views {

// Empty without a journal. A journal that cannot be read is reported on standard error.
Board::Past ReadPast(const std::string& journalFolder, int64_t now);

} // namespace views
