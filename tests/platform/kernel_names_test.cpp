// Names of kernel objects: who gets the same object, with which rights, and how long it lives.
#include "kernel_kit.h"
#include "private_machine.h"
#include "store_kit.h"
#include "test_process.h"

#include <gtest/gtest.h>

namespace {

using Names = std::vector<std::string>;

struct Result {
    bool handle;
    DWORD error;
    bool operator==(const Result&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Result& result) {
    return out << (result.handle ? "a handle" : "no handle") << ", error " << result.error;
}

constexpr DWORD kSentinel = 0xBEEF;

// What the call says. The handle is closed.
template <typename Call>
Result ResultOf(Call call) {
    SetLastError(kSentinel);
    const HANDLE handle = call();
    const Result result{handle != nullptr, GetLastError()};
    if (handle != nullptr) CloseHandle(handle);
    return result;
}

Result CreateEventNamed(const char* name) {
    return ResultOf([&] { return CreateEventA(nullptr, TRUE, FALSE, name); });
}
Result OpenEventNamed(const char* name, DWORD access = SYNCHRONIZE) {
    return ResultOf([&] { return OpenEventA(access, FALSE, name); });
}
Result CreateMutexNamed(const char* name) {
    return ResultOf([&] { return CreateMutexA(nullptr, FALSE, name); });
}
Result OpenMutexNamed(const char* name, DWORD access = SYNCHRONIZE) {
    return ResultOf([&] { return OpenMutexA(access, FALSE, name); });
}
Result CreateSectionNamed(const char* name) {
    return ResultOf([&] { return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8, name); });
}

constexpr Result kNew{true, ERROR_SUCCESS};
constexpr Result kExisted{true, ERROR_ALREADY_EXISTS};
constexpr Result kOpened{true, kSentinel};
constexpr Result kMissing{false, ERROR_FILE_NOT_FOUND};
constexpr Result kOtherKind{false, ERROR_INVALID_HANDLE};
constexpr Result kDenied{false, ERROR_ACCESS_DENIED};

} // namespace

TEST(Names, AreSharedExactly) {
    const Owned event = CreateEventA(nullptr, TRUE, FALSE, "TVOR:One/Two%3 \x8A:Changed");
    ASSERT_NE(static_cast<HANDLE>(event), nullptr);
    EXPECT_EQ(CreateEventNamed("TVOR:One/Two%3 \x8A:Changed"), kExisted);
    EXPECT_EQ(OpenEventNamed("TVOR:One/Two%3 \x8A:Changed"), kOpened);
    EXPECT_EQ(OpenEventNamed("Global\\TVOR:One/Two%3 \x8A:Changed"), kOpened);
    EXPECT_EQ(OpenEventNamed("TVOR:ONE/Two%3 \x8A:Changed"), kMissing); // with case
    EXPECT_EQ(OpenEventNamed("TVOR:One%2FTwo%253 \x8A:Changed"), kMissing);
    // One state behind them all.
    const Owned again = CreateEventA(nullptr, FALSE, TRUE, "Global\\TVOR:One/Two%3 \x8A:Changed");
    EXPECT_EQ(WaitForSingleObject(again, 0), DWORD{WAIT_TIMEOUT}) << "the state of the existing one stays";
    SetEvent(again);
    EXPECT_EQ(WaitForSingleObject(event, 0), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(WaitForSingleObject(again, 0), DWORD{WAIT_OBJECT_0}) << "the existing one is manual";
}

TEST(Names, ThatCannotBeAreRefused) {
    const std::string longest(240, 'n');
    const std::string tooLong(251, 'n');
    const std::string longAsFile(100, '/');
    struct Row {
        std::string name;
        Result result;
    };
    const Row rows[] = {
        {longest, kNew},
        {"Global\\" + longest, kNew},
        {".", kNew},
        {"..", kNew},
        {"../../escape", kNew},
        {tooLong, {false, ERROR_FILENAME_EXCED_RANGE}},
        {longAsFile, {false, ERROR_FILENAME_EXCED_RANGE}},
        {std::string(5000, 'n'), {false, ERROR_FILENAME_EXCED_RANGE}},
        {"Local\\Name", {false, ERROR_PATH_NOT_FOUND}},
        {"Global\\Global\\Name", {false, ERROR_PATH_NOT_FOUND}},
        {"a\\b", {false, ERROR_PATH_NOT_FOUND}},
        {"Global\\", {false, ERROR_INVALID_NAME}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(CreateEventNamed(row.name.c_str()), row.result);
        EXPECT_EQ(CreateMutexNamed(row.name.c_str()), row.result);
        EXPECT_EQ(CreateSectionNamed(row.name.c_str()), row.result);
        EXPECT_EQ(OpenMutexNamed(row.name.c_str()), row.result == kNew ? kMissing : row.result);
    }
    EXPECT_EQ(ObjectFiles(), Names{});

    // No name: an object of its own each time.
    for (const char* none : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(CreateEventNamed(none), kNew);
        EXPECT_EQ(CreateMutexNamed(none), kNew);
        EXPECT_EQ(CreateSectionNamed(none), (Result{false, ERROR_NOT_SUPPORTED}));
        EXPECT_EQ(OpenEventNamed(none), (Result{false, ERROR_INVALID_PARAMETER}));
        EXPECT_EQ(OpenMutexNamed(none), (Result{false, ERROR_INVALID_PARAMETER}));
    }
    const Owned one = CreateEventA(nullptr, TRUE, TRUE, "");
    const Owned two = CreateEventA(nullptr, TRUE, FALSE, "");
    EXPECT_EQ(WaitForSingleObject(two, 0), DWORD{WAIT_TIMEOUT});
}

CHILD_PROCESS(HoldsOneOfEach) {
    const Owned event = CreateEventA(nullptr, TRUE, FALSE, "E");
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    const Owned section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8, "S");
    child.Say("holding");
    child.Hear();
    return 0;
}

TEST(Names, OfAnotherKindAreRefusedWhoeverHoldsThem) {
    const auto check = [] {
        EXPECT_EQ(CreateMutexNamed("E"), kOtherKind);
        EXPECT_EQ(OpenMutexNamed("E"), kOtherKind);
        EXPECT_EQ(CreateSectionNamed("E"), kOtherKind);
        EXPECT_EQ(CreateEventNamed("M"), kOtherKind);
        EXPECT_EQ(OpenEventNamed("M"), kOtherKind);
        EXPECT_EQ(CreateEventNamed("S"), kOtherKind);
        EXPECT_EQ(CreateMutexNamed("S"), kOtherKind);
        EXPECT_EQ(CreateEventNamed("E"), kExisted);
        EXPECT_EQ(CreateMutexNamed("M"), kExisted);
        EXPECT_EQ(CreateSectionNamed("S"), kExisted);
    };
    TestProcess other("HoldsOneOfEach");
    ASSERT_EQ(other.Hear(), "holding");
    check();
    {
        const Owned event = CreateEventA(nullptr, TRUE, FALSE, "E");
        const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
        const Owned section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8, "S");
        check();
    }
    other.Tell("go");
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_EQ(ObjectFiles(), Names{});
}

TEST(Rights, AreThoseThatWereAskedFor) {
    const Owned event = CreateEventA(nullptr, TRUE, TRUE, "E");
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    for (unsigned bit = 0; bit < 32; ++bit) {
        const DWORD access = DWORD{1} << bit;
        SCOPED_TRACE(testing::Message() << std::hex << access);
        EXPECT_EQ(OpenMutexNamed("M", access), (access & 0x0DE0FFFE) != 0 ? kDenied : kOpened);
        EXPECT_EQ(OpenEventNamed("E", access), (access & 0x0DE0FFFC) != 0 ? kDenied : kOpened);
    }
    EXPECT_EQ(OpenEventNamed("E", 0), kDenied);
    EXPECT_EQ(OpenEventNamed("Missing", 0), kMissing);
    EXPECT_EQ(OpenMutexNamed("M", 0), kDenied);
    EXPECT_EQ(OpenMutexNamed("Missing", 0), kMissing);

    struct Row {
        DWORD access;
        bool waits;
        bool modifies;
    };
    for (const Row& row :
         {Row{SYNCHRONIZE, true, false}, Row{EVENT_MODIFY_STATE, false, true}, Row{READ_CONTROL, false, false},
          Row{GENERIC_EXECUTE, true, false}, Row{GENERIC_WRITE, false, true}, Row{GENERIC_READ, false, false},
          Row{GENERIC_ALL, true, true}, Row{MAXIMUM_ALLOWED, true, true}, Row{EVENT_ALL_ACCESS, true, true},
          Row{SYNCHRONIZE | EVENT_MODIFY_STATE, true, true}}) {
        SCOPED_TRACE(testing::Message() << std::hex << row.access);
        const Owned opened = OpenEventA(row.access, FALSE, "E");
        SetLastError(kSentinel);
        EXPECT_EQ(WaitForSingleObject(opened, 0), row.waits ? DWORD{WAIT_OBJECT_0} : WAIT_FAILED);
        EXPECT_EQ(GetLastError(), row.waits ? kSentinel : DWORD{ERROR_ACCESS_DENIED});
        for (const auto call : {SetEvent, PulseEvent, ResetEvent, SetEvent}) {
            SetLastError(kSentinel);
            EXPECT_EQ(call(opened), row.modifies ? TRUE : FALSE);
            EXPECT_EQ(GetLastError(), row.modifies ? kSentinel : DWORD{ERROR_ACCESS_DENIED});
        }
    }
    const Owned unable = OpenMutexA(READ_CONTROL, FALSE, "M");
    EXPECT_EQ(WaitForSingleObject(unable, 0), WAIT_FAILED);
    const Owned able = OpenMutexA(GENERIC_EXECUTE, FALSE, "M");
    EXPECT_EQ(WaitForSingleObject(able, 0), DWORD{WAIT_OBJECT_0});
    EXPECT_TRUE(ReleaseMutex(unable)); // any handle of the owner's
}

TEST(Rights, FollowTheSecurityAttributes) {
    SECURITY_DESCRIPTOR nullDacl{};
    ASSERT_TRUE(InitializeSecurityDescriptor(&nullDacl, SECURITY_DESCRIPTOR_REVISION));
    SECURITY_DESCRIPTOR blank = nullDacl;
    ASSERT_TRUE(SetSecurityDescriptorDacl(&nullDacl, TRUE, nullptr, FALSE));
    SECURITY_ATTRIBUTES everyone{sizeof everyone, &nullDacl, FALSE};
    SECURITY_ATTRIBUTES withBlank{sizeof withBlank, &blank, FALSE};
    SECURITY_ATTRIBUTES none{sizeof none, nullptr, FALSE};
    struct Row {
        LPSECURITY_ATTRIBUTES attributes;
        unsigned mode;
    };
    for (const unsigned mask : {022U, 0777U}) {
        SetUmask(mask);
        for (const Row& row : {Row{nullptr, 0600}, Row{&none, 0600}, Row{&withBlank, 0600}, Row{&everyone, 0666}}) {
            const Owned event = CreateEventA(row.attributes, TRUE, FALSE, "E");
            const Owned mutex = CreateMutexA(row.attributes, FALSE, "M");
            const Owned section = CreateFileMappingA(INVALID_HANDLE_VALUE, row.attributes, PAGE_READWRITE, 0, 8, "S");
            for (const char* name : {"E", "M", "S"})
                EXPECT_EQ(FileMode(ObjectPath(name)), row.mode) << name;
        }
    }
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    EXPECT_EQ(ResultOf([&] { return CreateEventA(&inherited, TRUE, FALSE, "E"); }),
              (Result{false, ERROR_NOT_SUPPORTED}));
    EXPECT_EQ(ResultOf([&] { return CreateMutexA(&inherited, FALSE, nullptr); }), (Result{false, ERROR_NOT_SUPPORTED}));
    EXPECT_EQ(ResultOf([&] { return OpenEventA(SYNCHRONIZE, TRUE, "E"); }), (Result{false, ERROR_NOT_SUPPORTED}));
}

CHILD_PROCESS(UsesThemAsNobody) {
    if (!BecomeNobody()) return 1;
    const Owned event = OpenEventA(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, "Public");
    if (!SetEvent(event) || WaitForSingleObject(event, 0) != WAIT_OBJECT_0) return 2;
    const Owned mutex = OpenMutexA(SYNCHRONIZE, FALSE, "PublicMutex");
    if (WaitForSingleObject(mutex, 0) != WAIT_OBJECT_0 || !ReleaseMutex(mutex)) return 3;
    if (OpenEventNamed("Private") != kDenied || CreateEventNamed("Private") != kDenied) return 4;
    const Owned own = CreateEventA(nullptr, TRUE, FALSE, "Own");
    if (own == nullptr) return 5;
    child.Say("ready");
    child.Hear();
    // The last one out of another user's object: the file is left, dead.
    return 0;
}

TEST(Rights, LetOtherUsersInOrNot) {
    if (!IsRoot()) GTEST_SKIP() << "only root can become somebody else";
    SECURITY_DESCRIPTOR nullDacl{};
    InitializeSecurityDescriptor(&nullDacl, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&nullDacl, TRUE, nullptr, FALSE);
    SECURITY_ATTRIBUTES everyone{sizeof everyone, &nullDacl, FALSE};
    Owned open = CreateEventA(&everyone, TRUE, FALSE, "Public");
    Owned mutex = CreateMutexA(&everyone, FALSE, "PublicMutex");
    Owned closed = CreateEventA(nullptr, TRUE, FALSE, "Private");
    TestProcess other("UsesThemAsNobody");
    ASSERT_EQ(other.Hear(), "ready");
    EXPECT_EQ(WaitForSingleObject(open, 0), DWORD{WAIT_OBJECT_0}); // set by the other user
    open.Close();
    mutex.Close();
    closed.Close();
    other.Tell("go");
    EXPECT_EQ(other.Wait(), 0);
    // What nobody can remove is dead all the same.
    EXPECT_EQ(OpenEventNamed("Public"), kMissing);
    EXPECT_EQ(OpenMutexNamed("PublicMutex"), kMissing);
    EXPECT_EQ(OpenEventNamed("Own"), kMissing);
    EXPECT_EQ(ObjectFiles(), Names{});
}

TEST(Life, EndsWithTheLastHandleInAnyProcess) {
    Owned event = CreateEventA(nullptr, TRUE, TRUE, "E");
    Owned second = OpenEventA(SYNCHRONIZE, FALSE, "E");
    event.Close();
    EXPECT_EQ(OpenEventNamed("E"), kOpened);
    second.Close();
    EXPECT_EQ(OpenEventNamed("E"), kMissing);

    TestProcess other("HoldsOneOfEach");
    ASSERT_EQ(other.Hear(), "holding");
    Owned mine = OpenEventA(EVENT_ALL_ACCESS, FALSE, "E");
    SetEvent(mine);
    mine.Close();
    mine.~Owned();
    new (&mine) Owned(OpenEventA(SYNCHRONIZE, FALSE, "E"));
    EXPECT_EQ(WaitForSingleObject(mine, 0), DWORD{WAIT_OBJECT_0}) << "the other process kept it";
    other.Tell("go");
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_EQ(OpenEventNamed("E"), kOpened) << "now this one does";
    EXPECT_EQ(OpenMutexNamed("M"), kMissing);
    mine.Close();
    EXPECT_EQ(ObjectFiles(), Names{});
}

TEST(Life, EndsWithItsProcessHoweverThatEnds) {
    for (const bool killed : {false, true}) {
        SCOPED_TRACE(killed);
        TestProcess other("HoldsOneOfEach");
        ASSERT_EQ(other.Hear(), "holding");
        Owned event = OpenEventA(EVENT_ALL_ACCESS, FALSE, "E");
        SetEvent(event);
        event.Close();
        if (killed)
            other.Kill();
        else
            other.Tell("leave");
        other.Wait();
        EXPECT_EQ(ObjectFiles(), killed ? (Names{"E", "M", "S"}) : Names{}); // left, but dead
        EXPECT_EQ(OpenEventNamed("E"), kMissing);
        const Owned fresh = CreateEventA(nullptr, TRUE, FALSE, "E");
        EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(WaitForSingleObject(fresh, 0), DWORD{WAIT_TIMEOUT}) << "nothing of the old state";
        EXPECT_EQ(CreateMutexNamed("M"), kNew);
        EXPECT_EQ(CreateSectionNamed("S"), kNew);
    }
    EXPECT_EQ(ObjectFiles(), Names{});
}

CHILD_PROCESS(LeavesWithoutClosing) {
    CreateEventA(nullptr, TRUE, FALSE, "E");
    CreateEventA(nullptr, FALSE, FALSE, "E2");
    CreateMutexA(nullptr, TRUE, "M");
    const HANDLE section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8, "S");
    MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0);
    StartThread([] { // still at it while the process leaves
        const HANDLE event = OpenEventA(EVENT_ALL_ACCESS, FALSE, "E");
        for (;;) {
            SetEvent(event);
            ResetEvent(event);
            WaitForSingleObject(event, 0);
        }
        return 0;
    });
    child.Say("leaving");
    return 0;
}

TEST(Life, EndsWithAProcessThatClosesNothing) {
    const Owned shared = CreateEventA(nullptr, TRUE, TRUE, "E2");
    TestProcess other("LeavesWithoutClosing");
    EXPECT_EQ(other.Hear(), "leaving");
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_EQ(ObjectFiles(), Names{"E2"}); // ours
    EXPECT_EQ(WaitForSingleObject(shared, 0), DWORD{WAIT_OBJECT_0});
}

TEST(Life, IsNotProlongedByAForkChild) {
    Owned event = CreateEventA(nullptr, TRUE, FALSE, "E");
    Owned mutex = CreateMutexA(nullptr, TRUE, "M");
    Owned section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8, "S");
    auto* bytes = static_cast<char*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0));
    ASSERT_NE(bytes, nullptr);
    bytes[0] = 'x';
    const IdleForkChild idle;
    // A child has none of the handles, and may make its own.
    EXPECT_EQ(RunInForkChild([&] {
                  if (WaitForSingleObject(event, 0) != WAIT_FAILED || GetLastError() != ERROR_INVALID_HANDLE) return 1;
                  if (ReleaseMutex(mutex) || CloseHandle(section)) return 2;
                  const HANDLE again = OpenEventA(EVENT_ALL_ACCESS, FALSE, "E");
                  if (!SetEvent(again) || WaitForSingleObject(again, 0) != WAIT_OBJECT_0) return 3;
                  const HANDLE mutexAgain = OpenMutexA(SYNCHRONIZE, FALSE, "M");
                  if (WaitForSingleObject(mutexAgain, 10) != WAIT_TIMEOUT) return 4; // the parent's
                  const HANDLE thread = StartThread([] { return 7; });
                  if (!Join(thread)) return 5;
                  if (bytes[0] != 'x' || !UnmapViewOfFile(bytes)) return 6; // memory is memory
                  return 0;
              }),
              0);
    EXPECT_EQ(WaitForSingleObject(event, 0), DWORD{WAIT_OBJECT_0}); // set by the child
    EXPECT_TRUE(ReleaseMutex(mutex));
    event.Close();
    mutex.Close();
    section.Close();
    EXPECT_EQ(CreateSectionNamed("S"), kExisted) << "the view keeps it";
    EXPECT_TRUE(UnmapViewOfFile(bytes));
    EXPECT_EQ(ObjectFiles(), Names{}) << "although the idle child lives on";
}

// What another user could put in the place of an object.
TEST(Names, TakenBySomethingElseAreRefusedAndLeftAlone) {
    CreateEventNamed("MakesTheFolder");
    const std::string victim = PrivateDirectory() + "/victim";
    PlantFile("../../victim", std::string(64, 'v'));
    ASSERT_TRUE(PlantInPlace(ObjectPath("Link"), Plant::kLink, victim));
    ASSERT_TRUE(PlantInPlace(ObjectPath("Dangling"), Plant::kLink, "/nowhere/at/all"));
    ASSERT_TRUE(PlantInPlace(ObjectPath("Folder"), Plant::kDirectory, ""));
    ASSERT_TRUE(PlantInPlace(ObjectPath("Pipe"), Plant::kPipe, ""));
    PlantHardLink("HardLink", victim);
    for (const char* name : {"Link", "Dangling", "HardLink", "Folder", "Pipe"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(CreateEventNamed(name), kOtherKind);
        EXPECT_EQ(OpenEventNamed(name), kOtherKind);
        EXPECT_EQ(CreateMutexNamed(name), kOtherKind);
    }
    EXPECT_EQ(ReadWholeFile(victim), std::string(64, 'v'));
    for (const char* name : {"Link", "Dangling", "HardLink", "Folder", "Pipe"})
        RemoveObjectFile(name);

    // A file that somebody has locked, as a live object's is, but with other contents.
    const std::string good = [] {
        const Owned event = CreateEventA(nullptr, TRUE, FALSE, "Good");
        return ReadWholeFile(ObjectPath("Good"));
    }();
    ASSERT_EQ(good.size(), 64U);
    std::string otherMark = good;
    otherMark[0] ^= 1;
    std::string otherKind = good;
    otherKind[4] = 99;
    for (const std::string& bytes : {std::string(), good.substr(0, 63), good + "x", otherMark, otherKind}) {
        PlantFile("Forged", bytes);
        const HoldAlive alive("Forged");
        EXPECT_EQ(CreateEventNamed("Forged"), kOtherKind);
        EXPECT_EQ(OpenEventNamed("Forged"), kOtherKind);
    }
    RemoveObjectFile("Forged");
    // Whatever is in it, a file that nobody holds is made anew.
    PlantFile("Dead", std::string(5000, 'd'), 0600);
    EXPECT_EQ(OpenEventNamed("Dead"), kMissing);
    PlantFile("Dead", std::string(5000, 'd'), 0600);
    EXPECT_EQ(CreateEventNamed("Dead"), kNew);
}

// The holder of the folder's lock stands still: an open fails in time, and works again afterwards.
CHILD_PROCESS(HoldsTheFolder) {
    const HoldAlive folder(".");
    child.Say("holding");
    child.Hear();
    return 0;
}

TEST(Names, AreNotWaitedForWithoutEnd) {
    const Owned known = CreateEventA(nullptr, TRUE, FALSE, "Known");
    TestProcess holder("HoldsTheFolder");
    ASSERT_EQ(holder.Hear(), "holding");
    holder.Stop();
    EXPECT_EQ(CreateEventNamed("Known"), kExisted); // needs no lock
    const double begin = NowMs();
    EXPECT_EQ(CreateEventNamed("Unknown"), (Result{false, ERROR_TIMEOUT}));
    EXPECT_LT(NowMs() - begin, 15000.0);
    holder.Kill();
    EXPECT_EQ(CreateEventNamed("Unknown"), kNew);
}

// Processes make, use and drop the same few names, and die over it: nobody ever fails, and nothing is left of the
// names.
CHILD_PROCESS(MakesAndDrops) {
    unsigned random = GetCurrentProcessId();
    for (int round = std::stoi(child.arguments.at(0)); round > 0; --round) {
        random = random * 1103515245 + 12345;
        const std::string name = "Storm" + std::to_string(random >> 16 & 3);
        const HANDLE handle = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
        if (handle == nullptr) return static_cast<int>(GetLastError());
        if (!SetEvent(handle)) return 251;
        if (WaitForSingleObject(handle, 20000) != WAIT_OBJECT_0) return 252;
        if (!CloseHandle(handle)) return 253;
    }
    return 0;
}

TEST(Life, HoldsInAStormOfProcesses) {
    std::vector<TestProcess> others;
    for (int i = 0; i < 6; ++i)
        others.emplace_back("MakesAndDrops", std::vector<std::string>{i < 4 ? "400" : "1000000"});
    for (int i = 5; i >= 4; --i) { // two of them die in the middle, wherever they are
        PauseMs(20);
        others[static_cast<size_t>(i)].Kill();
    }
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(others[static_cast<size_t>(i)].Wait(), 0);
    for (const char* name : {"Storm0", "Storm1", "Storm2", "Storm3"}) {
        const Owned fresh = CreateEventA(nullptr, TRUE, FALSE, name);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(WaitForSingleObject(fresh, 0), DWORD{WAIT_TIMEOUT});
    }
    EXPECT_EQ(ObjectFiles(), Names{});
}
