// "TerminateManager": who is told, who is asked to close, and what becomes of the value.
#include "base/timings.h"
#include "notification_kit.h"

namespace {

using Termination = Opened;

const std::string kOther = "Other desk";

int MessagesOf(HWND window, UINT message) {
    int count = 0;
    MSG taken;
    while (PeekMessageA(&taken, window, 0, 0, PM_REMOVE))
        count += taken.message == message && taken.wParam == 0 && taken.lParam == 0;
    return count;
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

TEST_F(Termination, ReachesTheWatchersOfEveryPrinterAndTheirWindows) {
    AddPrinter(kOther, kModel);
    g_timings.terminationPause = 1;
    TestProcess process("WatchesForTermination");
    ASSERT_EQ(process.Hear(), "ready");
    EXPECT_EQ(Update(manager, "TerminateManager", Number(1)), TVS_OK);
    // The call returned when the other process's window had gone, which it had after it said so.
    EXPECT_EQ(FindWindowA("TVORRPWndClass", nullptr), nullptr);
    EXPECT_EQ(process.Hear(), "1 1");
    EXPECT_EQ(NumberOf(manager, "TerminateManager"), 1u);
    EXPECT_NE(record->flags & ManagerTerminating, 0u);
}

TEST_F(Termination, ZeroIsToldToo) {
    AddPrinter(kOther, kModel);
    const TvsManager other = OpenPrinter(2, kOther);
    const HWND window = MakeWindow("TVORRPWndClass");
    Registrant registrant(Form::Event, other, "TerminateManager");
    EXPECT_EQ(Update(manager, "TerminateManager", Number(0)), TVS_OK);
    EXPECT_EQ(registrant.Told(), 1);
    EXPECT_EQ(NumberOf(other, "TerminateManager"), 1u);
    EXPECT_EQ(NumberOf(manager, "TerminateManager"), 0u);
    EXPECT_EQ(record->flags & ManagerTerminating, 0u);
    EXPECT_EQ(MessagesOf(window, 1225), 0);
    // It serves one termination: its thread has ended, and its record waits for the cancel.
    EXPECT_EQ(Update(manager, "TerminateManager", Number(0)), TVS_OK);
    EXPECT_EQ(registrant.Told(kQuietMs), 0);
    Registrant again(Form::Event, other, "TerminateManager");
    EXPECT_EQ(Update(manager, "TerminateManager", {1, 0, 0}), PassOn(Answer::WrongSize));
    // One who comes while another still has the event of a termination open is told at once.
    EXPECT_EQ(Update(manager, "TerminateManager", Number(0)), TVS_OK);
    EXPECT_EQ(again.Told(), 1);
}

TEST_F(Termination, AsksTheProductsWindowsOfItsWindows) {
    g_timings.windowClosePolls = 1;
    g_timings.windowClosePoll = 1;
    g_timings.terminationPause = 1;
    UseSetting("ORIEL_WINDOWS_VERSION", "9x:4.10");
    const Library again;
    const std::pair<HWND, UINT> windows[] = {{MakeWindow("TVORRPWndClass"), 1225},
                                             {MakeWindow("TVORRPWndClass"), 1225},
                                             {MakeWindow("TVORPSPWndClass"), 1030},
                                             {MakeWindow("TVORNSS95WndClass"), 1026},
                                             {MakeWindow("TVORPWD95WndClass"), 1024}};
    EXPECT_EQ(Update(OpenPrinter(), "TerminateManager", Number(2)), TVS_OK);
    for (const auto& [window, message] : windows)
        EXPECT_EQ(MessagesOf(window, message), 1) << message;
}
