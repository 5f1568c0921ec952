// The protocol between a measuring program and bench/run. The program prints "ready", then answers each line:
//
//   go SECONDS            repeats its operation for that long: "OPERATIONS NANOSECONDS"
//   each COUNT PAUSE_US   times every operation, with a pause before it: "MEDIAN P99 WORST" in nanoseconds
//
// No state.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>
#include <vector>

// Of a clock that all processes share.
inline double NowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

inline double Percentile(std::vector<double>& times, double share) {
    const auto place = times.begin() + static_cast<long>(share * static_cast<double>(times.size() - 1));
    std::nth_element(times.begin(), place, times.end());
    return *place;
}

// times: at least one, in any order.
inline void PrintTimes(std::vector<double>& times) {
    const double median = Percentile(times, 0.5);
    const double late = Percentile(times, 0.99);
    std::printf("%.0f %.0f %.0f\n", median, late, Percentile(times, 1));
    std::fflush(stdout);
}

// The next line of bench/run; false at its end.
struct Command {
    bool isEach;
    double seconds; // of "go"
    long count;     // of "each", as the pause
    useconds_t pause;

    bool Next() {
        char verb[8];
        if (std::scanf("%7s", verb) != 1) return false;
        isEach = std::strcmp(verb, "each") == 0;
        return isEach ? std::scanf("%ld %u", &count, &pause) == 2 && count > 0 : std::scanf("%lf", &seconds) == 1;
    }
};

inline void PrintReady() {
    std::printf("ready\n");
    std::fflush(stdout);
}

// False when the operation failed.
template <typename Operation>
bool RepeatFor(double seconds, Operation& operation) {
    const double start = NowNs();
    const double end = start + seconds * 1e9;
    long operations = 0;
    double now = start;
    // The clock is read once per 16 operations, so that it adds little to what is measured.
    while (now < end) {
        for (int i = 0; i < 16; ++i, ++operations)
            if (!operation()) return false;
        now = NowNs();
    }
    std::printf("%ld %.0f\n", operations, now - start);
    std::fflush(stdout);
    return true;
}

template <typename Operation>
bool TimeEach(long count, useconds_t pause, Operation& operation) {
    std::vector<double> times;
    times.reserve(static_cast<size_t>(count));
    for (long i = 0; i < count; ++i) {
        if (pause > 0) usleep(pause);
        const double start = NowNs();
        if (!operation()) return false;
        times.push_back(NowNs() - start);
    }
    PrintTimes(times);
    return true;
}

// The operation returns false on failure; that ends the program.
template <typename Operation>
int ServeRounds(Operation operation) {
    PrintReady();
    for (Command command; command.Next();) {
        const bool done =
            command.isEach ? TimeEach(command.count, command.pause, operation) : RepeatFor(command.seconds, operation);
        if (done) continue;
        std::fprintf(stderr, "the operation failed\n");
        return 1;
    }
    return 0;
}
