// Threads that act as other users.
#pragma once

#include <vector>

// The calling thread, and no other, acts as this user from here to its end. False without the rights to do so.
bool ActAs(unsigned user, unsigned group, const std::vector<unsigned>& groups = {});
