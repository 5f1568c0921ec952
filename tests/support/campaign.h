// Long and short forms of one test, and the seeds of random choices.
#pragma once

#include <cstdint>

// The long form's number when the environment has ORIEL_CAMPAIGN (scripts/campaign sets it), else the short form's.
int Rounds(int shortForm, int longForm);

// The seed of this run: ORIEL_SEED when set, else drawn anew. Printed, so that a failure can be replayed.
uint64_t Seed();
