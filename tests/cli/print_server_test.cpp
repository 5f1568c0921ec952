// A printer of the print server: jobs of all clients reach the variables by events, and commands reach the jobs.
#include "network_printer.h"
#include "print_server.h"
#include "printer_agent.h"
#include "product.h"

#include "campaign.h"

#include <map>
#include <random>
#include <set>
#include <sstream>

namespace {

// The jobs that are not over, by number, with their users.
using Queue = std::map<int, std::string>;

Queue ServersQueue(PrintServer& server, const std::string& name = "Office") {
    std::istringstream text(server.Command("/usr/bin/lpstat", {"-o", name}));
    Queue queue;
    for (std::string line; std::getline(text, line);) {
        std::istringstream fields(line);
        std::string job, user;
        fields >> job >> user;
        queue[std::stoi(job.substr(job.rfind('-') + 1))] = user;
    }
    return queue;
}

// The first 500 that wait, and what is printed.
Queue OurQueue() {
    const Json variables = OrielJson({"get", "Office", "SpoolerQueue", "SendingJobInfo", "PrinterQueue"})["variables"];
    Queue queue;
    for (const Json& job : variables[0]["value"])
        queue[job["jobId"]] = job["ownerName"];
    const Json sending = variables[1]["value"];
    if (sending["jobId"] != 0) queue[sending["jobId"]] = sending["ownerName"];
    EXPECT_EQ(variables[2]["value"].size(), sending["jobId"] != 0 ? 1u : 0u) << variables;
    return queue;
}

// What one of two queues has and the other has not, of the first 500.
std::string Difference(Queue ours, Queue theirs) {
    std::ostringstream text;
    for (Queue* queue : {&ours, &theirs})
        while (queue->size() > 500)
            queue->erase(std::prev(queue->end()));
    for (const auto& [job, user] : ours)
        if (!theirs.contains(job) || theirs[job] != user) text << " ours: " << job << " " << user;
    for (const auto& [job, user] : theirs)
        if (!ours.contains(job)) text << " theirs: " << job << " " << user;
    return text.str();
}

// Several users print, and hold, release and cancel their own jobs, and the operator everybody's. After a second of
// quiet both queues are the same.
void Load(PrintServer& server, int jobs, int looks, uint64_t seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(static_cast<unsigned>(seed));
    const std::string document = FileOf("page", "text");
    const std::string users[] = {"anna", "bert", "cleo", "root"};
    std::map<int, std::string> owners;
    std::set<std::string> changers;
    for (int job = 1; job <= jobs; ++job) {
        owners[job] = users[random() % 3];
        server.Command("/usr/bin/lp",
                       {"-U", owners[job], "-d", "Office", "-t", "job " + std::to_string(job), document});
        if (random() % 3 != 0) {
            const int victim = 1 + static_cast<int>(random() % static_cast<unsigned>(job));
            const std::string& who = users[random() % std::size(users)];
            const std::string number = "Office-" + std::to_string(victim);
            const std::vector<std::string> changes[] = {{"/usr/bin/lp", "-U", who, "-i", number, "-H", "hold"},
                                                        {"/usr/bin/lp", "-U", who, "-i", number, "-H", "resume"},
                                                        {"/usr/bin/cancel", "-U", who, number}};
            const std::vector<std::string>& change = changes[random() % std::size(changes)];
            const bool done = RunProgram(change[0], {change.begin() + 1, change.end()}).exitCode == 0;
            EXPECT_TRUE(!done || who == "root" || who == owners[victim]) << who << " changed " << number;
            if (done) changers.insert(who);
        }
        if (job % (jobs / looks) != 0) continue;
        PauseMs(1000);
        EXPECT_EQ(Difference(OurQueue(), ServersQueue(server)), "")
            << "after job " << job
            << ", and 3 s later:" << (PauseMs(3000), Difference(OurQueue(), ServersQueue(server)));
    }
    EXPECT_GE(changers.size(), 2u) << "several users changed jobs";
}

} // namespace

TEST(PrintServerSource, JobsOfAllClientsAreFollowedWithoutPollingCampaign) {
    const std::string listen = "localhost:" + std::to_string(FreePort());
    PrintServer server(listen);
    server.AddSlowPrinter("Slow");
    const RunningProduct product;
    EXPECT_EQ(OrielJson({"printers", "discover"})["printers"][0]["add"],
              "oriel printers add 'Office' --device 'cups:Office'");
    EXPECT_EQ(Oriel({"printers", "add", "Other", "--device", "cups:Office"}).exitCode, 2) << "its name is Office";
    for (const std::string queue : {"Office", "Slow"}) {
        EXPECT_EQ(Oriel({"printers", "add", queue, "--device", "cups:" + queue}).exitCode, 0);
        ExpectTakesRequests(queue);
    }
    Load(server, Rounds(24, 1000), Rounds(3, 50), Seed());

    // Commands reach the jobs by their numbers.
    const int first = ServersQueue(server).begin()->first;
    EXPECT_EQ(Oriel({"cancel", "Office", std::to_string(first)}).exitCode, 0);
    EXPECT_TRUE(WaitUntil([&] { return !OurQueue().contains(first); }));
    EXPECT_FALSE(ServersQueue(server).contains(first));

    // Nothing happens, and nobody asks.
    const std::string before = server.AccessLog();
    PauseMs(4000);
    EXPECT_EQ(server.AccessLog(), before);

    // A job that is printed.
    server.Print("A report", "Slow");
    EXPECT_TRUE(WaitUntil([] { return ValueOf("Slow", "PrintingJobInfo")["progress"] == 1; })) << server.AccessLog();
    EXPECT_EQ(ValueOf("Slow", "SendingJobInfo")["jobName"], "A report");
    EXPECT_EQ(ValueOf("Slow", "PrinterQueue").size(), 1u);
    EXPECT_EQ(ValueOf("Slow", "SpoolerQueue").size(), 0u);
    EXPECT_TRUE(WaitUntil([] { return VariableOf("Slow", "PrinterStatus")["meaning"] == "printing"; }))
        << VariableOf("Slow", "PrinterStatus");
    server.PrintOn();
    EXPECT_TRUE(WaitUntil([] { return ValueOf("Slow", "SendingJobInfo")["jobId"] == 0; }));
    EXPECT_TRUE(WaitUntil([] { return ValueOf("Slow", "PrinterQueue").empty(); }));
    EXPECT_EQ(ValueOf("Slow", "JobStatus"), 0);
    EXPECT_TRUE(WaitUntil([] { return VariableOf("Slow", "PrinterStatus")["meaning"] == "ready"; }));

    // It is restarted, and has forgotten who subscribed. Somebody else gets the number of the first subscription.
    server.Restart();
    const std::string subscribe = FileOf("subscribe", "{\nOPERATION Create-Printer-Subscription\n"
                                                      "GROUP operation-attributes-tag\n"
                                                      "ATTR charset attributes-charset utf-8\n"
                                                      "ATTR language attributes-natural-language en\n"
                                                      "ATTR uri printer-uri $uri\n"
                                                      "GROUP subscription-attributes-tag\n"
                                                      "ATTR keyword notify-pull-method ippget\n"
                                                      "ATTR keyword notify-events job-created\n"
                                                      "STATUS successful-ok\n}\n");
    for (int i = 0; i < 2; ++i)
        server.Command("/usr/bin/ipptool", {"ipp://" + listen + "/printers/Office", subscribe});
    server.Print("after the restart");
    EXPECT_TRUE(WaitUntil([&] { return Difference(OurQueue(), ServersQueue(server)).empty(); }));

    OrielText({"printers", "remove", "Slow"});
    EXPECT_EQ(server.Command("/usr/bin/lpstat", {"-v", "Slow"}).substr(0, 15), "device for Slow") << "the queue stays";
}

TEST(PrintServerSource, ASocketOrLpdQueueIsAskedBySnmpAndItsJobsAreTheServers) {
    PrintServer server;
    const std::string host = OwnLoopbackHost();
    PrinterAgent agent(host, 161);
    server.Command("/usr/sbin/lpadmin", {"-p", "Wire", "-E", "-v", "socket://" + host + ":9100/?waiteof=false"});
    server.Command("/usr/sbin/lpadmin", {"-p", "Line", "-E", "-v", "lpd://somebody@" + host + "/queue?format=l"});
    const RunningProduct product;
    for (const std::string queue : {"Wire", "Line"}) {
        const ProgramResult added = Oriel({"printers", "add", queue, "--device", "cups:" + queue});
        EXPECT_NE(added.output.find("device: snmp://" + host + "\n"), std::string::npos)
            << added.output << added.errors;
        ExpectTakesRequests(queue);
        EXPECT_EQ(ValueOf(queue, "PrinterModel"), "Example Laser 7");
        EXPECT_EQ(ValueOf(queue, "PageCount"), 4711);
    }
    server.Print("A letter", "Wire");
    EXPECT_TRUE(WaitUntil([] { return ValueOf("Wire", "SendingJobInfo")["jobName"] == "A letter"; }));
    EXPECT_EQ(ValueOf("Line", "SendingJobInfo")["jobId"], 0);
    agent.Tell(Changed({{"25.3.5.1.2.4", "octet 04 00"}, {"25.3.2.1.5.4", "integer 5"}}));
    OrielText({"get", "Wire", "PrinterStatus", "--kind", "4"}); // asks for polling
    EXPECT_TRUE(WaitUntil([] { return VariableOf("Wire", "ErrPaperJam")["meaning"] == "paper jam"; }));
    EXPECT_EQ(ValueOf("Wire", "SendingJobInfo")["jobName"], "A letter")
        << "the printer's reading leaves the jobs alone";
    agent.End();
    EXPECT_TRUE(WaitUntil([] { return VariableOf("Wire", "ErrPaperJam")["stale"] == true; }));
    const int job = ServersQueue(server, "Wire").begin()->first;
    EXPECT_EQ(Oriel({"cancel", "Wire", std::to_string(job)}).exitCode, 0) << "jobs go on without the agent";
    EXPECT_TRUE(WaitUntil([] { return ValueOf("Wire", "SendingJobInfo")["jobId"] == 0; }));
}
