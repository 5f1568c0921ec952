// The system's own spooler sends its jobs to their ports. No state.
#include "spool.h"

bool SpoolIsOurs() {
    return false;
}
