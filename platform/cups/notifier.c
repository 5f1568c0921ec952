/* The notifier program of the print server for addresses "oriel-events:///TOKEN": the server starts it for a
 * subscription, and writes each event to its standard input. It passes on that there was one, by an empty datagram to
 * the socket of that token, and not what it was. An address cannot name another socket. No state. */
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define SCHEME "oriel-events:///"
#define TOKEN_SIZE 32
static const char kPrefix[] = "oriel-print-server-";

int main(int count, char** words) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    char* name = address.sun_path + 1; /* a name in the abstract name space */
    char events[65536];
    const char* token = count > 1 ? words[1] : "";
    if (strncmp(token, SCHEME, sizeof SCHEME - 1) != 0) return 1;
    token += sizeof SCHEME - 1;
    if (strlen(token) != TOKEN_SIZE || strspn(token, "0123456789abcdef") != TOKEN_SIZE) return 1;
    memcpy(name, kPrefix, sizeof kPrefix - 1);
    memcpy(name + sizeof kPrefix - 1, token, TOKEN_SIZE);
    const socklen_t size = offsetof(struct sockaddr_un, sun_path) + 1 + sizeof kPrefix - 1 + TOKEN_SIZE;
    const int out = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (out < 0) return 1;
    while (read(STDIN_FILENO, events, sizeof events) > 0) {
        /* A full queue means that the watcher will look anyway; without a watcher there is nobody to tell. */
        (void)sendto(out, "", 0, MSG_DONTWAIT, (const struct sockaddr*)&address, size);
    }
    return 0;
}
