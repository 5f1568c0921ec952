// What other users of the machine can put into the folder of windows and write into a queue, and what dead processes
// leave there. Linux only: it speaks of files.
#include "posix_kit.h"
#include "private_machine.h"
#include "window_kit.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::string FileOf(HWND window, const char* suffix) {
    char name[24];
    std::snprintf(name, sizeof name, "%08x%s", HandleToULong(window), suffix);
    return PrivateDirectory() + "/run/windows/" + name;
}

// How many files there are, all or of one kind.
long Files(const std::string& suffix = "") {
    const fs::directory_iterator files(PrivateDirectory() + "/run/windows");
    return std::count_if(begin(files), end(files), [&](auto& file) { return file.path().string().ends_with(suffix); });
}

// A window as a process outside this layer could make it: the record, byte by byte, and the FIFO with its reader.
const HWND kForged = WindowOf(0x1234abcd);

std::string ForgedRecord() {
    const ULONG fields[] = {0x4e49574f, 1, HandleToULong(kForged), 4711,
                            4712}; // "OWIN", version, handle, process, thread
    std::string record(552, '\0');
    std::memcpy(record.data(), fields, sizeof fields);
    return record.replace(32, 10, "TVORForged").replace(292, 6, "Forged");
}

int MakeFifo(const std::string& path, mode_t mode = 0622) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

CHILD_PROCESS(HasWindows) {
    umask(0077);
    for (int i = 0; i < 3; ++i)
        child.Say(ToText(MakeWindow("TVORTestClass", "Owned")));
    child.Hear();
    return 0;
}

// Its fork child lives on after it.
CHILD_PROCESS(ForksWithAWindow) {
    const HWND window = MakeWindow("TVORTestClass");
    if (fork() == 0) {
        child.Say(!DestroyWindow(window) && IsWindow(MakeWindow("TVORTestClass")) ? "child works" : "child fails");
        child.Hear();
        _exit(0);
    }
    child.Say(ToText(window));
    while (true)
        pause();
}

// Without any preparation for broken pipes.
CHILD_PROCESS(SendsToAFullQueue) {
    signal(SIGPIPE, SIG_DFL);
    const HWND window = ToWindow(child.arguments[0]);
    while (PostMessageA(window, WM_APP, 0, 0)) {
    }
    SetLastError(0);
    SendMessageTimeoutA(window, WM_APP, 0, 0, SMTO_NORMAL, 30000, nullptr);
    return GetLastError() == ERROR_INVALID_WINDOW_HANDLE ? 0 : 1;
}

// Says which of the things that it tries it may do.
CHILD_PROCESS(AnotherUser) {
    const HWND window = ToWindow(child.arguments[0]);
    const std::string queue = FileOf(window, ".queue");
    const std::string record = FileOf(window, ".window");
    if (!BecomeNobody()) return 2;
    std::string may;
    if (FindWindowA("TVORTestClass", nullptr) == window) may += " find";
    if (PostMessageA(window, WM_APP, 1, 2)) may += " post";
    if (SendMessageTimeoutA(window, WM_NULL, 0, 0, SMTO_NORMAL, 10000, nullptr)) may += " send";
    if (open(queue.c_str(), O_RDONLY | O_NONBLOCK) >= 0) may += " read";
    if (open(record.c_str(), O_WRONLY) >= 0) may += " write";
    if (unlink(queue.c_str()) == 0 || unlink(record.c_str()) == 0) may += " remove";
    if (IsWindow(MakeWindow("TVOROtherUser"))) may += " own";
    child.Say(may);
    return 0;
}

} // namespace

TEST(WindowFiles, GoWithTheirProcesses) {
    TestProcess killed("HasWindows");
    TestProcess ended("HasWindows");
    HWND window = nullptr;
    for (int i = 0; i < 3; ++i) {
        window = ToWindow(killed.Hear());
        ended.Hear();
        EXPECT_EQ(fs::status(FileOf(window, ".queue")).permissions(), fs::perms(0622)) << "whatever the umask";
        EXPECT_EQ(fs::status(FileOf(window, ".window")).permissions(), fs::perms(0644));
    }
    EXPECT_EQ(Files(), 12);
    ended.Tell("end");
    EXPECT_EQ(ended.Wait(), 0);
    EXPECT_EQ(Files(), 6);
    killed.Kill();
    EXPECT_EQ(Files(), 6) << "nobody has looked yet";
    EXPECT_FALSE(IsWindow(window));
    EXPECT_FAILS(PostMessageA(window, WM_APP, 0, 0), ERROR_INVALID_WINDOW_HANDLE);
    close(MakeFifo(FileOf(kForged, ".reply"))); // left half way by others
    ReplaceFile(FileOf(kForged, ".window"), ForgedRecord());
    EXPECT_EQ(FindWindowA("TVORTestClass", "Owned"), nullptr);
    EXPECT_EQ(Files(), 0) << "a finder sweeps";
    close(MakeFifo(FileOf(kForged, ".queue")));
    EXPECT_TRUE(DestroyWindow(MakeWindow("TVORTestClass")));
    EXPECT_EQ(Files(), 0) << "a creator sweeps";
}

TEST(WindowFiles, ForkChildDoesNotKeepItsParentsWindow) {
    TestProcess parent("ForksWithAWindow");
    std::string heard[2] = {parent.Hear(), parent.Hear()};
    std::sort(std::begin(heard), std::end(heard)); // a number comes before a word
    EXPECT_EQ(heard[1], "child works");
    EXPECT_TRUE(IsWindow(ToWindow(heard[0])));
    parent.Kill();
    EXPECT_FALSE(IsWindow(ToWindow(heard[0])));
    parent.CloseInput(); // the child's end
    EXPECT_TRUE(WaitUntil([] { return FindWindowA("TVORTestClass", nullptr) == nullptr; }));
}

// A forged window that is whole is a window like any other; each fault makes it none.
TEST(WindowFiles, ForgedOnesAreIgnored) {
    ASSERT_EQ(FindWindowA(nullptr, nullptr), nullptr); // makes the folder
    const std::string queue = FileOf(kForged, ".queue");
    const std::string record = FileOf(kForged, ".window");
    const std::string elsewhere = PrivateDirectory() + "/elsewhere";
    enum Fault {
        // clang-format off
        None, RecordIsLink, RecordHasTwoNames, RecordIsFifo, RecordOfAnotherUser,
        QueueIsLink, QueueHasTwoNames, QueueOfAnotherMode, QueueIsFile
        // clang-format on
    };
    struct Case {
        const char* name;
        Fault fault = None;
        size_t size = 552; // of the record, in which `count` bytes from `at` on have another value
        size_t at = 0;
        size_t count = 0;
        char value = 0;
    };
    const Case cases[] = {
        {"sound"},
        {"no magic", None, 552, 0, 1, 'o'},
        {"newer version", None, 552, 4, 1, 2},
        {"another handle's", None, 552, 8, 1, 1},
        {"no class", None, 552, 32, 1, '\0'},
        {"unterminated class", None, 552, 32, 260, 'c'},
        {"class too long", None, 552, 32, 257, 'c'},
        {"unterminated title", None, 552, 292, 260, 't'},
        {"empty", None, 0},
        {"short", None, 551},
        {"huge", None, 1 << 20},
        {"record is a link", RecordIsLink},
        {"record has two names", RecordHasTwoNames},
        {"record is a FIFO", RecordIsFifo},
        {"record of another user", RecordOfAnotherUser},
        {"queue is a link", QueueIsLink},
        {"queue has two names", QueueHasTwoNames},
        {"queue of another mode", QueueOfAnotherMode},
        {"queue is a file", QueueIsFile},
    };
    for (const Case& planted : cases) {
        SCOPED_TRACE(planted.name);
        const Fault fault = planted.fault;
        if (fault == RecordOfAnotherUser && !RunsAsRoot()) continue;
        std::string bytes = ForgedRecord();
        bytes.replace(planted.at, planted.count, planted.count, planted.value).resize(planted.size);
        ReplaceFile(fault == RecordIsLink ? elsewhere : record, bytes);
        EXPECT_TRUE(fault != RecordIsFifo || PlantInPlace(record, Plant::kPipe, ""));
        EXPECT_TRUE(fault != RecordIsLink || PlantInPlace(record, Plant::kLink, elsewhere));
        EXPECT_TRUE(fault != RecordHasTwoNames || PlantInPlace(elsewhere, Plant::kHardLink, record));
        EXPECT_TRUE(fault != RecordOfAnotherUser || chown(record.c_str(), 65534, 65534) == 0);
        const int fifo = fault == QueueIsFile ? open(queue.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0622)
                                              : MakeFifo(fault == QueueIsLink ? elsewhere : queue,
                                                         fault == QueueOfAnotherMode ? 0666 : 0622);
        if (fault == QueueIsLink) fs::create_symlink(elsewhere, queue);
        if (fault == QueueHasTwoNames) fs::create_hard_link(queue, elsewhere);

        const bool sound = &planted == cases;
        EXPECT_EQ(FindWindowA(nullptr, nullptr), sound ? kForged : nullptr);
        EXPECT_EQ(EnumWindows([](HWND, LPARAM) -> BOOL { return FALSE; }, 0), !sound);
        char text[300];
        DWORD process = 0;
        EXPECT_EQ(GetClassNameA(kForged, text, sizeof text), sound ? 10 : 0);
        EXPECT_EQ(GetWindowThreadProcessId(kForged, &process), sound ? 4712U : 0U);
        EXPECT_EQ(process, sound ? 4711U : 0U);
        // A bad record beside a sound queue: nobody finds the window, but what is posted to it harms nobody.
        EXPECT_EQ(PostMessageA(kForged, WM_APP, 0, 0), fault < QueueIsLink);
        EXPECT_EQ(read(fifo, text, sizeof text) > 0, fault < QueueIsLink);
        close(fifo);
        for (const std::string& path : {queue, record, elsewhere})
            fs::remove(path);
    }
}

TEST_AS_ROOT(WindowFiles, AnotherUserMayPostButNotReadNorRemove) {
    const HWND window = MakeWindow("TVORTestClass");
    TestProcess other("AnotherUser", {ToText(window)});
    MSG message;
    ASSERT_TRUE(TakeMessage(message));
    EXPECT_EQ(message.lParam, 2);
    // What it sends is answered while this thread looks for messages, of which none comes.
    EXPECT_TRUE(WaitUntil([&] { return PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE) || !other.Running(); }));
    EXPECT_EQ(other.Hear(), " find post send own");
    EXPECT_TRUE(IsWindow(window));
}

TEST(WindowQueue, SkipsGarbageAndLosesNoMessage) {
    const HWND window = MakeWindow("TVORTestClass");
    const int fifo = open(FileOf(window, ".queue").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    constexpr ULONG kMagic = 0x47534d4f; // "OMSG"
    const auto forge = [](ULONG magic, ULONG handle, ULONG message, ULONG replyTo) {
        const ULONG fields[10] = {magic, handle, message, 0, 0, 0, 0, 0, replyTo};
        return std::string(reinterpret_cast<const char*>(fields), sizeof fields);
    };
    const ULONG handle = HandleToULong(window);
    std::vector<std::string> garbage{forge(kMagic, handle ^ 1, WM_APP, 0),      // for another window
                                     forge(kMagic - 1, handle, WM_APP, 0),      // no message
                                     forge(kMagic, handle, WM_APP << 4, 0),     // with a number that does not exist
                                     forge(kMagic, handle, WM_APP, 0x12345678), // sent, but nobody waits for the answer
                                     std::string(4096, '\0'),
                                     std::string(4096, 'O')};
    // Beginnings of a message, cut where the next one cannot be taken for the rest, and any pieces.
    for (size_t length = 1; length <= 8; ++length)
        garbage.push_back(forge(kMagic, handle, WM_APP, 0).substr(0, length));
    for (size_t length = 1; length < 100; length += 7)
        garbage.emplace_back(length, static_cast<char>(length));
    LPARAM posted = 0;
    LPARAM taken = 0;
    // Each alone and before messages; then all of them between messages in one queue.
    for (const bool readEach : {true, false}) {
        for (const std::string& bytes : garbage) {
            for (int i = 0; i < 3; ++i) {
                ASSERT_EQ(write(fifo, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
                ASSERT_TRUE(i == 0 || PostMessageA(window, WM_APP, 0, posted++));
                MSG message;
                while (readEach && PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE))
                    ASSERT_EQ(message.lParam, taken++);
            }
        }
        MSG message;
        while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE))
            ASSERT_EQ(message.lParam, taken++);
        EXPECT_EQ(taken, posted);
    }
    // The beginning of a message in a queue that is empty after it has no rest: what comes later is not taken for it.
    ASSERT_EQ(write(fifo, forge(kMagic, handle, WM_APP, 0).data(), 39), 39);
    EXPECT_TRUE(QueueIsEmpty());
    ASSERT_TRUE(PostMessageA(window, WM_APP, 0, posted));
    MSG message;
    EXPECT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.lParam, posted);
    close(fifo);
}

TEST(WindowQueue, OwnersDeathIsAnErrorToASenderAndNoSignal) {
    TestProcess owner("HasWindows");
    TestProcess sender("SendsToAFullQueue", {owner.Hear()});
    EXPECT_TRUE(WaitUntil([] { return Files(".reply") == 1; })) << "it waits";
    owner.Kill();
    EXPECT_EQ(sender.Wait(), 0);
    EXPECT_EQ(FindWindowA(nullptr, nullptr), nullptr);
    EXPECT_EQ(Files(), 0);
}
