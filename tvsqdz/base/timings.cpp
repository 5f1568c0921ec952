// The one instance; its values are those of its declaration until a test changes them.
#include "base/timings.h"

Timings g_timings;
