// Keeps the published values of a database complete (publication.h): when it becomes ready, gets variables or lists,
// and when values have outgrown their section. No state.
#pragma once

#include "signals.h"

// Publishes all values, in a section larger than they need. Without one that can be had, clients ask.
void PublishDatabase(Database& database) REQUIRES(database.lock);
// A variable was made, or the list of a composite was set. Until the database is ready, nothing happens.
void PublishNewVariable(Database& database, Variable& variable) REQUIRES(database.lock);
void PublishNewList(Database& database, const Variable& composite) REQUIRES(database.lock);
// After a write.
void GrowPublication(Database& database);
