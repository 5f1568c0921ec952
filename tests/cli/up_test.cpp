// The start-up process: what it makes, what it undoes, and that it keeps the service running.
#include "private_machine.h"
#include "product.h"

#include <gtest/gtest.h>

TEST(Up, MakesTheProductReadyKeepsItSoAndUndoesItOnInterrupt) {
    const std::string serviceKey = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\TVORSDB";
    // A service of another place is replaced.
    OrielText({"reg", "set", serviceKey, "ImagePath", "\\old\\TVSDBN.EXE"});
    OrielText({"reg", "set", serviceKey, "Type", "16", "--type", "dword"});
    OrielText({"reg", "set", serviceKey, "Start", "3", "--type", "dword"});
    AddExamplePrinter();
    {
        RunningProduct product;
        EXPECT_EQ(OrielText({"reg", "query", serviceKey, "ImagePath"}),
                  "\"" + WindowsPath(ProgramPath("TVSDBN.EXE")) + "\"");
        const Json status = OrielJson({"status"});
        EXPECT_EQ(status["installed"], true);
        EXPECT_EQ(status["service"], "running");
        EXPECT_EQ(status["initialised"], true);
        EXPECT_EQ(status["directory"], WindowsPath(ProgramPath("")));
        EXPECT_EQ(status["windowsVersion"], "5.1.2600");
        EXPECT_EQ(status["codePage"], 1252);
        EXPECT_EQ(status["stateDirectory"], std::getenv("ORIEL_STATE_DIR"));
        EXPECT_EQ(status["runDirectory"], std::getenv("ORIEL_RUNTIME_DIR"));

        // A second one leaves the first alone.
        EXPECT_EQ(OrielJson({"up"}, 1)["error"]["what"], "the product is already up, in another process");

        // A service that was killed is started again, and the values that have a copy are back.
        OrielText({"set", "Front desk", "PageCount", "77"});
        const int first = ServiceProcess();
        ASSERT_NE(first, 0);
        KillProcess(first);
        product.Event("service-ended");
        product.Event("service-started");
        EXPECT_NE(ServiceProcess(), first);
        EXPECT_EQ(OrielJson({"get", "Front desk", "PageCount"})["variables"][0]["value"], 77);

        product.Interrupt();
        product.Event("stopping");
        product.Event("stopped");
        EXPECT_EQ(product.Wait(), 0);
        EXPECT_NE(product.Errors().find("starting it again"), std::string::npos) << product.Errors();
    }
    const Json status = OrielJson({"status"}, 3);
    EXPECT_EQ(status["service"], "stopped");
    EXPECT_EQ(status["initialised"], false);
    EXPECT_EQ(ServiceProcess(), 0);

    // A service that ran before is left running.
    TestProcess service = TestProcess::Program(ProgramPath("TVSDBN.EXE"));
    ASSERT_TRUE(WaitUntil([] { return Oriel({"status"}).exitCode == 0; })); // it is, once the service runs
    {
        RunningProduct again;
        EXPECT_EQ(OrielJson({"status"})["initialised"], true);
    }
    EXPECT_EQ(OrielJson({"status"})["service"], "running");
    service.Terminate();
    EXPECT_EQ(service.Wait(), 0);
}

TEST(Up, QuietSaysNothing) {
    TestProcess up = TestProcess::Program(ProgramPath("oriel"), {"up", "--quiet"});
    ASSERT_TRUE(WaitUntil([] { return Oriel({"status"}).output.find("initialised      yes") != std::string::npos; }));
    up.Terminate();
    EXPECT_EQ(up.HearAll(), "");
    EXPECT_EQ(up.Wait(), 0);
    EXPECT_EQ(up.Errors(), "");
}
