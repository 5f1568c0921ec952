// Printers and jobs of a real print server, and servers that do not answer.
#include "base/timings.h"
#include "posix_kit.h"
#include "print_server.h"
#include "spooler_kit.h"
#include "unix_stream.h"

#include <rpcnterr.h>

namespace {

constexpr DWORD kPaused = JOB_STATUS_PAUSED;

std::string JobLine(int job, DWORD status, const std::string& document) {
    const std::string user = RunProgram("/usr/bin/id", {"-un"}).output;
    return std::to_string(job) + " " + std::to_string(status) + " " + user.substr(0, user.size() - 1) + " " + document +
           "\n";
}

HANDLE OpenOffice() {
    HANDLE printer = nullptr;
    EXPECT_EQ(Open("office", &printer), DWORD{ERROR_SUCCESS}) << "names have no case";
    return printer;
}

} // namespace

TEST(PrintServer, ItsJobsArePausedResumedAndCancelled) {
    PrintServer server;
    server.Command("/usr/sbin/lpadmin", {"-p", "Other", "-v", "file:/dev/null"});
    server.Command("/usr/sbin/cupsaccept", {"Other"});
    const HANDLE printer = OpenOffice();
    EXPECT_EQ(JobsOf(printer), "");
    server.Print("letter");
    server.Print("elsewhere", "Other");
    server.Print("r\xc3\xa9sum\xc3\xa9 \xe2\x88\x80");
    const std::string second = JobLine(3, 0, "r\xe9sum\xe9 ?");
    EXPECT_EQ(JobsOf(printer), JobLine(1, 0, "letter") + second);
    EXPECT_EQ(JobsOf(printer, 1, 1), second);

    const struct {
        int job;
        DWORD command, code, status;
        const char* alerts; // of the first job
    } rows[] = {
        {1, JOB_CONTROL_PAUSE, ERROR_SUCCESS, kPaused, "job-hold-until-specified"},
        {1, JOB_CONTROL_PAUSE, ERROR_SUCCESS, kPaused, "job-hold-until-specified"},
        {2, JOB_CONTROL_CANCEL, ERROR_INVALID_PARAMETER, kPaused, "job-hold-until-specified"},
        {1, JOB_CONTROL_RESUME, ERROR_SUCCESS, 0, "none"},
        {1, JOB_CONTROL_RESUME, ERROR_SUCCESS, 0, "none"},
        {99, JOB_CONTROL_CANCEL, ERROR_INVALID_PARAMETER, 0, "none"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Control(printer, static_cast<DWORD>(row.job), row.command), row.code) << row.job << row.command;
        EXPECT_EQ(JobsOf(printer), JobLine(1, row.status, "letter") + second);
        EXPECT_EQ(server.Alerts(1), row.alerts);
    }
    EXPECT_EQ(Control(printer, 1, JOB_CONTROL_CANCEL), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(server.Alerts(1), "");
    EXPECT_EQ(server.Alerts(2, "Other"), "none");
    EXPECT_EQ(JobsOf(printer), second);
    EXPECT_EQ(Control(printer, 1, JOB_CONTROL_CANCEL), DWORD{ERROR_INVALID_PARAMETER}) << "it is cancelled already";
    EXPECT_EQ(Start(printer, "not here"), 0U);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_SUPPORTED});

    const unsigned descriptors = OpenDescriptors();
    JobsOf(printer);
    EXPECT_EQ(OpenDescriptors(), descriptors);
    server.Command("/usr/sbin/lpadmin", {"-x", "Office"});
    EXPECT_EQ(JobsOf(printer), "error 1905");
}

TEST(PrintServer, ItsPrintersComeBehindTheEmbeddedOnes) {
    PrintServer server;
    ASSERT_EQ(Add("Embedded"), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(PrintersOf(kBoth), (Names{"Embedded", "Office"}));
    EXPECT_EQ(PrintersOf(PRINTER_ENUM_CONNECTIONS), Names{});
    std::vector<BYTE> memory(4096);
    DWORD needed = 0;
    const HANDLE printer = OpenOffice();
    ASSERT_TRUE(GetPrinterA(printer, 2, memory.data(), 4096, &needed)) << GetLastError();
    const auto& record = *reinterpret_cast<PRINTER_INFO_2A*>(memory.data());
    EXPECT_STREQ(record.pPrinterName, "Office");
    EXPECT_STREQ(record.pPortName, "file:/dev/null");
    EXPECT_STREQ(record.pComment, "of the office");
    EXPECT_STREQ(record.pLocation, "Room 1");
    EXPECT_STREQ(record.pDriverName, "Local Raw Printer");
    EXPECT_EQ(record.pServerName, nullptr);
    HANDLE none = nullptr;
    EXPECT_EQ(Open("Nobody's", &none), DWORD{ERROR_INVALID_PRINTER_NAME});

    // A name in both is the embedded spool's; handles stay with what they were opened for.
    ASSERT_EQ(Add("OFFICE", "Own driver"), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(PrintersOf(kBoth), (Names{"Embedded", "OFFICE"}));
    ASSERT_TRUE(GetPrinterA(OpenOffice(), 2, memory.data(), 4096, &needed));
    EXPECT_STREQ(record.pDriverName, "Own driver");
    ASSERT_TRUE(GetPrinterA(printer, 2, memory.data(), 4096, &needed));
    EXPECT_STREQ(record.pDriverName, "Local Raw Printer");
}

CHILD_PROCESS(ChangesJobsAsAnotherUser) {
    if (!BecomeNobody()) return 1;
    const HANDLE printer = OpenOffice();
    std::string said;
    for (const DWORD command : {JOB_CONTROL_PAUSE, JOB_CONTROL_RESUME, JOB_CONTROL_CANCEL})
        said += std::to_string(Control(printer, 1, command)) + " ";
    child.Say(said + JobsOf(printer));
    return 0;
}

TEST_AS_ROOT(PrintServer, AJobOfAnotherUserIsRefused) {
    PrintServer server;
    server.Print("secret");
    TestProcess other("ChangesJobsAsAnotherUser");
    // Whose it is and what it is called is not told either.
    EXPECT_EQ(other.Hear(), "5 5 5 1 0  ") << server.Log();
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_EQ(server.Alerts(1), "none");
}

TEST(PrintServer, OneThatStandsStillOrGoesIsAnError) {
    PrintServer server;
    ASSERT_EQ(Add("Embedded"), DWORD{ERROR_SUCCESS});
    const HANDLE printer = OpenOffice();
    server.Process().Stop();
    oriel::g_timings.printServerCall = 300;
    const double begun = NowMs();
    DWORD needed = 0;
    DWORD returned = 0;
    EXPECT_FAILS(EnumJobsA(printer, 0, 9, 1, nullptr, 0, &needed, &returned), ERROR_TIMEOUT);
    EXPECT_EQ(Control(printer, 1, JOB_CONTROL_PAUSE), DWORD{ERROR_TIMEOUT});
    HANDLE none = nullptr;
    EXPECT_EQ(Open("Nobody's", &none), DWORD{ERROR_TIMEOUT}) << "it is not asked again at once";
    EXPECT_EQ(PrintersOf(kBoth), Names{"Embedded"});
    EXPECT_LT(NowMs() - begun, 3000) << "two calls that wait, and not for longer than they may";
    oriel::g_timings = {};
    server.Process().Continue();
    EXPECT_EQ(JobsOf(printer), "");
    EXPECT_EQ(PrintersOf(kBoth), (Names{"Embedded", "Office"}));
    server.Process().Kill();
    EXPECT_EQ(JobsOf(printer), "error " + std::to_string(RPC_S_SERVER_UNAVAILABLE));
    EXPECT_EQ(PrintersOf(kBoth), Names{"Embedded"});
    EXPECT_EQ(Open("Nobody's", &none), DWORD{ERROR_INVALID_PRINTER_NAME});
}

// Each byte comes in time, and the answer never.
TEST(PrintServer, OneThatAnswersByteByByteIsCutOff) {
    UnixListener listener("slow");
    setenv("CUPS_SERVER", EndpointPath("slow").c_str(), 1);
    const Owned server = StartThread([&listener]() -> DWORD {
        listener.Accept(); // asks whether somebody is there
        UnixStream client = listener.Accept();
        const std::string answer = "HTTP/1.1 200 OK\r\nServer: ";
        bool taken = client.Send(Bytes(answer.begin(), answer.end()));
        for (int bytes = 0; taken && bytes < 3000; ++bytes) {
            PauseMs(20); // the server's pace
            taken = client.Send({'s'});
        }
        return taken ? 1 : 0;
    });
    oriel::g_timings.printServerCall = 300;
    HANDLE none = nullptr;
    EXPECT_EQ(Open("Nobody's", &none), DWORD{ERROR_TIMEOUT});
    EXPECT_EQ(Finish(server), 0U) << "the connection was kept for a minute";
}
