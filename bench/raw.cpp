// The bare limit: only a request and an answer of given sizes over a blocking Unix stream socket between two processes.
// No state. bench_raw REQUEST_BYTES ANSWER_BYTES
#include "rounds.h"

#include <csignal>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

bool ReceiveAll(int descriptor, char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t count = recv(descriptor, bytes, size, 0);
        if (count <= 0) return false;
        bytes += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

} // namespace

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
            if (send(pair[1], answer.data(), answer.size(), MSG_NOSIGNAL) < 0) break;
        _exit(0);
    }
    close(pair[1]);
    return ServeRounds([&] {
        return send(pair[0], request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size()) &&
               ReceiveAll(pair[0], answer.data(), answer.size());
    });
}
