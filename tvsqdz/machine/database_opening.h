// Getting hold of a database that may not exist yet, may be ready, or may just be initialised by another process.
#pragma once

#include "product/client.h"

// Creates the database or opens the one that exists. Done: *handle is open, and with *created the caller initialises it
// and ends that with EndDatabaseInitialization. Any other answer is why there is no handle.
Answer CreateOrOpenDatabase(const char* name, DatabaseHandle* handle, bool* created);
