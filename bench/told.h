// A writer and the processes that watch what it writes. Each write has a number, which is its value. A watcher notes
// the time at which it has that value in hand; the writer takes the last of these times.
//
// The writer answers "each COUNT PAUSE_US" of rounds.h with "FIRST CALL MEDIAN P99 WORST": the medians of the time
// until the first watcher was told and of the writer's own call, then the times until the last was told. "go" is not
// served. A write that is not told within kLimitNs counts as that long.
//
// State: the board, in memory that the writer and its watchers share.
#pragma once

#include "rounds.h"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <linux/futex.h>
#include <new>
#include <spawn.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

inline constexpr int kWatchersMax = 1024;
inline constexpr double kLimitNs = 2e9;
inline constexpr int kStartedTogether = 16; // a machine of few cores starts no faster with more

using Word = std::atomic<uint32_t>;

struct Board {
    Word ready;  // watchers that watch
    Word number; // of the write in progress
    Word told;   // watchers that have its value; the writer sleeps on it
    uint32_t watchers;

    // What the bare chain publishes.
    alignas(64) Word value;
    Word signal; // counts the writes; the watchers sleep on it

    struct alignas(64) Watcher {
        uint32_t number; // of the last write that it was told
        double at;
    } each[kWatchersMax];
};

// limitNs: how long to sleep at most; 0: no limit. Ends at once when the word has another value.
inline void FutexWait(Word& word, uint32_t value, double limitNs) {
    const timespec limit{static_cast<time_t>(limitNs / 1e9), static_cast<long>(limitNs) % 1'000'000'000};
    syscall(SYS_futex, &word, FUTEX_WAIT, value, limitNs > 0 ? &limit : nullptr, nullptr, 0);
}

inline void FutexWakeAll(Word& word) {
    syscall(SYS_futex, &word, FUTEX_WAKE, INT32_MAX, nullptr, nullptr, 0);
}

inline Board* MapBoard(int descriptor) {
    void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (memory != MAP_FAILED) return static_cast<Board*>(memory);
    std::perror("the board cannot be mapped");
    std::exit(1);
}

// ---- the side of a watcher

// What StartWatchers appends to the command line.
struct WatcherRole {
    Board* board = nullptr; // null: this process is the writer
    int index = 0;

    WatcherRole(int& argc, char** argv) {
        if (argc < 4 || std::string(argv[argc - 3]) != "--watch") return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        board = MapBoard(std::atoi(argv[argc - 2]));
        index = std::atoi(argv[argc - 1]);
        argc -= 3;
    }

    void Ready() const { board->ready.fetch_add(1); }

    // The watcher has a value. One that it has had before, or that is not of the write in progress, changes nothing.
    void Tell(uint32_t number) const {
        Board::Watcher& own = board->each[index];
        if (number != board->number.load() || number == own.number) return;
        own.at = NowNs();
        own.number = number;
        if (board->told.fetch_add(1) + 1 == board->watchers) FutexWakeAll(board->told);
    }
};

// ---- the side of the writer

class Watchers {
public:
    // Starts this program again, count times; returns when all watch. Anything else ends the program.
    Watchers(int argc, char** argv, int count) {
        const int descriptor = memfd_create("bench board", 0);
        if (count < 1 || count > kWatchersMax || ftruncate(descriptor, sizeof(Board)) != 0) std::exit(2);
        m_board = new (MapBoard(descriptor)) Board{};
        m_board->watchers = static_cast<uint32_t>(count);
        for (int i = 0; i < count; ++i) {
            Await(static_cast<uint32_t>(std::max(0, i - kStartedTogether)));
            Start(argc, argv, descriptor, i);
        }
        Await(m_board->watchers);
        close(descriptor);
    }
    ~Watchers() {
        for (const pid_t process : m_processes)
            kill(process, SIGKILL);
        for (const pid_t process : m_processes)
            waitpid(process, nullptr, 0);
    }
    Watchers(const Watchers&) = delete;
    Watchers& operator=(const Watchers&) = delete;

    Board& Shared() { return *m_board; }

    // write(number): publishes that value; false when it failed, which ends the program.
    template <typename Write>
    int Serve(Write write) {
        // Other than the values that earlier programs wrote.
        m_board->number = static_cast<uint32_t>(NowNs() / 1000);
        for (int i = 0; i < 10; ++i) // everybody opens and maps what they need
            if (!Round(write)) return Failed();
        PrintReady();
        for (Command command; command.Next();) {
            m_last.clear();
            m_first.clear();
            m_calls.clear();
            for (long i = 0; i < command.count; ++i) {
                if (command.pause > 0) usleep(command.pause);
                if (!Round(write)) return Failed();
            }
            std::printf("%.0f %.0f ", Percentile(m_first, 0.5), Percentile(m_calls, 0.5));
            PrintTimes(m_last);
        }
        return 0;
    }

private:
    void Start(int argc, char** argv, int descriptor, int index) {
        const std::string board = std::to_string(descriptor);
        const std::string number = std::to_string(index);
        std::vector<char*> arguments(argv, argv + argc);
        for (const char* argument : {"--watch", board.c_str(), number.c_str()})
            arguments.push_back(const_cast<char*>(argument));
        arguments.push_back(nullptr);
        pid_t process = 0;
        if (posix_spawn(&process, "/proc/self/exe", nullptr, nullptr, arguments.data(), environ) != 0) std::exit(1);
        m_processes.push_back(process);
    }

    void Await(uint32_t ready) {
        const double end = NowNs() + 60e9;
        while (m_board->ready < ready) {
            int status = 0;
            if (NowNs() > end || waitpid(-1, &status, WNOHANG) > 0) {
                std::fprintf(stderr, "%u of %u watchers watch; another ended or did not begin\n", m_board->ready.load(),
                             m_board->watchers);
                std::exit(1);
            }
            usleep(1000);
        }
    }

    static int Failed() {
        std::fprintf(stderr, "the write failed\n");
        return 1;
    }

    template <typename Write>
    bool Round(Write& write) {
        m_board->told = 0;
        const uint32_t number = ++m_board->number;
        const double start = NowNs();
        if (!write(number)) return false;
        m_calls.push_back(NowNs() - start);
        for (;;) {
            const uint32_t told = m_board->told;
            const double left = start + kLimitNs - NowNs();
            if (told == m_board->watchers || left <= 0) break;
            FutexWait(m_board->told, told, left);
        }
        double first = kLimitNs;
        double last = 0;
        for (uint32_t i = 0; i < m_board->watchers; ++i) {
            const Board::Watcher& watcher = m_board->each[i];
            const double time = watcher.number == number ? watcher.at - start : kLimitNs;
            first = std::min(first, time);
            last = std::max(last, time);
        }
        m_first.push_back(first);
        m_last.push_back(last);
        return true;
    }

    Board* m_board = nullptr;
    std::vector<pid_t> m_processes;
    std::vector<double> m_last; // of each write, until all watchers were told
    std::vector<double> m_first;
    std::vector<double> m_calls;
};
