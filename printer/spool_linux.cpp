// The spool of the layer has nobody else who prints its jobs.
#include "spool.h"

bool SpoolIsOurs() {
    return true;
}
