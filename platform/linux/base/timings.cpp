// The one instance; its values are those of its declaration until a test changes them.
#include "base/timings.h"

namespace oriel {

Timings g_timings;

} // namespace oriel
