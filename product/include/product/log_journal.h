// What the log asks of the system, a file for each. No state.
#pragma once

namespace product {

// Whether standard error is systemd's journal, which reads priorities in front of lines.
bool ErrorsGoToJournal();

} // namespace product
