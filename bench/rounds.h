// The protocol between a measuring program and bench/run: the program prints "ready". For each line "go SECONDS" it
// repeats its operation for that long and answers "OPERATIONS NANOSECONDS". No state.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <ctime>

inline double NowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// Repeats the operation, which returns false on failure; that ends the program.
template <typename Operation>
int ServeRounds(Operation operation) {
    std::printf("ready\n");
    std::fflush(stdout);
    double seconds = 0;
    while (std::scanf(" go %lf", &seconds) == 1) {
        const double start = NowNs();
        const double end = start + seconds * 1e9;
        long operations = 0;
        double now = start;
        // The clock is read once per 16 operations, so that it adds little to what is measured.
        while (now < end) {
            for (int i = 0; i < 16; ++i) {
                if (!operation()) {
                    std::fprintf(stderr, "the operation failed after %ld\n", operations);
                    return 1;
                }
                ++operations;
            }
            now = NowNs();
        }
        std::printf("%ld %.0f\n", operations, now - start);
        std::fflush(stdout);
    }
    return 0;
}
