// Printers and jobs of a real print server, and servers that do not answer.
#include "base/timings.h"
#include "network_printer.h"
#include "print_server.h"
#include "spooler_kit.h"

#include <rpcnterr.h>

TEST(PrintServer, ItsPrintersAreListedBehindTheEmbeddedOnes) {
    PrintServer server;
    server.Command("/usr/sbin/lpadmin", {"-p", "Other", "-v", "file:/dev/null"});
    server.Command("/usr/sbin/cupsaccept", {"Other"});
    const HANDLE printer = Opened("office"); // names have no case
    server.Print("elsewhere", "Other");
    EXPECT_EQ(JobsOf(printer), "");
    EXPECT_EQ(Control(printer, 1, JOB_CONTROL_CANCEL), DWORD{ERROR_INVALID_PARAMETER}) << "another printer's";
    EXPECT_FAILS(Start(printer, "not here"), ERROR_NOT_SUPPORTED);

    ASSERT_EQ(Add("Embedded"), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(PrintersOf(kBoth), (Names{"Embedded", "Office", "Other"}));
    const std::string record = "Office, Local Raw Printer, file:/dev/null, of the office, Room 1, none, 72, status 1";
    EXPECT_EQ(RecordOf(printer), record);

    // A name in both is the embedded spool's; handles stay with what they were opened for.
    ASSERT_EQ(Add("OFFICE", "Own driver"), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(PrintersOf(kBoth), (Names{"Embedded", "OFFICE", "Other"}));
    EXPECT_EQ(RecordOf(Opened("office")), "OFFICE, Own driver, LPT1:, of OFFICE, , none, 64");
    EXPECT_EQ(RecordOf(printer), record);

    server.Command("/usr/sbin/cupsreject", {"Office"});
    EXPECT_TRUE(RecordOf(printer).ends_with("72, status 4097")) << "paused, and accepts no jobs";
    server.Command("/usr/sbin/cupsenable", {"Office"});
    EXPECT_TRUE(RecordOf(printer).ends_with("72, status 4096"));

    server.Command("/usr/sbin/lpadmin", {"-x", "Office"});
    EXPECT_EQ(JobsOf(printer), "error 1905");
}

TEST(PrintServer, OneThatStandsStillOrGoesIsAnError) {
    PrintServer server;
    ASSERT_EQ(Add("Embedded"), DWORD{ERROR_SUCCESS});
    const HANDLE printer = Opened("office");
    server.Process().Stop();
    oriel::g_timings.printServerCall = 200;
    const double begun = NowMs();
    HANDLE none = nullptr;
    EXPECT_EQ(JobsOf(printer), "error " + std::to_string(ERROR_TIMEOUT));
    EXPECT_EQ(Control(printer, 1, JOB_CONTROL_PAUSE), DWORD{ERROR_TIMEOUT});
    EXPECT_EQ(Open("Nobody's", &none), DWORD{ERROR_TIMEOUT}) << "it is not asked again at once";
    EXPECT_EQ(PrintersOf(kBoth), Names{"Embedded"});
    EXPECT_LT(NowMs() - begun, 3000) << "two calls that wait, and not for longer than they may";
    oriel::g_timings = {};
    server.Process().Continue();
    EXPECT_EQ(JobsOf(printer), "");
    EXPECT_EQ(PrintersOf(kBoth), (Names{"Embedded", "Office"}));
    // One that takes the request and answers too late, or says without end that it will, is not one without jobs.
    std::string continues;
    for (int i = 0; i < 50000; ++i)
        continues += "HTTP/1.1 100 Continue\r\n\r\n";
    const std::string own = getenv("CUPS_SERVER");
    for (const FakeAnswer& answer : {FakeAnswer{.never = true}, FakeAnswer{.bytes = continues, .endless = true}}) {
        FakePrinter fake;
        fake.Answer([&](const std::string&) { return answer; });
        const std::string uri = fake.Uri();
        setenv("CUPS_SERVER", uri.substr(6, uri.rfind("/ipp") - 6).c_str(), 1);
        const double asked = NowMs();
        EXPECT_EQ(JobsOf(printer), "error " + std::to_string(ERROR_TIMEOUT));
        EXPECT_LT(NowMs() - asked, 3000) << answer.bytes.substr(0, 21);
    }
    setenv("CUPS_SERVER", own.c_str(), 1);
    EXPECT_EQ(JobsOf(printer), "");
    server.Process().Kill();
    EXPECT_EQ(JobsOf(printer), "error " + std::to_string(RPC_S_SERVER_UNAVAILABLE));
    EXPECT_EQ(PrintersOf(kBoth), Names{"Embedded"});
    EXPECT_EQ(Open("Nobody's", &none), DWORD{ERROR_INVALID_PRINTER_NAME});
}
