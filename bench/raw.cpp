// The bare limit: only a request and an answer of given sizes over a blocking Unix stream socket between two processes.
// No state. bench_raw REQUEST_BYTES ANSWER_BYTES
#include "raw_stream.h"
#include "rounds.h"

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_raw REQUEST_BYTES ANSWER_BYTES\n");
        return 2;
    }
    std::vector<char> request(std::strtoul(argv[1], nullptr, 10));
    std::vector<char> answer(std::strtoul(argv[2], nullptr, 10));
    int pair[2];
    if (request.empty() || answer.empty() || socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return 2;
    const pid_t server = fork();
    if (server < 0) return 2;
    if (server == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(pair[0]);
        while (ReceiveAll(pair[1], request.data(), request.size()))
            if (!SendAll(pair[1], answer.data(), answer.size())) break;
        _exit(0);
    }
    close(pair[1]);
    return ServeRounds([&] {
        return SendAll(pair[0], request.data(), request.size()) && ReceiveAll(pair[0], answer.data(), answer.size());
    });
}
