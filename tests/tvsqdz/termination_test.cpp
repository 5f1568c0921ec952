// "TerminateManager": who is told, who is asked to close, and what becomes of the value.
#include "base/timings.h"
#include "notification_kit.h"

namespace {

const std::string kOther = "Other desk";

int MessagesOf(HWND window, UINT message) {
    int count = 0;
    MSG taken;
    while (PeekMessageA(&taken, window, 0, 0, PM_REMOVE))
        count += taken.message == message && taken.wParam == 0 && taken.lParam == 0;
    return count;
}

bool IsTerminating(TvsManager manager) {
    const ManagerLockHold lock;
    return (FindManager(manager)->flags & ManagerTerminating) != 0;
}

// Watches at another printer in another process, and has a window that closes when it is asked.
CHILD_PROCESS(WatchesForTermination) {
    const Library library;
    const TvsManager manager = OpenPrinter(2, kOther);
    const HWND window = MakeWindow("TVORRPWndClass");
    Registrant registrant(Form::Message, manager, "TerminateManager");
    child.Say("ready");
    MSG message;
    while (GetMessageA(&message, window, 0, 0) > 0 && message.message != 1225) {
    }
    const int told = registrant.Told();
    child.Say(std::to_string(told) + " " + std::to_string(NumberOf(manager, "TerminateManager")));
    DestroyWindow(window);
    child.Hear();
    return 0;
}

} // namespace

TEST(Termination, ReachesTheWatchersOfEveryPrinterAndTheirWindows) {
    const Product product;
    AddPrinter(kOther, kModel);
    g_timings.terminationPause = 1;
    const TvsManager manager = OpenPrinter();
    TestProcess process("WatchesForTermination");
    ASSERT_EQ(process.Hear(), "ready");
    EXPECT_EQ(Update(manager, "TerminateManager", Number(1)), TVS_OK);
    // The call returned when the other process's window had gone, which it had after it said so.
    EXPECT_EQ(FindWindowA("TVORRPWndClass", nullptr), nullptr);
    EXPECT_EQ(process.Hear(), "1 1");
    EXPECT_EQ(NumberOf(manager, "TerminateManager"), 1u);
    EXPECT_TRUE(IsTerminating(manager));
}

TEST(Termination, ZeroIsToldToo) {
    const Product product;
    AddPrinter(kOther, kModel);
    const TvsManager manager = OpenPrinter();
    const TvsManager other = OpenPrinter(2, kOther);
    const HWND window = MakeWindow("TVORRPWndClass");
    Registrant registrant(Form::Event, other, "TerminateManager");
    EXPECT_EQ(Update(manager, "TerminateManager", Number(0)), TVS_OK);
    EXPECT_EQ(registrant.Told(), 1);
    EXPECT_EQ(NumberOf(other, "TerminateManager"), 1u);
    EXPECT_EQ(NumberOf(manager, "TerminateManager"), 0u);
    EXPECT_FALSE(IsTerminating(manager));
    EXPECT_EQ(MessagesOf(window, 1225), 0);
    // It serves one termination: its thread has ended, and its record waits for the cancel.
    EXPECT_EQ(Update(manager, "TerminateManager", Number(0)), TVS_OK);
    EXPECT_EQ(registrant.Told(kQuietMs), 0);
    EXPECT_EQ(registrant.Cancel(), TVS_OK);
    // A value of another size is no value: nobody is told.
    Registrant again(Form::Event, other, "TerminateManager");
    EXPECT_EQ(Update(manager, "TerminateManager", {1, 0, 0}), PassOn(Answer::WrongSize));
    EXPECT_EQ(again.Told(kQuietMs), 0);
    // One who comes while another still has the event of a termination open is told at once.
    EXPECT_EQ(Update(manager, "TerminateManager", Number(0)), TVS_OK);
    EXPECT_EQ(again.Told(), 1);
}

TEST(Termination, AsksTheProductsWindowsOfItsWindows) {
    const struct {
        const char* version;
        int asked9x;
    } rows[] = {{"5.1", 0}, {"9x:4.10", 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.version);
        if (row.asked9x != 0 && !OnTheLayer()) continue;
        if (OnTheLayer()) UseSetting("ORIEL_WINDOWS_VERSION", row.version);
        const Product product;
        g_timings.windowClosePolls = 1;
        g_timings.windowClosePoll = 1;
        g_timings.terminationPause = 1;
        const TvsManager manager = OpenPrinter();
        const HWND all[] = {MakeWindow("TVORRPWndClass"), MakeWindow("TVORRPWndClass")};
        const HWND similar = MakeWindow("tvorrpwndclass2");
        const HWND first[] = {MakeWindow("TVORPSPWndClass"), MakeWindow("TVORPSPWndClass")};
        const HWND second = MakeWindow("TVORNSS95WndClass");
        const HWND third = MakeWindow("TVORPWD95WndClass");
        EXPECT_EQ(Update(manager, "TerminateManager", Number(2)), TVS_OK);
        EXPECT_EQ(NumberOf(manager, "TerminateManager"), 2u);
        EXPECT_EQ(MessagesOf(all[0], 1225), 1);
        EXPECT_EQ(MessagesOf(all[1], 1225), 1);
        EXPECT_EQ(MessagesOf(similar, 1225), 0);
        EXPECT_EQ(MessagesOf(first[0], 1030) + MessagesOf(first[1], 1030), 1);
        EXPECT_EQ(MessagesOf(second, 1026), row.asked9x);
        EXPECT_EQ(MessagesOf(third, 1024), row.asked9x);
        EXPECT_EQ(WriteVariable(RecordOf(manager)->printerDatabase, "TerminateManager", "\0\0\0", 4), Answer::Done);
        for (const HWND window : {all[0], all[1], similar, first[0], first[1], second, third})
            DestroyWindow(window);
    }
}
