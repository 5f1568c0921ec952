// Jobs of a real print server, commanded through the product's variables and looked at with the server's own commands.
#include "print_server.h"
#include "product.h"

TEST(PrintServerJobs, ArePausedResumedAndCancelledByTheirOwnerAlone) {
    PrintServer server;
    RunningProduct product; // the registry knows no printer and no model
    server.Print("letter");
    server.Print("r\xc3\xa9sum\xc3\xa9");
    const Json jobs = OrielJson({"jobs", "Office"})["spooler"];
    ASSERT_EQ(jobs.size(), 2U) << jobs << server.Log();
    EXPECT_EQ(jobs[0]["title"], "letter");
    EXPECT_EQ(jobs[1]["title"], "r\u00E9sum\u00E9");

    const auto isBeingSent = [](const char* job) {
        OrielText({"set", "Office", "SendingJobInfo", std::string("jobId=") + job});
    };
    isBeingSent("2");
    constexpr const char* kHeld = "job-hold-until-specified";
    const struct {
        Words command;
        const char* alerts[2]; // of the two jobs
    } rows[] = {
        {{"pause", "Office"}, {"none", kHeld}},
        {{"resume", "Office"}, {"none", "none"}},
        {{"set", "Office", "SetJob", "1"}, {"none", kHeld}},
        {{"set", "Office", "SetJob", "2"}, {"none", "none"}},
        {{"cancel", "Office", "2"}, {"none", ""}},
    };
    for (const auto& row : rows) {
        OrielText(row.command);
        EXPECT_EQ(server.Alerts(1), row.alerts[0]) << row.command[0];
        EXPECT_EQ(server.Alerts(2), row.alerts[1]) << row.command[0];
    }

    if (RunsAsRoot()) {
        isBeingSent("1");
        for (const Words& refused : {Words{"pause", "Office"}, {"cancel", "Office", "1"}}) {
            const ProgramResult result = OrielAs(65534, refused);
            EXPECT_EQ(result.exitCode, 4) << refused[0] << result.output << result.errors;
            EXPECT_EQ(server.Alerts(1), "none") << refused[0];
        }
    }
    OrielText({"set", "Office", "DeleteJobId", "1"});
    EXPECT_EQ(server.Alerts(1), "");
    EXPECT_EQ(OrielJson({"jobs", "Office"})["spooler"], Json::array());
}
