// The system's own spooler sends its jobs to their ports.
#include "spool.h"

bool SpoolIsOurs() {
    return false;
}
