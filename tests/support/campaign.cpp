#include "campaign.h"

#include <cstdio>
#include <cstdlib>
#include <random>

int Rounds(int shortForm, int longForm) {
    return std::getenv("ORIEL_CAMPAIGN") != nullptr ? longForm : shortForm;
}

uint64_t Seed() {
    static const uint64_t seed = [] {
        const char* given = std::getenv("ORIEL_SEED");
        const uint64_t drawn = given != nullptr
                                   ? std::strtoull(given, nullptr, 0)
                                   : (static_cast<uint64_t>(std::random_device{}()) << 32 | std::random_device{}());
        std::printf("seed %#llx (replay with ORIEL_SEED)\n", static_cast<unsigned long long>(drawn));
        std::fflush(stdout);
        return drawn;
    }();
    return seed;
}
