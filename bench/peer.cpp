// A client of another store or bus, by its bytes. bench/peers makes the bytes; all byte arguments are hexadecimal.
//
//   bench_peer read SOCKET HELLO REQUEST VALUE
//       a request and its reply, which has the value, by the protocol of rounds.h
//   bench_peer told SOCKET HELLO WRITE WATCH SIGN ASK WATCHERS
//       an update, until each watcher has the value, by the protocol of told.h. A watcher sends WATCH. Whenever bytes
//       with SIGN arrive, it sends ASK over a second connection, unless that is empty, and takes the value that
//       follows.
//   bench_peer answer SOCKET HELLO REPLY
//       sends REPLY for whatever arrives
//
// HELLO and WATCH are steps separated by ":". After each step the client reads until nothing has arrived for kQuietMs.
// A value is "JS" and the number of the write in ten digits. In WRITE it is "JS##########". The first reply to a
// request shows how long all of them are. No state.
#include "raw_stream.h"
#include "told.h"

#include <optional>
#include <poll.h>
#include <string_view>
#include <sys/un.h>

namespace {

constexpr int kQuietMs = 100;
constexpr std::string_view kValueMark = "JS";
constexpr size_t kDigits = 10;

std::string Bytes(std::string_view hexadecimal) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hexadecimal.size(); i += 2)
        bytes += static_cast<char>(std::stoi(std::string(hexadecimal.substr(i, 2)), nullptr, 16));
    return bytes;
}

[[noreturn]] void Fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

class Connection {
public:
    Connection(const char* path, std::string_view hello) : m_socket(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
        if (connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Fail(path);
        Steps(hello);
    }

    void Steps(std::string_view steps) {
        while (!steps.empty()) {
            const size_t end = std::min(steps.find(':'), steps.size());
            Send(Bytes(steps.substr(0, end)));
            ReadUntilQuiet();
            steps.remove_prefix(std::min(end + 1, steps.size()));
        }
    }

    void Send(std::string_view bytes) {
        if (!SendAll(m_socket, bytes.data(), bytes.size())) Fail("send");
    }

    // The reply to a request. All have one length, which may be 0.
    std::string_view ReadReply() {
        if (m_known) {
            if (!ReceiveAll(m_socket, m_bytes.data(), m_bytes.size())) Fail("recv");
        } else {
            m_bytes = ReadUntilQuiet();
            m_known = true;
        }
        return m_bytes;
    }

    // More bytes, at least one.
    std::string_view Read() {
        const ssize_t count = recv(m_socket, m_part, sizeof m_part, 0);
        if (count <= 0) Fail("recv");
        return {m_part, static_cast<size_t>(count)};
    }

private:
    std::string ReadUntilQuiet() {
        std::string bytes;
        for (pollfd poller{m_socket, POLLIN, 0}; poll(&poller, 1, kQuietMs) > 0;)
            bytes += Read();
        return bytes;
    }

    int m_socket;
    bool m_known = false; // m_bytes has the length of a reply
    std::string m_bytes;
    char m_part[4096];
};

// 0: the bytes have no whole value.
uint32_t ValueIn(std::string_view bytes) {
    const size_t at = bytes.rfind(kValueMark);
    if (at == bytes.npos || bytes.size() - at < kValueMark.size() + kDigits) return 0;
    return static_cast<uint32_t>(std::stoul(std::string(bytes.substr(at + kValueMark.size(), kDigits))));
}

struct ToldArguments {
    const char* path;
    const char* hello;
    std::string write;
    const char* watch;
    std::string sign;
    std::string ask;
};

// A message may arrive in parts.
template <typename Found> // bool(std::string_view)
void ReadUntil(Connection& connection, Found found) {
    for (std::string bytes; !found(bytes);)
        bytes += connection.Read();
}

[[noreturn]] void Watch(const ToldArguments& arguments, const WatcherRole& role) {
    Connection events(arguments.path, arguments.hello);
    std::optional<Connection> values;
    if (!arguments.ask.empty()) values.emplace(arguments.path, arguments.hello);
    events.Steps(arguments.watch);
    uint32_t number = 0;
    const auto hasValue = [&](std::string_view bytes) { return (number = ValueIn(bytes)) != 0; };
    for (role.Ready();;) {
        if (values) {
            ReadUntil(events, [&](std::string_view bytes) { return bytes.find(arguments.sign) != bytes.npos; });
            values->Send(arguments.ask);
        }
        ReadUntil(values ? *values : events, hasValue);
        role.Tell(number);
    }
}

int Write(Watchers& watchers, ToldArguments& arguments) {
    const size_t digits = arguments.write.find("##########");
    if (digits == std::string::npos) return 2;
    Connection connection(arguments.path, arguments.hello);
    return watchers.Serve([&](uint32_t number) {
        char text[kDigits + 1];
        std::snprintf(text, sizeof text, "%010u", number);
        arguments.write.replace(digits, kDigits, text);
        connection.Send(arguments.write);
        connection.ReadReply();
        return true;
    });
}

int MeasureRead(Connection connection, const std::string& request, const std::string& value) {
    return ServeRounds([&] {
        connection.Send(request);
        return connection.ReadReply().find(value) != std::string_view::npos;
    });
}

int Answer(Connection connection, const std::string& reply) {
    PrintReady();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
        connection.Read();
        connection.Send(reply);
    }
}

} // namespace

int main(int argc, char** argv) {
    const WatcherRole role(argc, argv);
    const std::string operation = argc > 1 ? argv[1] : "";
    if (operation == "read" && argc == 6) return MeasureRead({argv[2], argv[3]}, Bytes(argv[4]), Bytes(argv[5]));
    if (operation == "answer" && argc == 5) return Answer({argv[2], argv[3]}, Bytes(argv[4]));
    if (operation == "told" && argc == 9) {
        ToldArguments arguments{argv[2], argv[3], Bytes(argv[4]), argv[5], Bytes(argv[6]), Bytes(argv[7])};
        if (role.board != nullptr) Watch(arguments, role);
        Watchers watchers(argc, argv, std::atoi(argv[8]));
        return Write(watchers, arguments);
    }
    std::fprintf(stderr, "usage: bench_peer read|told|answer ...; bench/peers starts it\n");
    return 2;
}
