// The desktop of a process and what becomes of it. Linux only, like the calls.
#include "posix_kit.h"
#include "private_machine.h"
#include "win32_kit.h"

#include <oriel_desktop.h>

#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::string Station() {
    char name[64] = "";
    return GetUserObjectInformationA(GetProcessWindowStation(), UOI_NAME, name, sizeof name, nullptr) ? name : "";
}

void SetDisplay(const char* x, const char* wayland = nullptr) {
    UseSetting("DISPLAY", x);
    UseSetting("WAYLAND_DISPLAY", wayland);
}

// Somebody who takes connections there, or took them once it is closed.
int Listener(const sockaddr* address, size_t size) {
    const int descriptor = socket(address->sa_family, SOCK_STREAM, 0);
    EXPECT_EQ(bind(descriptor, address, static_cast<socklen_t>(size)), 0);
    EXPECT_EQ(listen(descriptor, 1), 0);
    return descriptor;
}

int ListenerAt(const std::string& path) {
    sockaddr_un address{.sun_family = AF_UNIX};
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@') address.sun_path[0] = '\0';
    return Listener(reinterpret_cast<sockaddr*>(&address), offsetof(sockaddr_un, sun_path) + path.size());
}

} // namespace

TEST(Desktop, IsWhereADisplayIs) {
    const std::string services = "Service-0x0-" + (std::ostringstream() << std::hex << geteuid()).str() + "$";
    EXPECT_EQ(Station(), services);
    EXPECT_FALSE(OrielDesktopLives());
    SetDisplay("", "");
    EXPECT_EQ(Station(), services);
    for (const auto& [x, wayland] : {std::pair(":99", ""), std::pair("", "wayland-99")}) {
        SetDisplay(x, wayland);
        EXPECT_EQ(Station(), "WinSta0");
    }
    UseSetting("ORIEL_WINDOW_STATION", "Service-0x0-3e7$");
    EXPECT_EQ(Station(), "Service-0x0-3e7$");
    EXPECT_FALSE(OrielDesktopLives());
    UseSetting("ORIEL_WINDOW_STATION", nullptr);
}

TEST(Desktop, LivesWhileItsDisplayTakesConnections) {
    // Names of displays that nobody has: 7000 and more are taken for this test alone, by its process number.
    const std::string display = std::to_string(7000 + getpid() % 50000);
    const std::string folder = PrivateDirectory();
    UseSetting("XDG_RUNTIME_DIR", folder.c_str());
    sockaddr_in loopback{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    const int tcp = Listener(reinterpret_cast<sockaddr*>(&loopback), sizeof loopback);
    socklen_t size = sizeof loopback;
    ASSERT_EQ(getsockname(tcp, reinterpret_cast<sockaddr*>(&loopback), &size), 0);
    const std::string remote = "localhost:" + std::to_string(ntohs(loopback.sin_port) - 6000);
    const struct {
        std::string x, wayland;
        int listener;
    } rows[] = {
        {":0", "wayland-test", ListenerAt(folder + "/wayland-test")},
        {"", folder + "/other", ListenerAt(folder + "/other")},
        {":" + display + ".1", "", ListenerAt("@/tmp/.X11-unix/X" + display)},
        {"unix:" + std::to_string(std::stoi(display) + 1), "",
         ListenerAt("@/tmp/.X11-unix/X" + std::to_string(std::stoi(display) + 1))},
        {remote + ".0", "", tcp},
    };
    for (const auto& row : rows) {
        SetDisplay(row.x.c_str(), row.wayland.c_str());
        EXPECT_TRUE(OrielDesktopLives()) << row.x << " " << row.wayland;
        close(row.listener); // a crash leaves the file behind
        EXPECT_FALSE(OrielDesktopLives()) << row.x << " " << row.wayland;
    }
    SetDisplay(":0", "never-there");
    EXPECT_FALSE(OrielDesktopLives());
    // What cannot be told.
    for (const char* x : {"other-machine:0", "no display", ":", ":x", ":1x", ":99999999999", ":70000"}) {
        SetDisplay(x);
        EXPECT_TRUE(OrielDesktopLives()) << x;
    }
    SetDisplay("", std::string(200, 'w').c_str());
    EXPECT_TRUE(OrielDesktopLives());
}
