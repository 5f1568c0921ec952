// The entry of a library: this test program is one, with the platform's entry file compiled in. Its DllMain runs before
// main() and after it.
#include "../../platform/dll_entry/dll_entry.cpp"

#include "memory_kit.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace {

int g_attaches;
HINSTANCE g_told;

} // namespace

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    const char* told = std::getenv("TELL_OF_ENTRY");
    if (told != nullptr) {
        std::puts(reason == DLL_PROCESS_ATTACH ? "attach" : reason == DLL_PROCESS_DETACH ? "detach" : "other");
        std::fflush(stdout);
    }
    g_attaches += reason == DLL_PROCESS_ATTACH;
    g_told = instance;
    return told == nullptr || std::string(told) != "fail";
}

CHILD_PROCESS(LeavesAfterAFork) {
    child.Say("main");
    RunForked([]() -> int { std::exit(0); }); // not its attach, not its detach
    return 0;
}

TEST(Entry, IsToldOfTheLoadAndTheUnload) {
    EXPECT_EQ(g_attaches, 1);
    Dl_info self{};
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&DllMain), &self), 0);
    EXPECT_EQ(g_told, self.dli_fbase);
    for (const auto& [attach, output] :
         {std::pair{"succeed", "attach\nmain\ndetach\n"}, {"fail", "attach\ndetach\nmain\n"}}) {
        TestProcess process("LeavesAfterAFork", {}, {{"TELL_OF_ENTRY", attach}});
        EXPECT_EQ(process.HearAll(), output);
        EXPECT_EQ(process.Wait(), 0);
    }
}
