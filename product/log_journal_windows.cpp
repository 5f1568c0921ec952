// Windows has no journal. No state.
#include "product/log_journal.h"

bool product::ErrorsGoToJournal() {
    return false;
}
