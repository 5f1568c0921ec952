// Printers that announce themselves: Avahi, CUPS's own printer and hostile announcements, on a network of the test's
// own.
#include "product.h"

#include <filesystem>
#include <fstream>
#include <map>

namespace {

// In the folder `at`. The loopback interface of a new network has no multicast. Avahi keeps its files in /run.
constexpr const char* kScript = R"sh(
    cd "$at" && mount -t tmpfs none /run &&
    mount -t tmpfs none /etc/avahi/services && ip link set lo up multicast on || exit 9
    printf '[server]\nallow-interfaces=lo\nuse-ipv6=no\nratelimit-interval-usec=0\n' >avahi.conf
    cat >bus.conf <<END
        <busconfig><type>system</type><listen>unix:path=$at/bus</listen><policy context="default">
        <allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/></policy></busconfig>
END
    export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$at/bus"
    dbus-daemon --config-file=bus.conf --nofork --nopidfile &
    until [ -S bus ]; do sleep 0.05; done
    cat >/etc/avahi/services/hostile.service <<'END'
        <service-group><name>"$(touch pwned)</name><service><type>_ipp._tcp</type><port>8631</port>
        <txt-record>rp=x';touch pwned;'"`touch pwned`?snmp=snmp://other</txt-record>
        <txt-record value-format="binary-hex">ty=1b5b33316dff00</txt-record></service></service-group>
END
    avahi-daemon -f "$at/avahi.conf" --no-drop-root --no-chroot --no-rlimits --no-proc-title &
    until [ -S /run/avahi-daemon/socket ]; do sleep 0.05; done
    mkdir spool keys
    announce() { ippeveprinter -p $1 -n localhost -d spool -K keys -f text/plain -m "$3" -l "$3" "$2" & }
    announce 8631 'Lab printer' 'Laser 7'
    announce 8632 "$(printf "';touch pwned;'\033[31m\n\$(touch pwned)")" "$(printf '\033]0;x\007')"
    announce 8633 $(printf 'x%.0s' $(seq 63)) long
    for try in 1 2 3 4 5; do
        "$oriel" printers discover >shown
        [ $(grep -c 'printers add' shown) = 4 ] && break
    done
    sed -n 's/^  oriel printers/"$oriel" printers/p' shown >add
    . ./add >/dev/null 2>&1
    [ ! -e pwned ] || echo pwned
    tr -d '\n\040-\176' <shown | wc -c
    "$oriel" printers discover --json >found
    "$oriel" printers --json >added
)sh";

} // namespace

TEST(Discovery, FindsPrintersThatAnnounceThemselvesAndPrintsWhatTheySaySafely) {
    const std::string folder = PrivateDirectory() + "/network";
    std::filesystem::create_directories(folder);
    const ProgramResult result = RunProgram("/usr/bin/unshare", {"-n", "-m", "-p", "-f", "sh", "-c", kScript},
                                            {{"oriel", ProgramPath("oriel")}, {"at", folder}});
    EXPECT_EQ(result.output, "0\n") << "nothing was carried out, and all that was shown is ASCII" << result.errors;
    std::map<std::string, std::string> added;
    const Json printers = Json::parse(std::ifstream(folder + "/added"));
    for (const Json& printer : printers["printers"])
        added[printer["name"]] = printer["device"];
    EXPECT_EQ(added.size(), 3u) << "each line adds its printer, but for the one whose path leads nowhere";
    const Json found = Json::parse(std::ifstream(folder + "/found"))["printers"];
    EXPECT_EQ(found.size(), 4u) << found;
    for (const Json& printer : found)
        EXPECT_TRUE(printer["name"] != "Lab_printer" || printer["address"] == added["Lab_printer"]) << printer;
    EXPECT_EQ(added["Lab_printer"], "ipps://127.0.0.1:8631/ipp/print");
    EXPECT_EQ(found.dump().find("snmp"), std::string::npos) << "an announcement names no agent";
}
