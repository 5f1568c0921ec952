// The object server under kills, and against other users.
#include "acting_user.h"
#include "campaign.h"
#include "kit.h"
#include "memory_kit.h"
#include "objects/protocol.h"
#include "private_machine.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using oriel::ObjectAction;
using oriel::ObjectKind;
using oriel::ObjectReply;
using oriel::ObjectRequest;

namespace {

// ---- a client that does what it likes

ObjectRequest Request(ObjectAction action, const std::string& name, ObjectKind kind = ObjectKind::ManualEvent) {
    ObjectRequest request{.number = 1, .action = action, .kind = kind, .forEveryone = oriel::ForEveryone::All};
    name.copy(request.name, sizeof request.name - 1);
    return request;
}

bool Send(int connection, const void* bytes, size_t size) {
    return send(connection, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(size);
}

// False when the server has ended the connection. The descriptor is -1 without one.
bool Receive(int connection, ObjectReply& reply, int& memory) {
    return oriel::ReceiveReply(connection, 0, reply, memory) == ssize_t{sizeof reply};
}

// The descriptor of an object's memory; -1 with the server's answer in errno.
int MemoryOf(const std::string& name, uint32_t flags = 0, ObjectKind kind = ObjectKind::ManualEvent) {
    const int connection = ConnectToObjectServer(); // which lasts as long as this process
    ObjectRequest request = Request(ObjectAction::Open, name, kind);
    request.flags = flags;
    ObjectReply reply{};
    int memory = -1;
    if (!Send(connection, &request, sizeof request) || !Receive(connection, reply, memory)) return -1;
    errno = static_cast<int>(reply.error);
    return memory;
}

// ---- kills

constexpr int kPlayers = 4;

std::string Numbered(const char* name, int number) {
    return name + std::to_string(number);
}

// One thread passes a token on, by an event for each player; another one takes mutexes, which are made and gone all the
// time. Exit codes from 10: what went wrong.
CHILD_PROCESS(PlaysWithObjects) {
    const int self = std::stoi(child.arguments[0]);
    volatile LONG* isOver = SharedNumber("Over");
    volatile LONG* turns = SharedNumber("Turns");
    volatile LONG* inside[] = {SharedNumber("Inside0"), SharedNumber("Inside1")};
    const Owned own = NewEvent(Numbered("Player", self).c_str(), FALSE);
    const Owned ring = StartThread([&]() -> DWORD {
        while (*isOver == 0) {
            const DWORD got = Wait(own);
            if (got != WAIT_OBJECT_0) return 10;
            // Opened anew each time, as its owner's partner of the other direction is.
            const Owned next = OpenEventA(EVENT_ALL_ACCESS, FALSE, Numbered("Player", (self + 1) % kPlayers).c_str());
            if (next == nullptr) return 100 + GetLastError();
            *turns = *turns + 1;
            if (!SetEvent(next)) return 12;
        }
        return 0;
    });
    const Owned storm = StartThread([&]() -> DWORD {
        for (int round = self; *isOver == 0; ++round) {
            volatile LONG& in = *inside[round % 2];
            const Owned mutex = CreateMutexA(nullptr, TRUE, Numbered("Brief", round % 2).c_str());
            if (mutex == nullptr) return 100 + GetLastError();
            if (GetLastError() == ERROR_ALREADY_EXISTS && Wait(mutex) != WAIT_OBJECT_0) return 21;
            if (in != 0) return 22; // there are two mutexes of that name
            in = self + 1;
            const std::string name = Numbered("Alone", self);
            Owned alone = NewEvent(name.c_str());
            if (alone == nullptr || GetLastError() != ERROR_SUCCESS) return 23; // left from the last round
            alone.Close();
            if (OpenEventA(SYNCHRONIZE, FALSE, name.c_str()) != nullptr) return 24;
            if (in != self + 1) return 25;
            in = 0;
            if (!ReleaseMutex(mutex)) return 26;
        }
        return 0;
    });
    child.Say("ready");
    const HANDLE both[] = {ring, storm};
    const DWORD first = WaitForMultipleObjects(2, both, FALSE, INFINITE) - WAIT_OBJECT_0;
    DWORD code = 0;
    GetExitCodeThread(both[first], &code);
    if (code != 0) return static_cast<int>(code);
    SetEvent(Owned(OpenEventA(EVENT_ALL_ACCESS, FALSE, Numbered("Player", (self + 1) % kPlayers).c_str())));
    return static_cast<int>(Finish(both[1 - first]));
}

// Lets a process run to its n-th system call from now, before or after it, and stops it there. False where the system
// does not let us.
bool RunToSystemCall(int process, unsigned count) {
    int status = 0;
    if (ptrace(PTRACE_SEIZE, process, nullptr, nullptr) != 0) return false;
    ptrace(PTRACE_INTERRUPT, process, nullptr, nullptr);
    waitpid(process, &status, __WALL);
    for (; count > 0 && WIFSTOPPED(status); --count) {
        ptrace(PTRACE_SYSCALL, process, nullptr, nullptr);
        EXPECT_TRUE(WaitUntil([&] { return waitpid(process, &status, __WALL | WNOHANG) != 0; }));
    }
    return true;
}

// Kills the keeper or its worker, once both are there and nothing is left of the one that was killed last.
bool KillOne(bool worker, int& last, unsigned systemCalls) {
    int victim = 0;
    const bool found = WaitUntil([&] {
        const std::map<int, int> processes = ObjectServerProcesses();
        if (processes.size() != 2 || processes.contains(last)) return false;
        for (const auto& [process, parent] : processes)
            if (processes.contains(parent) == worker) victim = process;
        return victim != 0;
    });
    last = victim;
    if (!found) return false;
    const bool traced = worker && RunToSystemCall(victim, systemCalls);
    if (kill(victim, SIGKILL) != 0) return false;
    if (traced) waitpid(victim, nullptr, __WALL);
    return true;
}

// The whole server.
bool KillBoth() {
    return WaitUntil([] {
        SignalObjectServer(SIGKILL); // a worker that is still alive may have made another one
        return ObjectServerProcesses().empty();
    });
}

} // namespace

TEST(ObjectServerCampaign, LosesNothingWhenItsProcessesAreKilled) {
    {
        volatile LONG* isOver = SharedNumber("Over");
        volatile LONG* turns = SharedNumber("Turns");
        std::vector<Owned> events(kPlayers);
        std::vector<TestProcess> players;
        std::vector<HANDLE> ring;
        for (int i = 0; i < kPlayers; ++i)
            ring.push_back(NewEvent(Numbered("Player", i).c_str(), FALSE));
        for (int i = 0; i < kPlayers; ++i)
            players.push_back(Ready("PlaysWithObjects", {std::to_string(i)}));
        SetEvent(ring[0]);
        std::mt19937_64 random(Seed());
        LONG before = *turns;
        int last = 0;
        const int rounds = Rounds(200, 1000);
        for (int round = 0; round < rounds; ++round) {
            ASSERT_TRUE(KillOne(round % 3 != 0, last, static_cast<unsigned>(random() % 40))) << round;
            usleep(static_cast<unsigned>(random() % 3000));
            for (TestProcess& player : players)
                ASSERT_TRUE(player.Running()) << round << ": " << player.Wait();
            if (round % 20 == 19) {
                EXPECT_TRUE(WaitUntil([&] { return *turns != before; })) << "the token is lost";
                before = *turns;
            }
        }
        *isOver = 1;
        for (HANDLE event : ring)
            SetEvent(event);
        for (TestProcess& player : players)
            EXPECT_EQ(player.Wait(), 0);
        for (HANDLE event : ring)
            CloseHandle(event);
        for (const auto& [process, parent] : ObjectServerProcesses()) {
            const auto descriptors = std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd");
            EXPECT_LT(std::distance(descriptors, {}), 20) << "those of processes that were killed are closed";
        }
        for (const volatile LONG* view : {isOver, turns})
            UnmapViewOfFile(const_cast<LONG*>(view));
    }
    EXPECT_EQ(ObjectCount(), 0U);
}

// Both are killed at once: what processes have goes on, and names belong to the next server.
TEST(ObjectServer, ThatIsKilledWholeIsFollowedByAnother) {
    const Owned event = NewEvent("E"), mutex = CreateMutexA(nullptr, TRUE, "M");
    TestProcess other = Ready("SetsWhenTold");
    ASSERT_TRUE(KillBoth());
    other.Tell("set");
    EXPECT_EQ(Wait(event), DWORD{WAIT_OBJECT_0}) << "of the old server, in both processes";
    EXPECT_FAILS(OpenEventA(SYNCHRONIZE, FALSE, "E"), ERROR_FILE_NOT_FOUND);
    const Owned fresh = NewEvent("E");
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(Look(fresh), DWORD{WAIT_TIMEOUT});
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(ObjectCount(), 1U);
}

CHILD_PROCESS(SetsWhenTold) {
    const Owned event = OpenEventA(EVENT_ALL_ACCESS, FALSE, "E");
    StayReady(child);
    SetEvent(event);
    return 0;
}

// Whoever may set an event may also write its word, and need not wake anybody.
TEST(ObjectServer, ASetOrAPulseWakesWhateverTheWordOfTheEventSays) {
    const Owned event = NewEvent("Scribbled");
    const int memory = MemoryOf("Scribbled");
    ASSERT_GE(memory, 0);
    uint32_t looksSet = 0x4711;
    for (const auto wake : {&SetEvent, &PulseEvent}) {
        DWORD id = 0;
        const Owned waiter = StartThread([&]() -> DWORD { return Wait(event, 10000); }, &id);
        ASSERT_TRUE(WaitUntil([&] { return IsAsleep(id); }));
        looksSet += 0x1000;
        ASSERT_EQ(pwrite(memory, &looksSet, sizeof looksSet, 0), ssize_t{sizeof looksSet});
        EXPECT_TRUE(wake(event));
        EXPECT_EQ(Wait(waiter, 5000), DWORD{WAIT_OBJECT_0});
        EXPECT_EQ(Finish(waiter), DWORD{WAIT_OBJECT_0});
        EXPECT_TRUE(ResetEvent(event));
    }
    close(memory);
}

TEST(ObjectServer, EndsWhenNobodyNeedsItAndLeavesNothing) {
    EXPECT_EQ(RunForked([] { return NewEvent("E") != nullptr ? 0 : 1; }), 0);
    EXPECT_EQ(ObjectServerProcesses().size(), 2U);
    EXPECT_TRUE(WaitUntil([] { return ObjectServerProcesses().empty(); }));
    EXPECT_FALSE(std::filesystem::exists(PrivateDirectory() + "/run/objects"));
    EXPECT_FAILS(OpenEventA(SYNCHRONIZE, FALSE, "E"), ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(ObjectServerProcesses().empty()) << "nothing can be there: no server is started to look";
}

// ---- other users

namespace {

// 0, or the line that failed.
#define REFUSED(call)                                                                                                  \
    if (call) return __LINE__

// What a user tries with the descriptors that the server gives out.
int AttackMemory() {
    for (const bool writable : {true, false}) {
        const int memory =
            MemoryOf(writable ? "Public" : "Readable", writable ? 0 : oriel::kReadingIsEnough, ObjectKind::Section);
        if (memory < 0) return __LINE__;
        for (const off_t size : {0, 1, 4096, 1 << 24})
            REFUSED(ftruncate(memory, size) == 0);
        REFUSED(fallocate(memory, 0, 1 << 22, 4096) == 0);
        REFUSED(fchmod(memory, 0666) == 0);
        REFUSED(fcntl(memory, F_ADD_SEALS, F_SEAL_WRITE) == 0);
        const std::string path = "/proc/self/fd/" + std::to_string(memory);
        REFUSED(open(path.c_str(), O_RDWR | O_CLOEXEC) >= 0);
        REFUSED(truncate(path.c_str(), 0) == 0);
        REFUSED(chmod(path.c_str(), 0666) == 0);
        void* mapping = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
        if ((mapping != MAP_FAILED) != writable) return __LINE__;
        if (writable) continue;
        mapping = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, memory, 0);
        if (mapping == MAP_FAILED) return __LINE__;
        REFUSED(mprotect(mapping, 4096, PROT_READ | PROT_WRITE) == 0);
        REFUSED(pwrite(memory, "x", 1, 0) > 0);
        REFUSED(fallocate(memory, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096) == 0);
    }
    // Reading is not enough where more is asked for, or where waiting changes the object.
    REFUSED(MemoryOf("Readable", 0, ObjectKind::Section) >= 0);
    REFUSED(MemoryOf("ReadableAutomatic", oriel::kReadingIsEnough) >= 0);
    REFUSED(MemoryOf("Closed", oriel::kReadingIsEnough, ObjectKind::Section) >= 0);
    // A wait through the layer.
    const Owned event = OpenEventA(SYNCHRONIZE, FALSE, "ReadableEvent");
    if (Wait(event, 1) != WAIT_TIMEOUT) return __LINE__;
    REFUSED(SetEvent(event));
    REFUSED(OpenEventA(EVENT_MODIFY_STATE, FALSE, "ReadableEvent"));
    return 0;
}

// What a user tries with the product's names.
int AttackNames() {
    SetLastError(0);
    for (const char* name : {"TVOR:DB:V:Updated", "Global\\TVORSQD:Owner:DB"}) {
        REFUSED(CreateMutexA(nullptr, FALSE, name) != nullptr || GetLastError() != ERROR_INVALID_HANDLE);
        REFUSED(CreateEventA(nullptr, FALSE, FALSE, name) != nullptr || GetLastError() != ERROR_INVALID_HANDLE);
    }
    const auto section = [](const char* name) {
        return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 64, name);
    };
    for (const char* name : {"Global\\TVORSDB:Life:0", "TVOR:DB:Values:7"})
        REFUSED(section(name) != nullptr || GetLastError() != ERROR_ACCESS_DENIED);
    for (const char* name : {"TVORPWDMutex", "TVORSQD:PrinterSide:DB"})
        REFUSED(CreateMutexA(nullptr, FALSE, name) != nullptr || GetLastError() != ERROR_ACCESS_DENIED);
    for (const char* name : {"TVORPWD:INITIALIZED", "TVORSDB:Started"}) {
        REFUSED(CreateEventA(nullptr, TRUE, FALSE, name) != nullptr || GetLastError() != ERROR_ACCESS_DENIED);
        REFUSED(CreateMutexA(nullptr, FALSE, name) != nullptr || GetLastError() != ERROR_INVALID_HANDLE);
    }
    // A name of everybody's, made for one alone: see the test.
    return NewEvent("TVORSQD:TerminateManager") != nullptr ? 0 : __LINE__;
}

// Records that no client sends; the server ends each connection, or answers.
int AttackProtocol(std::mt19937_64& random) {
    const ObjectRequest good = Request(ObjectAction::Create, "Garbage");
    for (int round = 0; round < 2000; ++round) {
        const int connection = ConnectToObjectServer();
        if (connection < 0) return __LINE__;
        std::string bytes(reinterpret_cast<const char*>(&good), sizeof good);
        switch (round % 4) {
        case 0:
            bytes = Damaged(bytes, random);
            break;
        case 1:
            bytes = Damaged(bytes, random, 36); // what comes before the name
            break;
        case 2:
            bytes.resize(random() % 600);
            break;
        case 3: // a number out of turn
            bytes[4] = static_cast<char>(random() % 4);
            break;
        }
        for (int i = 0; i < 3; ++i)
            send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        close(connection);
    }
    return 0;
}

// Asks and asks, and takes no reply.
void AttackByNotReading(const std::vector<int>& connections) {
    for (uint32_t number = 1; number < 400; ++number) {
        for (const int connection : connections) {
            ObjectRequest request = Request(ObjectAction::Create, "Unread" + std::to_string(number % 7));
            request.number = number;
            Send(connection, &request, sizeof request);
        }
    }
}

} // namespace

CHILD_PROCESS(Attacks) {
    const auto user = static_cast<unsigned>(std::stoul(child.arguments[1])); // their shares are apart
    if (setgid(user) != 0 || setuid(user) != 0) return 1;
    std::mt19937_64 random(user);
    int line = 0;
    if (child.arguments[0] == "memory") line = AttackMemory();
    if (child.arguments[0] == "names") line = AttackNames();
    if (child.arguments[0] == "protocol") line = AttackProtocol(random);
    std::vector<int> crowd;
    if (child.arguments[0] == "crowd") {
        for (int i = 0; i < 1000; ++i)
            crowd.push_back(ConnectToObjectServer());
        if (std::count(crowd.begin(), crowd.end(), -1) != 0) line = __LINE__;
        AttackByNotReading(crowd);
    }
    child.Say(line == 0 ? "done" : "line " + std::to_string(line));
    child.Hear();
    return 0;
}

TEST_AS_ROOT(ObjectServer, StandsWhatAnotherUserTries) {
    SECURITY_DESCRIPTOR nullDacl;
    SECURITY_ATTRIBUTES everyone{sizeof everyone, &nullDacl, FALSE};
    ASSERT_TRUE(InitializeSecurityDescriptor(&nullDacl, SECURITY_DESCRIPTOR_REVISION));
    ASSERT_TRUE(SetSecurityDescriptorDacl(&nullDacl, TRUE, nullptr, FALSE));
    alignas(ACL) BYTE list[64];
    SECURITY_DESCRIPTOR readDacl;
    SECURITY_ATTRIBUTES readers{sizeof readers, &readDacl, FALSE};
    SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
    PSID sid = nullptr;
    ASSERT_TRUE(AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &sid));
    auto* acl = reinterpret_cast<ACL*>(list);
    ASSERT_TRUE(InitializeAcl(acl, sizeof list, ACL_REVISION));
    ASSERT_TRUE(AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_READ, sid));
    ASSERT_TRUE(InitializeSecurityDescriptor(&readDacl, SECURITY_DESCRIPTOR_REVISION));
    ASSERT_TRUE(SetSecurityDescriptorDacl(&readDacl, TRUE, acl, FALSE));
    const auto section = [](SECURITY_ATTRIBUTES* attributes, const char* name) {
        const Owned mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, attributes, PAGE_READWRITE, 0, 65536, name);
        return static_cast<volatile char*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0));
    };
    volatile char* mapped[] = {section(&everyone, "Public"), section(&readers, "Readable"), section(nullptr, "Closed")};
    const Owned events[] = {CreateEventA(&readers, TRUE, FALSE, "ReadableEvent"),
                            CreateEventA(&readers, FALSE, FALSE, "ReadableAutomatic")};
    const unsigned before = ObjectCount();
    std::vector<TestProcess> attackers;
    for (const char* kind : {"crowd", "protocol", "names", "memory"})
        attackers.emplace_back("Attacks", Names{kind, std::to_string(64000 + attackers.size())});
    std::atomic<bool> isOver{false};
    double longest = 0;
    const Owned work = StartThread([&] {
        for (int round = 0; !isOver; ++round) {
            const double begin = NowMs();
            const std::string name = Numbered("Work", round);
            const Owned event = NewEvent(name.c_str());
            if (event == nullptr || GetLastError() != ERROR_SUCCESS || !SetEvent(event)) return 1;
            if (Look(Owned(OpenEventA(SYNCHRONIZE, FALSE, name.c_str()))) != WAIT_OBJECT_0) return 2;
            longest = std::max(longest, NowMs() - begin);
        }
        return 0;
    });
    for (TestProcess& attacker : attackers)
        EXPECT_EQ(attacker.Hear(), "done");
    EXPECT_NE(OpenEventA(EVENT_ALL_ACCESS, FALSE, "TVORSQD:TerminateManager"), nullptr);
    EXPECT_EQ(OnAThread([] { // the rights are those of the name, not those that its maker chose
                  if (!ActAs(65533, 65533)) return 1;
                  return Owned(OpenEventA(EVENT_ALL_ACCESS, FALSE, "TVORSQD:TerminateManager")) != nullptr ? 0 : 2;
              }),
              0U);
    for (TestProcess& attacker : attackers)
        attacker.Kill();
    isOver = true;
    EXPECT_EQ(Finish(work), 0U);
    EXPECT_LT(longest, 300.0);
    for (volatile char* view : mapped)
        for (int i = 0; i < 65536; i += 4096)
            EXPECT_EQ(view[i], 0) << "and no SIGBUS";
    EXPECT_EQ(ObjectCount(), before + 1) << "the last event is still open here";
    FreeSid(sid);
}

// ---- shares

// Its server cannot raise the limit.
CHILD_PROCESS(ServesFew) {
    const rlimit few{1200, 1200};
    if (setrlimit(RLIMIT_NOFILE, &few) != 0 || prctl(PR_CAPBSET_DROP, CAP_SYS_RESOURCE) != 0) return 1;
    const Owned first = NewEvent("First");
    if (first == nullptr) return 2;
    child.Say("ready");
    child.Hear();
    std::vector<HANDLE> more; // although another user has all that he may have
    for (int i = 0; i < 400; ++i)
        if (more.emplace_back(NewEvent(Numbered("More", i).c_str())) == nullptr) return 3;
    child.Say("done");
    child.Hear();
    return 0;
}

CHILD_PROCESS(TakesAllItCan) {
    if (!BecomeNobody()) return 1;
    int made = 0;
    while (NewEvent(Numbered("Mine", made).c_str()) != nullptr)
        ++made;
    if (GetLastError() != ERROR_NO_SYSTEM_RESOURCES) return 2;
    int connected = 0;
    for (; connected < 500; ++connected) {
        const int connection = ConnectToObjectServer();
        const ObjectRequest request = Request(ObjectAction::Open, "Missing");
        ObjectReply reply{};
        int memory = -1;
        if (!Send(connection, &request, sizeof request) || !Receive(connection, reply, memory)) break;
    }
    child.Say(std::to_string(made) + " " + std::to_string(connected));
    child.Hear();
    return 0;
}

TEST_AS_ROOT(ObjectServer, GivesEachUserAShare) {
    TestProcess server = Ready("ServesFew");
    TestProcess greedy("TakesAllItCan");
    // Of 1200 descriptors, 150 are for connections and 64 spare; a user has an eighth of those and a fourth of the
    // rest.
    EXPECT_EQ(greedy.Hear(), "246 17");
    EXPECT_EQ(server.Ask("more"), "done");
    greedy.Kill();
    TestProcess again("TakesAllItCan");
    EXPECT_EQ(again.Hear(), "246 17") << "given back";
}
