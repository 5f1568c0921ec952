// The SNMP device against net-snmp's agent, which replays recorded walks of a printer.
#include "network_printer.h"
#include "print_server.h"
#include "printer_agent.h"
#include "printer_kit.h"
#include "private_machine.h"

#include "product/conditions.h"
#include "product/device_record.h"
#include "product/supplies_record.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

// An alert in the first row, and the counter that says so.
Objects Alert(int code, int severity = 3, int group = 7) {
    static int events = 0;
    return {{"43.5.1.1.19.4", "counter " + std::to_string(++events)},
            {"43.18.1.1.2.4.1", "integer " + std::to_string(severity)},
            {"43.18.1.1.5.4.1", "integer " + std::to_string(group)},
            {"43.18.1.1.7.4.1", "integer " + std::to_string(code)}};
}

struct Watched {
    explicit Watched(const std::string& uri)
        : side(TestProcess::Program(ProgramPath("TVSPSD.EXE"),
                                    {"--printer", kPrinters[0], "--device", uri, "--poll", "3000"})) {
        EXPECT_TRUE(WaitUntil([&] { return Number("PrinterExtStatus") == 1; }, 20000)) << side.Errors();
    }
    DWORD Number(const char* variable, size_t word = 0) const { return U32At(database.Value(variable), 4 * word); }
    std::string Text(const char* variable) const {
        const Bytes value = database.Value(variable);
        return {value.begin(), std::find(value.begin(), value.end(), 0)};
    }
    // Polls now.
    LONG Read() const { return DirectRead(database, "PrinterStatus"); }

    PrinterMachine machine;
    const Database& database = machine.databases[0];
    TestProcess side;
};

} // namespace

TEST(SnmpDevice, RecordedStatesAreUnderstood) {
    PrinterAgent agent;
    const Watched printer(agent.Uri());
    EXPECT_EQ(printer.Text("PrinterModel"), "Example Laser 7");
    EXPECT_EQ(printer.Text("PrinterManufacturer"), "Example");
    EXPECT_EQ(printer.Text("ServiceTag"), "SN-12345");
    EXPECT_EQ(printer.Text("PrinterDisplay"), "Ready");
    EXPECT_EQ(printer.Number("PageCount"), 4711u);
    EXPECT_EQ(printer.Number("CurrentFeeder"), 2u);
    EXPECT_EQ(printer.Number("PrinterExtConfig"), 0x3u);
    const Bytes bins = printer.database.Value("PrinterBinConfig");
    EXPECT_EQ(Bytes(bins.begin() + 4, bins.end()), (Bytes{2,    0, 0,    0,                           //
                                                          1,    0, 1,    0, 9, 0, 1, 2, 100, 0, 0, 0, // A4, 100 sheets
                                                          0xE9, 3, 0xE9, 3, 0, 0, 1, 2, 0,   0, 0, 0})) // at least one
        << "no -2 or -3 becomes a number";

    const Bytes supplies = printer.database.Value(kSuppliesVariable);
    SupplyRecord supply{};
    ASSERT_EQ(supplies.size(), 8 + sizeof supply);
    std::memcpy(&supply, &supplies[8], sizeof supply);
    EXPECT_EQ(std::string(supply.name) + " " + supply.kind + " " + supply.colour + " " + supply.unit,
              "Black toner toner black percent");
    EXPECT_EQ(supply.percent, 37);
    EXPECT_EQ(supply.capacity, 100) << "of a percentage";

    struct Row {
        const char* name;
        Objects objects;
        DWORD status[3];
        DWORD conditions;
    };
    Objects jam = Alert(8, 3, 2);
    jam.insert({{"25.3.5.1.2.4", "octet 06 00"}, {"25.3.2.1.5.4", "integer 5"}});
    Objects low = Alert(1104, 4, 1);
    low.insert({{"25.3.5.1.2.4", "octet 20"}, {"25.3.2.1.5.4", "integer 3"}});
    const Row rows[] = {
        {"printing", {{"25.3.5.1.1.4", "integer 4"}}, {0x1, 0, 0}, 0},
        {"a jam, offline", jam, {0x18, 1, 2}, 0x1000001},
        {"toner low, in one octet", low, {0x20, 0, 0}, 1u << 8},
        {"an open cover, no alert", {{"43.6.1.1.3.4.1", "integer 3"}}, {0, 0, 0}, 0},
        {"asleep", {{"25.3.5.1.1.4", "integer 1"}}, {0x4, 0, 0}, 0},
        {"warming up", {{"25.3.5.1.1.4", "integer 5"}}, {0x2, 0, 0}, 0},
        {"idle again, alerts without a counter", {{"43.5.1.1.19.4", "counter 999"}}, {0, 0, 0}, 0},
    };
    for (const Row& row : rows) {
        agent.Tell(Changed(row.objects));
        EXPECT_EQ(printer.Read(), 0) << row.name;
        for (size_t word = 0; word < 3; ++word)
            EXPECT_EQ(printer.Number("PrinterStatus", word), row.status[word]) << row.name << " word " << word;
        EXPECT_EQ(printer.Number("PrinterStatus2"), row.conditions) << row.name;
        EXPECT_EQ(printer.Number("ErrPaperJam"), row.conditions & 1 ? 2u : 0u) << row.name;
        EXPECT_EQ(printer.Number("ErrCoverOpen"), std::string(row.name).find("cover") != std::string::npos ? 1u : 0u);
        EXPECT_EQ(printer.Number("WarmupRemains"), row.status[0] == 2 ? 0xFFFFFFFFu : 0u) << row.name;
    }

    // Counters of sheets are no pages; a counter may be absent.
    agent.Tell(Changed({{"43.10.2.1.3.4.1", "integer 8"}}));
    EXPECT_EQ(printer.Read(), 0);
    EXPECT_EQ(printer.Number("PageCount"), 0xFFFFFFFFu);
    // A command is none of SNMP's.
    EXPECT_EQ(printer.database.Add("SetJobW", kTypeNumber, Number(0)), kDone);
    EXPECT_EQ(DirectWrite(printer.database, "SetJob", Number(1)), -50);
}

TEST(SnmpDevice, EachBitAndEachAlertHasItsCondition) {
    PrinterAgent agent;
    const Watched printer(agent.Uri());
    // hrPrinterDetectedErrorState, first octet high; the bits of RFC 2790 in their order.
    constexpr DWORD kBits[16] = {3, 1, 8, 7, 5, 0, 24, 27, 4, 14, 9, 13, 12, 1, 16, 32};
    for (int bit = 0; bit < 16; ++bit) {
        char octets[32];
        std::snprintf(octets, sizeof octets, "octet %02X %02X", bit < 8 ? 0x80 >> bit : 0,
                      bit < 8 ? 0 : 0x80 >> (bit - 8));
        agent.Tell(Changed({{"25.3.5.1.2.4", octets}}));
        EXPECT_EQ(printer.Read(), 0);
        EXPECT_EQ(printer.Number("PrinterStatus2"), kBits[bit] < 32 ? 1u << kBits[bit] : 0u) << octets;
    }
    const std::pair<int, DWORD> alerts[] = {
        {8, 0},     {808, 1},   {809, 2},   {810, 2},  {807, 3},  {801, 4},   {3, 5},     {501, 5},
        {5, 6},     {1101, 7},  {1102, 7},  {1104, 8}, {1105, 8}, {1115, 9},  {1109, 10}, {1110, 10},
        {1107, 11}, {1108, 11}, {903, 12},  {902, 13}, {901, 14}, {1112, 15}, {1111, 16}, {1002, 17},
        {1001, 18}, {1114, 19}, {1113, 20}, {813, 21}, {802, 21}, {1507, 22}, {34, 23},   {22, 24},
        {504, 25},  {1, 27},    {2, 27},    {29, 27},  {30, 27},  {4242, 32}, {0, 32}};
    for (const auto& [code, bit] : alerts) {
        agent.Tell(Changed(Alert(code)));
        EXPECT_EQ(printer.Read(), 0);
        EXPECT_EQ(printer.Number("PrinterStatus2"), bit < 32 ? 1u << bit : 0u) << code;
        const DWORD cause = bit < 32 ? static_cast<DWORD>(product::kConditions[bit].cause) : 0;
        EXPECT_EQ(printer.Number("PrinterStatus", 1), cause) << code;
        EXPECT_EQ(printer.Number("PrinterStatus", 2), cause != 0 ? 7u : 0u) << code;
    }
    // The table is not walked while its counter stands still.
    Objects silent = Alert(8);
    agent.Tell(Changed(silent));
    EXPECT_EQ(printer.Read(), 0);
    silent["43.18.1.1.7.4.1"] = "integer 808";
    agent.Tell(Changed(silent));
    EXPECT_EQ(printer.Read(), 0);
    EXPECT_EQ(printer.Number("PrinterStatus2"), 1u);
}

TEST(SnmpDevice, HostileAgentsAreSurvived) {
    PrinterAgent agent;
    Watched printer(agent.Uri());
    // Types that the objects do not have, texts beyond all fields, tables without end.
    Objects hostile = Changed({{"25.3.5.1.2.4", "integer 5"},
                               {"25.3.2.1.5.4", "string down"},
                               {"43.5.1.1.17.4", "string \x1B[2J" + std::string(2000, 'x')},
                               {"43.8.2.1.10.4.1", "string many"},
                               {"43.8.2.1.9.4.1", "counter 4294967295"},
                               {"43.10.2.1.4.4.1", "objectid .1.3"},
                               {"43.11.1.1.9.4.1", "integer -2147483648"},
                               {"43.11.1.1.3.4.1", "integer 999999"}});
    for (int row = 2; row < 900; ++row) {
        hostile["43.8.2.1.10.4." + std::to_string(row)] = "integer 2147483647";
        hostile["43.18.1.1.7.4." + std::to_string(row)] = "integer " + std::to_string(row);
    }
    agent.Tell(hostile);
    printer.Read(); // such an agent may be too slow to be read at all
    ASSERT_TRUE(printer.side.Running());
    agent.Tell(kIdle);
    EXPECT_TRUE(WaitUntil([&] { return printer.Read() == 0 && printer.Text("ServiceTag") == "SN-12345"; }, 20000));
    EXPECT_EQ(printer.Number("PageCount"), 4711u);
    EXPECT_EQ(printer.Number("PrinterStatus2"), 0u);

    // One that answers with what was sent, with bytes changed, cut short, or with nothing but noise.
    agent.End();
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{.sin_family = AF_INET, .sin_port = htons(static_cast<uint16_t>(agent.Port()))};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    std::atomic<bool> over = false;
    std::atomic<int> answered = 0;
    std::thread fake([&] {
        std::mt19937 random(17);
        char bytes[4096];
        while (!over) {
            sockaddr_in from{};
            socklen_t size = sizeof from;
            pollfd ready{socket, POLLIN, 0};
            if (poll(&ready, 1, 50) <= 0) continue;
            ssize_t length = recvfrom(socket, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from), &size);
            if (length <= 0) continue;
            for (ssize_t at = 0; at < length; ++at)
                if (bytes[at] == '\xA0' || bytes[at] == '\xA1' || bytes[at] == '\xA5') bytes[at] = '\xA2';
            for (unsigned wrong = random() % 6; wrong > 0; --wrong)
                bytes[random() % static_cast<unsigned>(length)] = static_cast<char>(random());
            if (random() % 4 == 0) length = static_cast<ssize_t>(random() % static_cast<unsigned>(length));
            sendto(socket, bytes, static_cast<size_t>(length), 0, reinterpret_cast<const sockaddr*>(&from), size);
            ++answered;
        }
    });
    for (int round = 0; round < 3; ++round)
        printer.Read();
    EXPECT_GT(answered, 3);
    over = true;
    fake.join();
    close(socket);
    ASSERT_TRUE(printer.side.Running());
    agent.Start();
    EXPECT_TRUE(WaitUntil([&] { return printer.Read() == 0 && printer.Number("PageCount") == 4711u; }, 20000));
}

TEST(SnmpDevice, AddsToAnIppPrinterWhatThatLacks) {
    PrinterAgent agent;
    IppPrinter ipp;
    const Watched printer(ipp.Uri() + "?snmp=" + agent.Uri());
    EXPECT_TRUE(WaitUntil([&] { return printer.Text("ServiceTag") == "SN-12345"; }));
    EXPECT_EQ(printer.Text("PrinterModel"), "Laser 7") << "what the printer itself tells goes first";
    EXPECT_NE(printer.Number("PrinterMemory"), 0xFFFFFFFFu);
    agent.Tell(Changed({{"43.6.1.1.3.4.1", "integer 3"}}));
    EXPECT_TRUE(WaitUntil([&] { return printer.Read() == 0 && printer.Number("ErrCoverOpen") == 1; }));
    agent.End(); // what only it told is not known any more; the rest goes on
    EXPECT_TRUE(WaitUntil([&] { return printer.Number("ErrCoverOpen") == 0; }, 20000));
    EXPECT_EQ(printer.Number("PrinterStatus"), 0u);
}

TEST(SnmpDevice, APrinterBehindAQueueIsFoundWhenItOrThePrintServerComesLater) {
    PrintServer server;
    const std::string host = OwnLoopbackHost();
    PrinterAgent agent(host, 161);
    server.Command("/usr/sbin/lpadmin", {"-p", "Wire", "-E", "-v", "socket://" + host + ":9100"});
    const PrinterMachine machine;
    const Database& database = machine.databases[0];
    const auto deviceIs = [&](const std::string& device) { return std::string(RecordIn(database).device) == device; };
    const auto start = [] {
        return TestProcess::Program(ProgramPath("TVSPSD.EXE"),
                                    {"--printer", kPrinters[0], "--device", "cups:Wire", "--poll", "500"});
    };
    agent.End();
    TestProcess side = start();
    EXPECT_TRUE(WaitUntil([&] { return deviceIs("cups:Wire"); })) << side.Errors();
    agent.Start();
    EXPECT_TRUE(WaitUntil([&] { return deviceIs("snmp://" + host); }, 30000)) << side.Errors();
    EXPECT_TRUE(WaitUntil([&] { return database.NumberIn("PageCount") == 4711; }));
    side.Terminate();
    EXPECT_EQ(side.Wait(), 0);

    agent.End();
    server.Process().Stop();
    side = start();
    EXPECT_TRUE(WaitUntil([&] { return deviceIs("cups:Wire"); })) << side.Errors();
    agent.Start();
    server.Process().Continue();
    EXPECT_TRUE(WaitUntil([&] { return deviceIs("snmp://" + host); }, 30000)) << side.Errors();
    side.Terminate();
    EXPECT_EQ(side.Wait(), 0);

    // It ends as soon as others do, while it looks for its printer.
    agent.End();
    side = start();
    EXPECT_TRUE(WaitUntil([&] { return deviceIs("cups:Wire"); })) << side.Errors();
    PauseMs(1500);
    const double began = NowMs();
    side.Terminate();
    EXPECT_EQ(side.Wait(), 0);
    EXPECT_LT(NowMs() - began, 2000);
}

TEST(SnmpDevice, VersionsCredentialsAndSilence) {
    PrinterAgent agent;
    const std::string secrets = PrivateDirectory() + "/secrets";
    const auto check = [](const std::string& device) {
        return RunProgram(ProgramPath("TVSPSD.EXE"), {"--check", "--device", device});
    };
    const auto write = [&](const std::string& text, int mode) {
        std::ofstream(secrets) << text;
        std::filesystem::permissions(secrets, static_cast<std::filesystem::perms>(mode));
    };
    const std::string right = "user watcher\nauth SHA-256\nauthpass a long passphrase\nprivpass another passphrase\n";
    const std::string v3 = "?version=3&credentials=" + secrets;
    write(right, 0600);
    ASSERT_TRUE(WaitUntil([&] { return check(agent.Uri()).exitCode == 0; }));
    for (const std::string& more : {std::string(), std::string("?version=1"), std::string("?community=public"), v3}) {
        const ProgramResult result = check(agent.Uri(more));
        EXPECT_EQ(result.exitCode, 0) << more << result.errors;
        EXPECT_NE(result.output.find("model: Example Laser 7\n"), std::string::npos) << more << result.output;
        EXPECT_NE(result.output.find("supply: Black toner, 37 %\n"), std::string::npos) << more << result.output;
    }
    struct Row {
        std::string more;
        const char* secrets;
        int mode;
        const char* error;
    };
    const Row rows[] = {
        {v3, right.c_str(), 0644, "others may read"},
        {v3, "user watcher\nauthpass short\n", 0600, "too short"},
        {v3, "authpass a long passphrase\n", 0600, "lack a user"},
        {v3, "user watcher\nauth SHA-256\nauthpass the wrong passphrase\nprivpass another passphrase\n", 0600,
         "takes no SNMP from us"},
        {"?version=3", "", 0600, "needs credentials"},
        {"?version=4", "", 0600, "no version of SNMP"},
        {"?secret=x", "", 0600, "no part of an SNMP address"},
        {"?credentials=/nowhere", "", 0600, "cannot read the credentials"},
        {"?community=private", "", 0600, "does not answer in time"},
    };
    for (const Row& row : rows) {
        write(row.secrets, row.mode);
        const ProgramResult result = check(agent.Uri(row.more));
        EXPECT_NE(result.exitCode, 0) << row.more;
        EXPECT_NE(result.errors.find(row.error), std::string::npos) << row.more << ": " << result.errors;
    }

    // It falls silent and comes back. Its community is shown to nobody.
    const Watched printer(agent.Uri("?community=public"));
    agent.End();
    EXPECT_EQ(printer.Read(), -50);
    EXPECT_EQ(printer.Number("PrinterStatus"), product::kStatusNoAnswer);
    const Bytes record = printer.database.Value(kDeviceVariable);
    EXPECT_EQ(std::string(record.begin(), record.end()).find("public"), std::string::npos);
    agent.Start();
    EXPECT_TRUE(WaitUntil([&] { return printer.Number("PrinterExtStatus") == 1; }, 20000));
    EXPECT_EQ(printer.Number("PrinterStatus"), 0u);
}
