// The desktop of the user: the window station of the process, and the display behind it. No state; each call reads the
// environment.
#include "base/call.h"
#include "base/descriptor.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <new>
#include <oriel_desktop.h>
#include <string>
#include <string_view>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <winstation.h>

namespace oriel {
namespace {

constexpr char kDesktopStation[] = "WinSta0";
constexpr char kNoStation[] = "none";
// The handle table never uses this value. It fits 32 bits.
const HWINSTA kStation = ULongToHandle(0xFFFFFFE0U);

constexpr unsigned kTcpPortOfDisplay0 = 6000;
constexpr unsigned kDisplayMax = 59535; // its port is 65,535

const char* Variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// A process with a display is on the desktop. Any other has the station that Windows gives to services of its account.
std::string StationName() {
    if (const char* set = Variable("ORIEL_WINDOW_STATION"); *set != '\0') return set;
    if (*Variable("DISPLAY") != '\0' || *Variable("WAYLAND_DISPLAY") != '\0') return kDesktopStation;
    char account[16] = {};
    std::to_chars(account, account + sizeof account - 1, geteuid(), 16);
    return std::string("Service-0x0-") + account + "$";
}

// Whether somebody listens at the address. In doubt true: false means that the desktop is gone.
bool SomebodyListens(const void* address, size_t size) {
    const auto* generic = static_cast<const sockaddr*>(address);
    const Descriptor socket(::socket(generic->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // connect() to a hung server must not hang this process too.
    const timeval second{.tv_sec = 1, .tv_usec = 0};
    if (!socket.IsOpen() || setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &second, sizeof second) != 0) return true;
    if (connect(socket.Get(), generic, static_cast<socklen_t>(size)) == 0) return true;
    return errno != ECONNREFUSED && errno != ENOENT;
}

// A leading '@' stands for the NUL of an abstract socket.
bool SomebodyListensAt(std::string_view path) {
    sockaddr_un address{.sun_family = AF_UNIX};
    if (path.size() >= sizeof address.sun_path) return true; // too long for a socket: it is elsewhere
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@') address.sun_path[0] = '\0';
    return SomebodyListens(&address, offsetof(sockaddr_un, sun_path) + path.size());
}

bool WaylandLives(const std::string& name) {
    if (name[0] == '/') return SomebodyListensAt(name);
    const std::string folder = Variable("XDG_RUNTIME_DIR");
    return folder.empty() || SomebodyListensAt(folder + "/" + name);
}

// "[HOST]:DISPLAY[.SCREEN]". A display forwarded by a remote login is at "localhost". Displays of other
// hosts are not queried and count as alive.
bool XLives(std::string_view name) {
    const size_t colon = name.rfind(':');
    if (colon == std::string_view::npos) return true;
    const std::string_view host = name.substr(0, colon);
    unsigned display = 0;
    const auto [end, error] = std::from_chars(name.data() + colon + 1, name.data() + name.size(), display);
    const bool whole = end == name.data() + name.size() || *end == '.';
    if (error != std::errc{} || !whole || display > kDisplayMax) return true;
    if (host == "localhost" || host == "127.0.0.1") {
        const auto port = static_cast<in_port_t>(kTcpPortOfDisplay0 + display);
        const sockaddr_in address{.sin_family = AF_INET,
                                  .sin_port = htons(port),
                                  .sin_addr = {.s_addr = htonl(INADDR_LOOPBACK)},
                                  .sin_zero = {}};
        return SomebodyListens(&address, sizeof address);
    }
    if (!host.empty() && host != "unix") return true;
    const std::string path = "/tmp/.X11-unix/X" + std::to_string(display);
    // X servers listen at a file, an abstract name or both.
    return SomebodyListensAt(path) || SomebodyListensAt("@" + path);
}

bool DisplayLives() {
    // With both displays, X is a guest of Wayland.
    if (const std::string wayland = Variable("WAYLAND_DISPLAY"); !wayland.empty()) return WaylandLives(wayland);
    return XLives(Variable("DISPLAY"));
}

} // namespace
} // namespace oriel

using namespace oriel;

HWINSTA WINAPI GetProcessWindowStation(void) {
    return Call<HWINSTA>(nullptr, [&]() -> HWINSTA {
        return StationName() != kNoStation ? kStation : Fail<HWINSTA>(ERROR_ACCESS_DENIED);
    });
}

BOOL WINAPI GetUserObjectInformationA(HANDLE object, int index, PVOID information, DWORD length, LPDWORD lengthNeeded) {
    if (object != kStation) return Fail(ERROR_INVALID_HANDLE);
    if (index != UOI_NAME || (information == nullptr && length != 0)) return Fail(ERROR_INVALID_PARAMETER);
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        const std::string name = StationName();
        const size_t needed = name.size() + 1;
        if (lengthNeeded != nullptr) *lengthNeeded = static_cast<DWORD>(needed);
        if (length < needed) return Fail(ERROR_INSUFFICIENT_BUFFER);
        std::memcpy(information, name.c_str(), needed);
        return TRUE;
    });
}

BOOL WINAPI OrielDesktopLives(void) {
    try {
        return strcasecmp(StationName().c_str(), kDesktopStation) == 0 && DisplayLives();
    } catch (const std::bad_alloc&) {
        return TRUE;
    }
}

BOOL WINAPI OrielLeaveCreator(void) {
    return daemon(0, 0) == 0 ? TRUE : Fail(SystemError(errno));
}
