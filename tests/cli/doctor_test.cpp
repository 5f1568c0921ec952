// doctor: the first cause that it names for each kind of trouble, and its exit codes.
#include "network_printer.h"
#include "print_server.h"
#include "product.h"

namespace {

// The first cause of a printer's trouble as "check: text; remedy"; empty: it is well.
std::string CauseOf(const std::string& printer, int exitCode) {
    const Json document = OrielJson({"doctor", printer}, exitCode);
    const Json cause = document["printers"][0]["cause"];
    if (cause.is_null()) return "";
    return cause["check"].get<std::string>() + ": " + cause["text"].get<std::string>() + "; " +
           cause["remedy"].get<std::string>();
}

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(Doctor, NamesTheFirstCauseAndItsRemedy) {
    EXPECT_EQ(OrielJson({"doctor"}, 3)["cause"]["check"], "installed");
    PrintServer server;
    IppPrinter printer;
    RunningProduct product;
    OrielText({"printers", "add", "Lab", "--device", printer.Uri()});
    ExpectTakesRequests("Lab");
    EXPECT_TRUE(Has(CauseOf("Labb", 1), "queue: ")) << "no such printer";

    // A queue of the print server, which has no device.
    EXPECT_TRUE(Has(CauseOf("Office", 1), "paused: the queue is paused: jobs wait; cupsenable 'Office'"));
    server.Command("/usr/sbin/cupsreject", {"Office"});
    EXPECT_TRUE(Has(CauseOf("Office", 1), "accepting: the queue accepts no jobs; cupsaccept 'Office'"));
    server.Command("/usr/sbin/cupsaccept", {"Office"});
    server.Command("/usr/sbin/cupsenable", {"Office"});

    EXPECT_EQ(CauseOf("Lab", 0), "") << "without an access control list";
    OrielText({"acl", "set", "Lab", "D:(D;;LCSWRPWPSDRCWDWO;;;WD)"});
    EXPECT_TRUE(Has(CauseOf("Lab", 4), "rights: you may read what is stored")) << CauseOf("Lab", 4);
    EXPECT_EQ(OrielJson({"doctor"}, 4)["printers"].size(), 2u) << "all printers";
    OrielText({"acl", "set", "Lab", "D:(A;;LCSWRPWPSDRCWDWO;;;WD)"});
    EXPECT_EQ(CauseOf("Lab", 0), "");
    const std::string text = OrielText({"doctor", "Lab"});
    EXPECT_TRUE(Has(text, "ok  its device answers")) << text;

    printer.Print("STATE: +media-jam-error\nwait here\n");
    OrielText({"set", "Lab", "RefreshStatus", "all", "--direct"});
    EXPECT_TRUE(WaitUntil([] { return VariableOf("Lab", "ErrPaperJam")["value"] == 2; }));
    const std::string jam = CauseOf("Lab", 1);
    EXPECT_TRUE(Has(jam, "state: the printer says: printing, ") && Has(jam, "paper jam; open it and pull")) << jam;
    printer.Process().Kill();
    EXPECT_TRUE(WaitUntil([] { return VariableOf("Lab", "ErrPaperJam")["stale"] == true; }));
    EXPECT_TRUE(Has(CauseOf("Lab", 5), "reachable: the device does not answer: ")) << CauseOf("Lab", 5);

    // Its printer side cannot run with such an address.
    const std::string key = "HKLM\\System\\CurrentControlSet\\Control\\Print\\Printers\\Lab";
    OrielText({"reg", "set", key, "Oriel Device", "nonsense"});
    EXPECT_TRUE(WaitUntil([] { return OrielJson({"printers"})["printers"][0]["printerSide"]["state"] == "restarting"; },
                          20000));
    EXPECT_TRUE(Has(CauseOf("Lab", 1), "side: its printer side does not run: its device or command line is wrong"));
}
