// The desktop of a process and what becomes of it.
#include "kit.h"
#include "private_machine.h"

#include <oriel_desktop.h>

#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <tuple>
#include <unistd.h>

namespace {

void SetDisplay(const std::string& x, const std::string& wayland = "") {
    UseSetting("DISPLAY", x.c_str());
    UseSetting("WAYLAND_DISPLAY", wayland.c_str());
}

// Somebody who takes connections there, or took them once it is closed.
int Listener(const std::string& path) {
    sockaddr_un address{.sun_family = AF_UNIX};
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@') address.sun_path[0] = '\0';
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    EXPECT_EQ(bind(descriptor, reinterpret_cast<sockaddr*>(&address), size) + listen(descriptor, 1), 0);
    return descriptor;
}

} // namespace

TEST(Desktop, LivesWhileItsDisplayTakesConnections) {
    // Numbers of displays that nobody has: 7000 and more are taken for this test alone, by its process number.
    const std::string x = std::to_string(7000 + getpid() % 50000);
    EXPECT_FALSE(OrielDesktopLives()) << "there is none";
    const std::string folder = PrivateDirectory();
    UseSetting("XDG_RUNTIME_DIR", folder.c_str());
    sockaddr_in any{};
    socklen_t size = sizeof any;
    const int tcp = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(listen(tcp, 1) + getsockname(tcp, reinterpret_cast<sockaddr*>(&any), &size), 0);
    const std::tuple<std::string, std::string, int> rows[] = {
        {":0", "wayland-test", Listener(folder + "/wayland-test")},
        {":" + x + ".1", "", Listener("@/tmp/.X11-unix/X" + x)},
        {"localhost:" + std::to_string(ntohs(any.sin_port) - 6000) + ".0", "", tcp},
    };
    for (const auto& [x11, wayland, listener] : rows) {
        SetDisplay(x11, wayland);
        EXPECT_TRUE(OrielDesktopLives()) << x11 << " " << wayland;
        close(listener); // a crash leaves the file behind
        EXPECT_FALSE(OrielDesktopLives()) << x11 << " " << wayland;
    }
    // What cannot be told.
    for (const char* unknown : {"other-machine:0", ":1x", ":99999999999", ":70000"}) {
        SetDisplay(unknown);
        EXPECT_TRUE(OrielDesktopLives()) << unknown;
    }
    SetDisplay("", std::string(200, 'w'));
    EXPECT_TRUE(OrielDesktopLives());
}
