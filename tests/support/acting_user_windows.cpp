#include "acting_user.h"
#include "not_here.h"

bool ActAs(unsigned, unsigned, const std::vector<unsigned>&) {
    NotHere("threads that are other users by number");
}

unsigned EffectiveUser() {
    NotHere("users that are numbers");
}
