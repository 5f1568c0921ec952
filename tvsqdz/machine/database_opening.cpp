// The conversation with the service until a database is open. Keeps no state.
#include "machine/database_opening.h"

#include "base/timings.h"
#include "product/guards.h"
#include "product/object_names.h"

namespace {

// A database can be given up by its creator between our two calls. That this happens again and again is no accident.
constexpr int kAttempts = 5;

// Opens a database that another process may still be initialising. The event that its end sets says only that asking
// again is worthwhile: it may be missing, or stem from somebody else, or its database may be given up instead, so the
// service is asked again after every slice.
Answer OpenWhenInitialised(const char* name, DatabaseHandle* handle) {
    const DWORD start = GetTickCount();
    bool toldBefore = false;
    for (;;) {
        const Answer answer = OpenDatabase(name, handle);
        if (answer != Answer::BeingInitialised) return answer;
        // A creator that lives and does not come to an end would hold us, and with us every open of the machine.
        if (GetTickCount() - start >= g_timings.initialisedBound) return Answer::TimedOut;
        const KernelHandle initialised(OpenEventA(SYNCHRONIZE, FALSE, product::InitializedEventName(name).text));
        const DWORD wait =
            initialised ? WaitForSingleObject(initialised.handle, g_timings.initialisedSlice) : WAIT_FAILED;
        const bool told = wait == WAIT_OBJECT_0;
        // No event, or one that is set and means nothing: asking at once would be asking without a pause.
        if (wait == WAIT_FAILED || (told && toldBefore)) Sleep(g_timings.initialisedPause);
        toldBefore = told;
    }
}

} // namespace

Answer CreateOrOpenDatabase(const char* name, DatabaseHandle* handle, bool* created) {
    *created = false;
    Answer answer = Answer::UnknownDatabase;
    for (int attempt = 0; attempt < kAttempts && answer == Answer::UnknownDatabase; ++attempt) {
        answer = CreateDatabase(name, handle);
        *created = answer == Answer::Done;
        if (answer == Answer::DatabaseExists) answer = OpenWhenInitialised(name, handle);
    }
    return answer;
}
