// Nothing else prints the jobs of the layer's spool. No state.
#include "spool.h"

bool SpoolIsOurs() {
    return true;
}
