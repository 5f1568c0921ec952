// What other users of the machine can put into the folder of windows and write into a queue, and what dead processes
// leave there. Linux only: it speaks of files.
#include "kit.h"
#include "private_machine.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

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
    // "OWIN", version, handle, process, thread
    const ULONG fields[] = {0x4e49574f, 1, HandleToULong(kForged), 4711, 4712};
    std::string record(552, '\0');
    std::memcpy(record.data(), fields, sizeof fields);
    return record.replace(32, 10, "TVORForged").replace(292, 6, "Forged");
}

int MakeFifo(const std::string& path) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600) + chmod(path.c_str(), 0622), 0);
    return open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

CHILD_PROCESS(HasWindows) {
    umask(0077);
    for (int i = 0; i < 3; ++i)
        child.Say(ToText(MakeWindow("Owned")));
    child.Hear();
    return 0;
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
    if (IsWindow(MakeWindow("", DefWindowProcA, "TVOROtherUser"))) may += " own";
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
    EXPECT_TRUE(DestroyWindow(MakeWindow()));
    EXPECT_EQ(Files(), 0) << "a creator sweeps";
}

// A forged window that is whole is a window like any other; each fault makes it none.
TEST(WindowFiles, ForgedOnesAreIgnored) {
    ASSERT_EQ(FindWindowA(nullptr, nullptr), nullptr); // makes the folder
    const std::string queue = FileOf(kForged, ".queue"), record = FileOf(kForged, ".window");
    const std::string elsewhere = PrivateDirectory() + "/elsewhere";
    const auto filled = [&](size_t at, size_t count, char value) {
        return [=] { ReplaceFile(record, ForgedRecord().replace(at, count, count, value)); };
    };
    const auto sized = [&](size_t size) {
        return [=] { ReplaceFile(record, (ForgedRecord() + std::string(1 << 20, '\0')).substr(0, size)); };
    };
    const struct {
        const char* name;
        std::function<void()> spoil;
        bool queueIsSound = true;
    } cases[] = {
        {"sound", [] {}},
        {"no magic", filled(0, 1, 'o')},
        {"newer version", filled(4, 1, 2)},
        {"another handle's", filled(8, 1, 1)},
        {"no class", filled(32, 1, '\0')},
        {"class too long", filled(32, 257, 'c')},
        {"unterminated title", filled(292, 260, 't')},
        {"short", sized(551)},
        {"huge", sized(1 << 20)},
        {"record is a link", [&] { fs::rename(record, elsewhere), fs::create_symlink(elsewhere, record); }},
        {"record has two names", [&] { fs::create_hard_link(record, elsewhere); }},
        {"record of another user, or none",
         [&] { RunsAsRoot() ? chown(record.c_str(), 65534, 65534) : unlink(record.c_str()); }},
        {"queue is a link", [&] { fs::rename(queue, elsewhere), fs::create_symlink(elsewhere, queue); }, false},
        {"queue has two names", [&] { fs::create_hard_link(queue, elsewhere); }, false},
        {"queue of another mode", [&] { fs::permissions(queue, fs::perms(0666)); }, false},
        {"queue is a file", [&] { ReplaceFile(queue, "", 0622); }, false},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        ReplaceFile(record, ForgedRecord());
        const int fifo = MakeFifo(queue);
        row.spoil();
        const bool sound = &row == cases;
        EXPECT_EQ(FindWindowA(nullptr, nullptr), sound ? kForged : nullptr);
        char text[300];
        DWORD process = 0;
        EXPECT_EQ(GetClassNameA(kForged, text, sizeof text), sound ? 10 : 0);
        EXPECT_EQ(GetWindowThreadProcessId(kForged, &process), sound ? 4712U : 0U);
        EXPECT_EQ(process, sound ? 4711U : 0U);
        // A bad record beside a sound queue: nobody finds the window, but what is posted to it harms nobody.
        EXPECT_EQ(PostMessageA(kForged, WM_APP, 0, 0) != FALSE, row.queueIsSound);
        EXPECT_EQ(read(fifo, text, sizeof text) > 0, row.queueIsSound);
        close(fifo);
        for (const std::string& path : {queue, record, elsewhere})
            fs::remove(path);
    }
}

TEST_AS_ROOT(WindowFiles, AnotherUserMayPostButNotReadNorRemove) {
    const HWND window = MakeWindow();
    TestProcess other("AnotherUser", {ToText(window)});
    MSG message;
    ASSERT_TRUE(WaitUntil([&] { return Take(message); }));
    EXPECT_EQ(message.lParam, 2);
    // What it sends is answered while this thread looks for messages, of which none comes.
    EXPECT_TRUE(WaitUntil([&] { return PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE) || !other.Running(); }));
    EXPECT_EQ(other.Hear(), " find post send own");
    EXPECT_TRUE(IsWindow(window));
}

TEST(WindowQueue, SkipsGarbageAndLosesNoMessage) {
    const HWND window = MakeWindow();
    const int fifo = open(FileOf(window, ".queue").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    constexpr ULONG kMagic = 0x47534d4f; // "OMSG"
    const ULONG handle = HandleToULong(window);
    const auto forge = [](ULONG magic, ULONG handle, ULONG message, ULONG replyTo) {
        const ULONG fields[10] = {magic, handle, message, 0, 0, 0, 0, 0, replyTo};
        return std::string(reinterpret_cast<const char*>(fields), sizeof fields);
    };
    const std::string good = forge(kMagic, handle, WM_APP, 0);
    Names garbage{forge(kMagic, handle ^ 1, WM_APP, 0),      // for another window
                  forge(kMagic - 1, handle, WM_APP, 0),      // no message
                  forge(kMagic, handle, WM_APP << 4, 0),     // with a number that does not exist
                  forge(kMagic, handle, WM_APP, 0x12345678), // sent, but nobody waits for the answer
                  std::string(4096, 'O')};
    // Beginnings of a message, cut where the next one cannot be taken for the rest.
    for (size_t length = 1; length <= 8; ++length)
        garbage.push_back(good.substr(0, length));
    LPARAM posted = 0, taken = 0;
    MSG message;
    // Each alone and before a message; then all of them between messages in one queue.
    for (const bool readEach : {true, false}) {
        for (const std::string& bytes : garbage) {
            ASSERT_EQ(write(fifo, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
            EXPECT_TRUE(!readEach || QueueIsEmpty());
            ASSERT_TRUE(PostMessageA(window, WM_APP, 0, posted++));
            while (readEach && Take(message))
                ASSERT_EQ(message.lParam, taken++);
        }
        while (Take(message))
            ASSERT_EQ(message.lParam, taken++);
        EXPECT_EQ(taken, posted);
    }
    // The beginning of a message in a queue that is empty after it has no rest: what comes later is not taken for it.
    ASSERT_EQ(write(fifo, good.data(), 39), 39);
    EXPECT_TRUE(QueueIsEmpty());
    ASSERT_TRUE(PostMessageA(window, WM_APP, 0, posted));
    EXPECT_TRUE(Take(message));
    EXPECT_EQ(message.lParam, posted);
}
