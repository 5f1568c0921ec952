// Names of kernel objects: who gets the same object, with which rights, and how long it lives.
#include "base/timings.h"
#include "kit.h"
#include "memory_kit.h"
#include "private_machine.h"

#include <csignal>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace {

HANDLE CreateSection(const char* name) {
    return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8, name);
}

// The kinds of objects that have names; E, M and S are those that a process has of them.
struct Kind {
    const char* name;
    HANDLE (*create)(const char* name);
    HANDLE (*open)(DWORD access, BOOL inherit, const char* name); // null: is only created
};
const Kind kEvent{"E", [](auto* name) { return NewEvent(name); }, OpenEventA};
const Kind kMutex{"M", [](auto* name) { return CreateMutexA(nullptr, FALSE, name); }, OpenMutexA};
const Kind kSection{"S", CreateSection, nullptr};

// Whether there was a handle, which is closed, and the last error.
using Result = std::pair<bool, DWORD>;
constexpr Result kNew{true, ERROR_SUCCESS};
constexpr Result kExisted{true, ERROR_ALREADY_EXISTS};
constexpr Result kOpened{true, kSentinel};
constexpr Result kMissing{false, ERROR_FILE_NOT_FOUND};
constexpr Result kOtherKind{false, ERROR_INVALID_HANDLE};
constexpr Result kDenied{false, ERROR_ACCESS_DENIED};
constexpr Result kUnsupported{false, ERROR_NOT_SUPPORTED};

Result Create(const Kind& kind, const char* name) {
    SetLastError(kSentinel);
    const Owned handle = kind.create(name);
    return {handle != nullptr, GetLastError()};
}

Result Open(const Kind& kind, const char* name, DWORD access = SYNCHRONIZE) {
    SetLastError(kSentinel);
    const Owned handle = kind.open(access, FALSE, name);
    return {handle != nullptr, GetLastError()};
}

// One object of each kind, never closed, with a thread that is still at it while the process leaves.
CHILD_PROCESS(HoldsOneOfEach) {
    static HANDLE busy = NewEvent("B");
    NewEvent("E");
    CreateMutexA(nullptr, TRUE, "M");
    MapViewOfFile(CreateSection("S"), FILE_MAP_WRITE, 0, 0, 0);
    StartThread([] {
        while (SetEvent(busy) && ResetEvent(busy))
            Look(busy);
        return 0;
    });
    return StayReady(child);
}

} // namespace

TEST(Names, AreSharedExactlyWithCase) {
    const char* const name = "TVOR:One/Two%3 \x8A:Changed";
    const HANDLE event = NewEvent(name);
    EXPECT_EQ(Open(kEvent, "TVOR:ONE/Two%3 \x8A:Changed"), kMissing);
    EXPECT_EQ(Open(kEvent, "TVOR:One%2FTwo%253 \x8A:Changed"), kMissing);
    // One state behind them all, and that of the existing one, which is manual.
    const HANDLE again = CreateEventA(nullptr, FALSE, TRUE, "Global\\TVOR:One/Two%3 \x8A:Changed");
    EXPECT_EQ(Look(again), DWORD{WAIT_TIMEOUT});
    SetEvent(again);
    for (const HANDLE same : {event, again, OpenEventA(SYNCHRONIZE, FALSE, name)})
        EXPECT_EQ(Look(same), DWORD{WAIT_OBJECT_0});
}

TEST(Names, ThatCannotBeAreRefused) {
    const std::string longest(240, 'n');
    const std::pair<std::string, DWORD> rows[] = {
        {"Global\\" + longest, ERROR_SUCCESS},  {"../../escape", ERROR_SUCCESS},
        {std::string(250, '/'), ERROR_SUCCESS}, {std::string(251, 'n'), ERROR_FILENAME_EXCED_RANGE},
        {"Local\\Name", ERROR_PATH_NOT_FOUND},  {"Global\\", ERROR_INVALID_NAME},
    };
    for (const auto& [name, error] : rows) {
        for (const Kind& kind : {kEvent, kMutex, kSection})
            EXPECT_EQ(Create(kind, name.c_str()), Result(error == ERROR_SUCCESS, error)) << name << kind.name;
        EXPECT_EQ(Open(kMutex, name.c_str()), error == ERROR_SUCCESS ? kMissing : Result(false, error)) << name;
    }
    EXPECT_EQ(ObjectCount(), 0U);
    const Owned other = CreateEventA(nullptr, TRUE, TRUE, "");
    EXPECT_EQ(Create(kEvent, ""), kNew) << "an object of its own each time";
    EXPECT_EQ(Create(kSection, ""), kUnsupported);
    EXPECT_EQ(Open(kEvent, ""), Result(false, ERROR_INVALID_PARAMETER));
}

TEST(Names, OfAnotherKindAreRefusedWhoeverHoldsThem) {
    TestProcess other = Ready("HoldsOneOfEach");
    for (const bool here : {false, true}) {
        for (const Kind& holder : {kEvent, kMutex, kSection}) {
            const HANDLE own = here ? holder.create(holder.name) : nullptr;
            for (const Kind& kind : {kEvent, kMutex, kSection}) {
                const bool same = *kind.name == *holder.name;
                EXPECT_EQ(Create(kind, holder.name), same ? kExisted : kOtherKind) << holder.name << kind.name << here;
                if (!kind.open) continue;
                EXPECT_EQ(Open(kind, holder.name), same ? kOpened : kOtherKind) << holder.name << kind.name << here;
            }
            if (own) CloseHandle(own);
        }
    }
}

TEST(Rights, AreThoseThatWereAskedFor) {
    const Owned event = CreateEventA(nullptr, TRUE, TRUE, "E");
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    for (unsigned bit = 0; bit < 32; ++bit) {
        const DWORD access = DWORD{1} << bit;
        EXPECT_EQ(Open(kMutex, "M", access), (access & 0x0DE0FFFE) != 0 ? kDenied : kOpened) << bit;
        EXPECT_EQ(Open(kEvent, "E", access), (access & 0x0DE0FFFC) != 0 ? kDenied : kOpened) << bit;
    }
    const std::tuple<DWORD, bool, bool> rows[] = {{SYNCHRONIZE, true, false},
                                                  {EVENT_MODIFY_STATE, false, true},
                                                  {GENERIC_READ, false, false},
                                                  {GENERIC_ALL, true, true},
                                                  {MAXIMUM_ALLOWED, true, true}};
    for (const auto& [access, waits, modifies] : rows) {
        const Owned opened = OpenEventA(access, FALSE, "E");
        SetLastError(kSentinel);
        EXPECT_EQ(Look(opened), waits ? DWORD{WAIT_OBJECT_0} : WAIT_FAILED) << access;
        for (const auto call : {SetEvent, PulseEvent, ResetEvent, SetEvent})
            EXPECT_EQ(call(opened), modifies ? TRUE : FALSE) << access;
        EXPECT_EQ(GetLastError(), waits && modifies ? kSentinel : DWORD{ERROR_ACCESS_DENIED}) << access;
    }
    EXPECT_FAILS(Look(Owned(OpenMutexA(READ_CONTROL, FALSE, "M"))) != WAIT_FAILED, ERROR_ACCESS_DENIED);
}

CHILD_PROCESS(UsesThemAsNobody) {
    if (!BecomeNobody()) return 1;
    const Owned event = OpenEventA(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, "Public");
    const Owned mutex = OpenMutexA(SYNCHRONIZE, FALSE, "PublicMutex");
    if (!SetEvent(event) || Look(event) != WAIT_OBJECT_0) return 2;
    if (Look(mutex) != WAIT_OBJECT_0 || !ReleaseMutex(mutex)) return 3;
    for (const char* name : {"Private", "Blank"})
        if (Open(kEvent, name) != kDenied || Create(kEvent, name) != kDenied) return 4;
    const Owned own = NewEvent("Own");
    return own ? StayReady(child) : 5; // the last one out of another user's objects
}

TEST_AS_ROOT(Rights, LetOtherUsersInOrNot) {
    SECURITY_DESCRIPTOR nullDacl, blank;
    SECURITY_ATTRIBUTES everyone{sizeof everyone, &nullDacl, FALSE}, withBlank{sizeof withBlank, &blank, FALSE};
    ASSERT_TRUE(InitializeSecurityDescriptor(&blank, SECURITY_DESCRIPTOR_REVISION));
    ASSERT_TRUE(InitializeSecurityDescriptor(&nullDacl, SECURITY_DESCRIPTOR_REVISION));
    ASSERT_TRUE(SetSecurityDescriptorDacl(&nullDacl, TRUE, nullptr, FALSE));
    umask(0777); // must not matter
    Owned objects[] = {CreateEventA(&everyone, TRUE, FALSE, "Public"), CreateMutexA(&everyone, FALSE, "PublicMutex"),
                       CreateEventA(&withBlank, TRUE, FALSE, "Blank"), NewEvent("Private")};
    TestProcess other = Ready("UsesThemAsNobody");
    EXPECT_EQ(Look(objects[0]), DWORD{WAIT_OBJECT_0}) << "set by the other user";
    for (Owned& object : objects)
        object.Close();
    other.Tell("go");
    EXPECT_EQ(other.Wait(), 0);
    // Whoever was the last, all are gone.
    for (const auto& [kind, name] : {std::pair{kEvent, "Public"}, {kMutex, "PublicMutex"}, {kEvent, "Own"}})
        EXPECT_EQ(Open(kind, name), kMissing) << name;
    EXPECT_EQ(ObjectCount(), 0U);
}

TEST(Life, EndsWithTheLastProcessHoweverThatEnds) {
    for (const bool killed : {false, true}) {
        TestProcess other = Ready("HoldsOneOfEach");
        SetEvent(Owned(OpenEventA(EVENT_ALL_ACCESS, FALSE, "E")));
        EXPECT_EQ(Look(Owned(OpenEventA(SYNCHRONIZE, FALSE, "E"))), DWORD{WAIT_OBJECT_0}) << "the other one keeps it";
        Owned kept = OpenMutexA(SYNCHRONIZE, FALSE, "M");
        killed ? other.Kill() : other.Tell("leave");
        other.Wait();
        EXPECT_EQ(Open(kMutex, "M"), kOpened) << "now this one keeps it";
        kept.Close();
        EXPECT_EQ(Open(kEvent, "E"), kMissing);
        const Owned fresh = NewEvent("E");
        EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(Look(fresh), DWORD{WAIT_TIMEOUT}) << "nothing of the old state";
        for (const auto& [kind, name] : {std::pair{kMutex, "M"}, {kSection, "S"}, {kEvent, "B"}})
            EXPECT_EQ(Create(kind, name), kNew) << name;
    }
    EXPECT_EQ(ObjectCount(), 0U);
}

TEST(Life, IsNotProlongedByAForkChild) {
    Owned objects[] = {NewEvent("E"), CreateMutexA(nullptr, TRUE, "M"), CreateSection("S")};
    auto& [event, mutex, section] = objects;
    auto* bytes = static_cast<char*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0));
    bytes[0] = 'x';
    if (fork() == 0) prctl(PR_SET_PDEATHSIG, SIGKILL), PauseMs(1000000); // one that does nothing
    // A child has none of the handles, and may make its own.
    EXPECT_EQ(RunForked([&, &event = event, &mutex = mutex, &section = section] {
                  if (Look(event) != WAIT_FAILED || GetLastError() != ERROR_INVALID_HANDLE) return 1;
                  if (ReleaseMutex(mutex) || CloseHandle(section)) return 2;
                  if (!SetEvent(OpenEventA(EVENT_ALL_ACCESS, FALSE, "E"))) return 3;
                  if (Wait(OpenMutexA(SYNCHRONIZE, FALSE, "M"), 10) != WAIT_TIMEOUT) return 4; // the parent's
                  return OnAThread([&] { return bytes[0]; }) == 'x' ? 0 : 5;                   // memory is memory
              }),
              0);
    EXPECT_EQ(Look(event), DWORD{WAIT_OBJECT_0}) << "set by the child";
    EXPECT_TRUE(ReleaseMutex(mutex));
    for (Owned& object : objects)
        object.Close();
    EXPECT_EQ(Create(kSection, "S"), kExisted) << "the view keeps it";
    EXPECT_TRUE(UnmapViewOfFile(bytes));
    EXPECT_EQ(ObjectCount(), 0U) << "although the idle child lives on";
}

// The server stands still: an open fails in time, and works again afterwards. What came too late is given back.
TEST(Names, AreNotWaitedForWithoutEnd) {
    const Owned known = NewEvent("Known");
    SignalObjectServer(SIGSTOP);
    EXPECT_EQ(Create(kEvent, "Known"), kExisted); // needs no server
    oriel::g_timings.objectServer = 100;
    for (const char* name : {"Unknown", "Another"}) {
        const double begin = NowMs();
        EXPECT_EQ(Create(kEvent, name), Result(false, ERROR_TIMEOUT));
        EXPECT_GE(NowMs() - begin, 100.0);
        EXPECT_LT(NowMs() - begin, 4000.0);
    }
    oriel::g_timings = {};
    SignalObjectServer(SIGCONT);
    EXPECT_EQ(Create(kEvent, "Another"), kNew);
    EXPECT_EQ(Open(kEvent, "Unknown"), kMissing);
    EXPECT_EQ(ObjectCount(), 1U);
}
