// Removes what processes that have gone, and users who had no business there, left in the folders for everybody. No
// state.
#include "registry/user_folders.h"
#include "spooler/job_files.h"
#include "window/window_files.h"

#include <exception>
#include <oriel_directories.h>

using namespace oriel;

void WINAPI OrielTidyDirectories() {
    try {
        VisitWindows([](const WindowRecord&) {});
        TidyJobs();
        TidyUserFolders();
    } catch (const std::exception&) {
        // out of memory: the next time
    }
}
