// The bare chain of a notification: bench_raw_told FORM REQUEST_BYTES ANSWER_BYTES WATCHERS (see told.h)
//
// The writer sends a request over a Unix stream socket. The server stores the value in shared memory, wakes the
// watchers by a futex, and answers. The forms are the hops within a watcher that those of the library have too:
//
//   callback   the thread that is woken takes the value
//   event      it wakes the main thread by a futex, which takes the value
//   message    it writes into a pipe that the main thread reads, which then takes the value
//
// No state.
#include "raw_stream.h"
#include "told.h"

#include <thread>

namespace {

constexpr size_t kMessageSize = 32;

int StartServer(Board& board, size_t requestSize, size_t answerSize) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) std::exit(1);
    const pid_t server = fork();
    if (server < 0) std::exit(1);
    if (server > 0) {
        close(pair[1]);
        return pair[0];
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(pair[0]);
    std::vector<char> request(requestSize);
    const std::vector<char> answer(answerSize);
    while (ReceiveAll(pair[1], request.data(), request.size())) {
        uint32_t number = 0;
        std::memcpy(&number, request.data(), sizeof number);
        board.value = number;
        board.signal.fetch_add(1);
        FutexWakeAll(board.signal);
        if (!SendAll(pair[1], answer.data(), answer.size())) break;
    }
    _exit(0);
}

template <typename Hop> // void()
void ForEachSignal(const WatcherRole& role, Hop hop) {
    Word& signal = role.board->signal;
    uint32_t seen = signal;
    for (role.Ready();;) {
        FutexWait(signal, seen, 0);
        const uint32_t now = signal;
        if (now != seen) hop();
        seen = now;
    }
}

void Watch(const std::string& form, const WatcherRole& role) {
    const auto take = [&role] { role.Tell(role.board->value); };
    if (form == "callback") ForEachSignal(role, take);
    if (form == "event") {
        Word event = 0;
        const std::thread thread([&] {
            ForEachSignal(role, [&event] {
                event.fetch_add(1);
                FutexWakeAll(event);
            });
        });
        for (uint32_t seen = 0;;) {
            FutexWait(event, seen, 0);
            if (event == seen) continue;
            seen = event;
            take();
        }
    }
    int ends[2];
    if (pipe(ends) != 0) std::exit(1);
    char message[kMessageSize] = {};
    const std::thread thread([&] {
        ForEachSignal(role, [&] {
            if (write(ends[1], message, sizeof message) < 0) std::exit(1);
        });
    });
    for (char received[kMessageSize]; read(ends[0], received, sizeof received) > 0;)
        take();
}

} // namespace

int main(int argc, char** argv) {
    const WatcherRole role(argc, argv);
    const std::string form = argc == 5 ? argv[1] : "";
    const size_t requestSize = argc == 5 ? std::strtoul(argv[2], nullptr, 10) : 0;
    const size_t answerSize = argc == 5 ? std::strtoul(argv[3], nullptr, 10) : 0;
    if ((form != "event" && form != "message" && form != "callback") || requestSize < sizeof(uint32_t) ||
        answerSize == 0) {
        std::fprintf(stderr, "usage: bench_raw_told event|message|callback REQUEST_BYTES ANSWER_BYTES WATCHERS\n");
        return 2;
    }
    if (role.board != nullptr) {
        Watch(form, role);
        return 1;
    }
    Watchers watchers(argc, argv, std::atoi(argv[4]));
    const int server = StartServer(watchers.Shared(), requestSize, answerSize);
    std::vector<char> request(requestSize);
    std::vector<char> answer(answerSize);
    return watchers.Serve([&](uint32_t number) {
        std::memcpy(request.data(), &number, sizeof number);
        return SendAll(server, request.data(), request.size()) && ReceiveAll(server, answer.data(), answer.size());
    });
}
