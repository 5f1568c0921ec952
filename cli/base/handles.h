// Guards of what the command opens: those of the product, and one for a manager of the library.
#pragma once

#include "product/guards.h"

#include <tvsqdz.h>

using Manager = Guard<TvsManager, &CloseManager>;
