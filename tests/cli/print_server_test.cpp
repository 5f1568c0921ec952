// A printer of the print server: jobs of all clients reach the variables by events, and commands reach the jobs.
#include "print_server.h"
#include "product.h"

#include "campaign.h"

#include <map>
#include <random>
#include <sstream>

namespace {

// The jobs that are not over, by number, with their users.
using Queue = std::map<int, std::string>;

Queue ServersQueue(PrintServer& server) {
    std::istringstream text(server.Command("/usr/bin/lpstat", {"-o", "Office"}));
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

// Several users print, hold, release and cancel; after a second of quiet both queues are the same.
void Load(PrintServer& server, int jobs, int looks, uint64_t seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(static_cast<unsigned>(seed));
    const std::string document = FileOf("page", "text");
    const std::string users[] = {"anna", "bert", "cleo"};
    for (int job = 1; job <= jobs; ++job) {
        const std::string& user = users[random() % 3];
        server.Command("/usr/bin/lp", {"-U", user, "-d", "Office", "-t", "job " + std::to_string(job), document});
        const std::string victim = "Office-" + std::to_string(1 + random() % static_cast<unsigned>(job));
        const char* const changes[] = {"hold", "resume"};
        if (random() % 4 == 0) RunProgram("/usr/bin/lp", {"-i", victim, "-H", changes[random() % 2]});
        if (random() % 6 == 0) RunProgram("/usr/bin/cancel", {"-U", user, victim}); // its own ones only
        if (job % (jobs / looks) != 0) continue;
        PauseMs(1000);
        EXPECT_EQ(Difference(OurQueue(), ServersQueue(server)), "") << "after job " << job;
    }
}

} // namespace

TEST(PrintServerSource, JobsOfAllClientsAreFollowedWithoutPollingCampaign) {
    PrintServer server;
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

    // It is restarted, and has forgotten who subscribed.
    server.Restart();
    PauseMs(3000);
    server.Print("after the restart");
    EXPECT_TRUE(WaitUntil([&] { return Difference(OurQueue(), ServersQueue(server)).empty(); }));

    OrielText({"printers", "remove", "Slow"});
    EXPECT_EQ(server.Command("/usr/bin/lpstat", {"-v", "Slow"}).substr(0, 15), "device for Slow") << "the queue stays";
}
