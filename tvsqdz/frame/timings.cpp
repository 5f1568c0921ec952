#include "frame/timings.h"

Timings g_timings;
