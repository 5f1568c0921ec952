// Names of kernel objects: who gets the same object, with which rights, and how long it lives.
#include "base/timings.h"
#include "campaign.h"
#include "memory_kit.h"
#include "posix_kit.h"
#include "private_machine.h"
#include "win32_kit.h"

#include <tuple>
#include <vector>

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

constexpr Result kNew{true, ERROR_SUCCESS};
constexpr Result kExisted{true, ERROR_ALREADY_EXISTS};
constexpr Result kOpened{true, kSentinel};
constexpr Result kMissing{false, ERROR_FILE_NOT_FOUND};
constexpr Result kOtherKind{false, ERROR_INVALID_HANDLE};
constexpr Result kDenied{false, ERROR_ACCESS_DENIED};
constexpr Result kUnsupported{false, ERROR_NOT_SUPPORTED};
constexpr Result kInvalid{false, ERROR_INVALID_PARAMETER};

HANDLE CreateSection(const char* name) {
    return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8, name);
}

// What the call says. The handle is closed.
template <typename Call>
Result ResultOf(Call call) {
    SetLastError(kSentinel);
    const HANDLE handle = call();
    const Result result{handle != nullptr, GetLastError()};
    if (handle != nullptr) CloseHandle(handle);
    return result;
}
Result CreateEventNamed(const char* name, LPSECURITY_ATTRIBUTES attributes = nullptr) {
    return ResultOf([&] { return CreateEventA(attributes, TRUE, FALSE, name); });
}
Result OpenEventNamed(const char* name, DWORD access = SYNCHRONIZE) {
    return ResultOf([&] { return OpenEventA(access, FALSE, name); });
}
Result CreateMutexNamed(const char* name, LPSECURITY_ATTRIBUTES attributes = nullptr) {
    return ResultOf([&] { return CreateMutexA(attributes, FALSE, name); });
}
Result OpenMutexNamed(const char* name, DWORD access = SYNCHRONIZE) {
    return ResultOf([&] { return OpenMutexA(access, FALSE, name); });
}
Result CreateSectionNamed(const char* name) {
    return ResultOf([&] { return CreateSection(name); });
}

// One object of each kind, never closed, with a thread that is still at it while the process leaves.
CHILD_PROCESS(HoldsOneOfEach) {
    static HANDLE busy = CreateEventA(nullptr, TRUE, FALSE, "B");
    CreateEventA(nullptr, TRUE, FALSE, "E");
    CreateMutexA(nullptr, TRUE, "M");
    MapViewOfFile(CreateSection("S"), FILE_MAP_WRITE, 0, 0, 0);
    StartThread([] {
        while (SetEvent(busy) && ResetEvent(busy))
            Look(busy);
        return 0;
    });
    child.Say("holding");
    child.Hear();
    return 0;
}

} // namespace

TEST(Names, AreSharedExactly) {
    const char* const name = "TVOR:One/Two%3 \x8A:Changed";
    const char* const global = "Global\\TVOR:One/Two%3 \x8A:Changed";
    const Owned event = CreateEventA(nullptr, TRUE, FALSE, name);
    EXPECT_EQ(CreateEventNamed(name), kExisted);
    EXPECT_EQ(OpenEventNamed(name), kOpened);
    EXPECT_EQ(OpenEventNamed("TVOR:ONE/Two%3 \x8A:Changed"), kMissing) << "with case";
    EXPECT_EQ(OpenEventNamed("TVOR:One%2FTwo%253 \x8A:Changed"), kMissing);
    if (!OnTheLayer()) return; // where a logon has names of its own
    EXPECT_EQ(OpenEventNamed(global), kOpened);
    // One state behind them all, and that of the existing one.
    const Owned again = CreateEventA(nullptr, FALSE, TRUE, global);
    EXPECT_EQ(Look(again), DWORD{WAIT_TIMEOUT});
    SetEvent(again);
    EXPECT_EQ(Look(event), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(Look(again), DWORD{WAIT_OBJECT_0}) << "the existing one is manual";
}

TEST(Names, ThatCannotBeAreRefused) {
    NeedsTheLayer("names that are files");
    const std::string longest(240, 'n');
    constexpr Result kTooLong{false, ERROR_FILENAME_EXCED_RANGE};
    constexpr Result kNoPath{false, ERROR_PATH_NOT_FOUND};
    const struct {
        std::string name;
        Result result;
    } rows[] = {
        {longest, kNew},
        {"Global\\" + longest, kNew},
        {"..", kNew},
        {"../../escape", kNew},
        {std::string(251, 'n'), kTooLong},
        {std::string(100, '/'), kTooLong}, // as a file name
        {std::string(5000, 'n'), kTooLong},
        {"Local\\Name", kNoPath},
        {"Global\\Global\\Name", kNoPath},
        {"Global\\", {false, ERROR_INVALID_NAME}},
    };
    for (const auto& [name, result] : rows) {
        SCOPED_TRACE(name);
        EXPECT_EQ(CreateEventNamed(name.c_str()), result);
        EXPECT_EQ(CreateMutexNamed(name.c_str()), result);
        EXPECT_EQ(CreateSectionNamed(name.c_str()), result);
        EXPECT_EQ(OpenMutexNamed(name.c_str()), result == kNew ? kMissing : result);
    }
    EXPECT_EQ(ObjectFiles(), Names{});
    const Owned other = CreateEventA(nullptr, TRUE, TRUE, "");
    for (const char* none : {static_cast<const char*>(nullptr), ""}) { // an object of its own each time
        EXPECT_EQ(CreateEventNamed(none), kNew);
        EXPECT_EQ(CreateMutexNamed(none), kNew);
        EXPECT_EQ(CreateSectionNamed(none), kUnsupported);
        EXPECT_EQ(OpenEventNamed(none), kInvalid);
        EXPECT_EQ(OpenMutexNamed(none), kInvalid);
        EXPECT_EQ(Look(Owned(CreateEventA(nullptr, TRUE, FALSE, none))), DWORD{WAIT_TIMEOUT});
    }
}

TEST(Names, OfAnotherKindAreRefusedWhoeverHoldsThem) {
    TestProcess other("HoldsOneOfEach");
    ASSERT_EQ(other.Hear(), "holding");
    for (const bool here : {false, true}) {
        const Owned event = here ? CreateEventA(nullptr, TRUE, FALSE, "E") : nullptr;
        const Owned mutex = here ? CreateMutexA(nullptr, FALSE, "M") : nullptr;
        const Owned section = here ? CreateSection("S") : nullptr;
        for (const std::string name : {"E", "M", "S"}) {
            SCOPED_TRACE(name + (here ? " here" : " there"));
            EXPECT_EQ(CreateEventNamed(name.c_str()), name == "E" ? kExisted : kOtherKind);
            EXPECT_EQ(OpenEventNamed(name.c_str()), name == "E" ? kOpened : kOtherKind);
            EXPECT_EQ(CreateMutexNamed(name.c_str()), name == "M" ? kExisted : kOtherKind);
            EXPECT_EQ(OpenMutexNamed(name.c_str()), name == "M" ? kOpened : kOtherKind);
            EXPECT_EQ(CreateSectionNamed(name.c_str()), name == "S" ? kExisted : kOtherKind);
        }
    }
}

TEST(Rights, AreThoseThatWereAskedFor) {
    const Owned event = CreateEventA(nullptr, TRUE, TRUE, "E");
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    for (unsigned bit = 0; bit <= 32; ++bit) {
        const DWORD access = bit < 32 ? DWORD{1} << bit : 0;
        SCOPED_TRACE(testing::Message() << std::hex << access);
        if (!OnTheLayer()) break; // its rights are those that somebody needs
        EXPECT_EQ(OpenMutexNamed("M", access), bit == 32 || (access & 0x0DE0FFFE) != 0 ? kDenied : kOpened);
        EXPECT_EQ(OpenEventNamed("E", access), bit == 32 || (access & 0x0DE0FFFC) != 0 ? kDenied : kOpened);
    }
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    if (OnTheLayer()) {
        EXPECT_EQ(CreateEventNamed("E", &inherited), kUnsupported);
        EXPECT_EQ(CreateMutexNamed(nullptr, &inherited), kUnsupported);
        EXPECT_EQ(ResultOf([&] { return OpenEventA(SYNCHRONIZE, TRUE, "E"); }), kUnsupported);
    }
    EXPECT_EQ(OpenEventNamed("Missing", 0), kMissing);
    EXPECT_EQ(OpenMutexNamed("Missing", 0), kMissing);
    for (const auto& [access, waits, modifies] : {std::tuple{DWORD{SYNCHRONIZE}, true, false},
                                                  {EVENT_MODIFY_STATE, false, true},
                                                  {GENERIC_EXECUTE, true, false},
                                                  {GENERIC_WRITE, false, true},
                                                  {GENERIC_READ, false, false},
                                                  {GENERIC_ALL, true, true},
                                                  {MAXIMUM_ALLOWED, true, true},
                                                  {EVENT_ALL_ACCESS, true, true}}) {
        SCOPED_TRACE(testing::Message() << std::hex << access);
        const Owned opened = OpenEventA(access, FALSE, "E");
        SetLastError(kSentinel);
        EXPECT_EQ(Look(opened), waits ? DWORD{WAIT_OBJECT_0} : WAIT_FAILED);
        for (const auto call : {SetEvent, PulseEvent, ResetEvent, SetEvent})
            EXPECT_EQ(call(opened), modifies ? TRUE : FALSE);
        EXPECT_EQ(GetLastError(), waits && modifies ? kSentinel : DWORD{ERROR_ACCESS_DENIED});
    }
    const Owned unable = OpenMutexA(READ_CONTROL, FALSE, "M");
    EXPECT_FAILS(Look(unable) != WAIT_FAILED, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Look(Owned(OpenMutexA(GENERIC_EXECUTE, FALSE, "M"))), DWORD{WAIT_OBJECT_0});
    EXPECT_TRUE(ReleaseMutex(unable)) << "any handle of the owner's";
}

CHILD_PROCESS(UsesThemAsNobody) {
    if (!BecomeNobody()) return 1;
    const Owned event = OpenEventA(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, "Public");
    if (!SetEvent(event) || Look(event) != WAIT_OBJECT_0) return 2;
    const Owned mutex = OpenMutexA(SYNCHRONIZE, FALSE, "PublicMutex");
    if (Look(mutex) != WAIT_OBJECT_0 || !ReleaseMutex(mutex)) return 3;
    for (const char* name : {"Private", "Blank"})
        if (OpenEventNamed(name) != kDenied || CreateEventNamed(name) != kDenied) return 4;
    const Owned own = CreateEventA(nullptr, TRUE, FALSE, "Own");
    child.Say(own != nullptr ? "ready" : "no object of its own");
    child.Hear();
    return 0; // the last one out of another user's object: the file is left, dead
}

TEST_AS_ROOT(Rights, LetOtherUsersInOrNot) {
    SECURITY_DESCRIPTOR nullDacl, blank;
    SECURITY_ATTRIBUTES everyone{sizeof everyone, &nullDacl, FALSE};
    SECURITY_ATTRIBUTES withBlank{sizeof withBlank, &blank, FALSE};
    ASSERT_TRUE(InitializeSecurityDescriptor(&blank, SECURITY_DESCRIPTOR_REVISION));
    ASSERT_TRUE(InitializeSecurityDescriptor(&nullDacl, SECURITY_DESCRIPTOR_REVISION));
    ASSERT_TRUE(SetSecurityDescriptorDacl(&nullDacl, TRUE, nullptr, FALSE));
    SetUmask(0777); // must not matter
    Owned open = CreateEventA(&everyone, TRUE, FALSE, "Public");
    Owned mutex = CreateMutexA(&everyone, FALSE, "PublicMutex");
    Owned blankEvent = CreateEventA(&withBlank, TRUE, FALSE, "Blank");
    Owned closed = CreateEventA(nullptr, TRUE, FALSE, "Private");
    TestProcess other("UsesThemAsNobody");
    ASSERT_EQ(other.Hear(), "ready");
    EXPECT_EQ(Look(open), DWORD{WAIT_OBJECT_0}) << "set by the other user";
    for (Owned* object : {&open, &mutex, &closed, &blankEvent})
        object->Close();
    other.Tell("go");
    EXPECT_EQ(other.Wait(), 0);
    // What nobody can remove is dead all the same.
    EXPECT_EQ(OpenEventNamed("Public"), kMissing);
    EXPECT_EQ(OpenMutexNamed("PublicMutex"), kMissing);
    EXPECT_EQ(OpenEventNamed("Own"), kMissing);
    EXPECT_EQ(ObjectFiles(), Names{});
}

TEST(Life, EndsWithTheLastProcessHoweverThatEnds) {
    for (const bool killed : {false, true}) {
        SCOPED_TRACE(killed);
        TestProcess other("HoldsOneOfEach");
        ASSERT_EQ(other.Hear(), "holding");
        SetEvent(Owned(OpenEventA(EVENT_ALL_ACCESS, FALSE, "E")));
        EXPECT_EQ(Look(Owned(OpenEventA(SYNCHRONIZE, FALSE, "E"))), DWORD{WAIT_OBJECT_0}) << "the other one keeps it";
        Owned kept = OpenMutexA(SYNCHRONIZE, FALSE, "M");
        if (killed)
            other.Kill();
        else
            other.Tell("leave");
        other.Wait();
        EXPECT_EQ(OpenMutexNamed("M"), kOpened) << "now this one keeps it";
        kept.Close();
        EXPECT_EQ(ObjectFiles(), killed ? (Names{"B", "E", "S"}) : Names{}) << "left, but dead";
        EXPECT_EQ(OpenEventNamed("E"), kMissing);
        const Owned fresh = CreateEventA(nullptr, TRUE, FALSE, "E");
        EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(Look(fresh), DWORD{WAIT_TIMEOUT}) << "nothing of the old state";
        EXPECT_EQ(CreateMutexNamed("M"), kNew);
        EXPECT_EQ(CreateSectionNamed("S"), kNew);
        EXPECT_EQ(CreateEventNamed("B"), kNew);
    }
    EXPECT_EQ(ObjectFiles(), Names{});
}

TEST(Life, IsNotProlongedByAForkChild) {
    Owned event = CreateEventA(nullptr, TRUE, FALSE, "E");
    Owned mutex = CreateMutexA(nullptr, TRUE, "M");
    Owned section = CreateSection("S");
    auto* bytes = static_cast<char*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0));
    ASSERT_NE(bytes, nullptr);
    bytes[0] = 'x';
    StartIdleForkChild();
    // A child has none of the handles, and may make its own.
    EXPECT_EQ(RunForked([&] {
                  if (Look(event) != WAIT_FAILED || GetLastError() != ERROR_INVALID_HANDLE) return 1;
                  if (ReleaseMutex(mutex) || CloseHandle(section)) return 2;
                  const HANDLE again = OpenEventA(EVENT_ALL_ACCESS, FALSE, "E");
                  if (!SetEvent(again) || Look(again) != WAIT_OBJECT_0) return 3;
                  if (Wait(OpenMutexA(SYNCHRONIZE, FALSE, "M"), 10) != WAIT_TIMEOUT) return 4; // the parent's
                  if (OnAThread([] { return 7; }) != 7) return 5;
                  return bytes[0] == 'x' && UnmapViewOfFile(bytes) ? 0 : 6; // memory is memory
              }),
              0);
    EXPECT_EQ(Look(event), DWORD{WAIT_OBJECT_0}) << "set by the child";
    EXPECT_TRUE(ReleaseMutex(mutex));
    for (Owned* object : {&event, &mutex, &section})
        object->Close();
    EXPECT_EQ(CreateSectionNamed("S"), kExisted) << "the view keeps it";
    EXPECT_TRUE(UnmapViewOfFile(bytes));
    EXPECT_EQ(ObjectFiles(), Names{}) << "although the idle child lives on";
}

// What another user could put in the place of an object.
TEST(Names, TakenBySomethingElseAreRefusedAndLeftAlone) {
    CreateEventNamed("MakesTheFolder");
    const std::string victim = PrivateDirectory() + "/victim";
    ReplaceFile(victim, std::string(64, 'v'), 0666);
    const struct {
        Plant plant;
        std::string target;
    } plants[] = {{Plant::kLink, victim},
                  {Plant::kLink, "/nowhere/at/all"},
                  {Plant::kHardLink, victim},
                  {Plant::kDirectory, ""},
                  {Plant::kPipe, ""}};
    for (const auto& row : plants) {
        SCOPED_TRACE(testing::Message() << static_cast<int>(row.plant) << " " << row.target);
        ASSERT_TRUE(PlantInPlace(ObjectPath("Planted"), row.plant, row.target));
        EXPECT_EQ(CreateEventNamed("Planted"), kOtherKind);
        EXPECT_EQ(OpenEventNamed("Planted"), kOtherKind);
        EXPECT_EQ(CreateMutexNamed("Planted"), kOtherKind);
    }
    EXPECT_EQ(ReadWholeFile(victim), std::string(64, 'v'));

    // A file that somebody has locked, as a live object's is, but with other contents.
    std::string good;
    {
        const Owned event = CreateEventA(nullptr, TRUE, FALSE, "Good");
        good = ReadWholeFile(ObjectPath("Good"));
    }
    ASSERT_EQ(good.size(), 64U);
    std::string otherMark = good, otherKind = good;
    otherMark[0] ^= 1;
    otherKind[4] = 99;
    for (const std::string& bytes : {std::string(), good.substr(0, 63), good + "x", otherMark, otherKind}) {
        ReplaceFile(ObjectPath("Forged"), bytes, 0666);
        HoldObject("Forged");
        EXPECT_EQ(CreateEventNamed("Forged"), kOtherKind);
        EXPECT_EQ(OpenEventNamed("Forged"), kOtherKind);
    }
    // Whatever is in it, a file that nobody holds is made anew.
    ReplaceFile(ObjectPath("Dead"), std::string(5000, 'd'), 0600);
    EXPECT_EQ(OpenEventNamed("Dead"), kMissing);
    ReplaceFile(ObjectPath("Dead"), std::string(5000, 'd'), 0600);
    EXPECT_EQ(CreateEventNamed("Dead"), kNew);
}

// The holder of the folder's lock stands still: an open fails in time, and works again afterwards.
CHILD_PROCESS(HoldsTheFolder) {
    HoldObject(".");
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
    oriel::g_timings.namesLock = 100;
    const double begin = NowMs();
    EXPECT_EQ(CreateEventNamed("Unknown"), (Result{false, ERROR_TIMEOUT}));
    EXPECT_GE(NowMs() - begin, 100.0);
    EXPECT_LT(NowMs() - begin, 4000.0);
    oriel::g_timings = {};
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
        if (!SetEvent(handle) || Wait(handle) != WAIT_OBJECT_0 || !CloseHandle(handle)) return 255;
    }
    return 0;
}

TEST(LifeCampaign, HoldsInAStormOfProcesses) {
    const std::string rounds = std::to_string(Rounds(400, 20000));
    std::vector<TestProcess> others;
    for (int i = 0; i < 4; ++i)
        others.emplace_back("MakesAndDrops", Names{rounds});
    for (int i = 0; i < Rounds(3, 200); ++i) { // die in the middle, wherever they are
        TestProcess victim("MakesAndDrops", {"1000000000"});
        PauseMs(20);
        victim.Kill();
    }
    for (TestProcess& other : others)
        EXPECT_EQ(other.Wait(250000), 0);
    for (const char* name : {"Storm0", "Storm1", "Storm2", "Storm3"}) {
        const Owned fresh = CreateEventA(nullptr, TRUE, FALSE, name);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(Look(fresh), DWORD{WAIT_TIMEOUT});
    }
    EXPECT_EQ(ObjectFiles(), Names{});
}
