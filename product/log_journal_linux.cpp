// The one file here that uses a header of the platform layer which Windows does not have. No state.
#include "product/log_journal.h"

#include <oriel_streams.h>

bool product::ErrorsGoToJournal() {
    return OrielErrorsGoToJournal() != FALSE;
}
