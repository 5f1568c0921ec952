// The entry of a library: this test program is one, with the platform's entry file compiled in. Its DllMain runs before
// main() and after it.
#include "../../platform/dll_entry/dll_entry.cpp"

#include "memory_kit.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (std::getenv("TELL_OF_ENTRY") != nullptr) std::puts(reason == DLL_PROCESS_DETACH ? "detach" : "attach");
    std::fflush(stdout);
    return TRUE;
}

CHILD_PROCESS(LeavesAfterAFork) {
    child.Say("main");
    return RunForked([]() -> int { std::exit(0); }); // not its attach, not its detach
}

TEST(Entry, IsToldOfTheLoadAndTheUnloadAndOfNoForkChild) {
    TestProcess process("LeavesAfterAFork", {}, {{"TELL_OF_ENTRY", "1"}});
    EXPECT_EQ(process.HearAll(), "attach\nmain\ndetach\n");
    EXPECT_EQ(process.Wait(), 0);
}
