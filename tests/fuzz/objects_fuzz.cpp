// The object server's requests and tables. The input is a sequence of steps of several peers: u8 what, u8 which peer,
// and what the step needs. After each step the tables have to agree with themselves, and with a model of who holds
// what. The tables are small, so that shares and the reserve of the server's user are soon used up.
#include "fuzz.h"
#include "objects/requests.h"
#include "objects/table.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>
#include <winerror.h>

using namespace oriel;

namespace {

constexpr uid_t kOwner = 500;
constexpr uid_t kUsers[] = {0, kOwner, 1000, 1001, 1002, 1003, 1004, 1005};
constexpr uint32_t kSmall[kQuotaCount] = {16, 24, 48, 120};
constexpr uint64_t kSecret = 1;

constexpr ORIEL_RESERVED_NAME kRules[] = {
    {"Read:*", ORIEL_OBJECT_MANUAL_EVENT, ORIEL_OTHERS_READ, TRUE},
    {"Closed:*", ORIEL_OBJECT_SECTION, ORIEL_OTHERS_NOTHING, FALSE},
    {"Open:*", ORIEL_OBJECT_MUTEX, ORIEL_OTHERS_ALL, FALSE},
};

struct Peer {
    int end = -1; // its end of the connection
    uid_t user = 0;
    uint32_t number = 0; // in the table
    int unread = 0;      // replies
    std::map<uint32_t, std::string> holds;
};

struct Object {
    uid_t maker;
    ForEveryone forEveryone;
    ObjectKind kind;
    ino_t memory;
    uint32_t holds;
};

std::array<Peer, 12> g_peers;
std::map<std::string, Object> g_objects;
std::vector<std::string> g_names;

bool IsPrivileged(uid_t user) {
    return user == 0 || user == kOwner;
}

template <typename Record>
void Empty(Pool& pool, Record* records) {
    std::fill_n(records, pool.used + 1, Record{});
    pool = {};
}

// So that no input depends on those before it. A new table would take a millisecond.
void EmptyTable() {
    ObjectTable& table = *g_table;
    Empty(table.userPool, table.users);
    Empty(table.connectionPool, table.connections);
    Empty(table.holdPool, table.holds);
    Empty(table.objectPool, table.objects);
    std::fill(std::begin(table.buckets), std::end(table.buckets), 0);
    for (uint32_t* each : {table.taken, table.takenByOthers})
        std::fill_n(each, kQuotaCount, 0);
    std::copy(std::begin(kSmall), std::end(kSmall), table.most);
}

// Names, some of which meet in one bucket.
void ChooseNames() {
    REQUIRE(MakeTable(kOwner, 1 << 20));
    g_table->secret = kSecret;
    const uint32_t connection = AddConnection(kOwner, -1);
    for (int i = 0; g_names.size() < 6; ++i) {
        ObjectRequest request{.kind = ObjectKind::ManualEvent};
        std::snprintf(request.name, sizeof request.name, "%d", i);
        const uint32_t number = AddObject(connection, request, ForEveryone::All, -1);
        REQUIRE(number != 0);
        Commit();
        if (const uint32_t next = g_table->objects[number].next)
            g_names.insert(g_names.end(), {request.name, g_table->objects[next].name});
    }
    g_names.insert(g_names.end(), {"Read:1", "Closed:1", "Open:1", "Open:2"});
    SetRules(kRules);
}

// ---- what must hold

void CheckPools() {
    const ObjectTable& table = *g_table;
    std::set<uid_t> users;
    uint32_t sum[kQuotaCount] = {}, others[kQuotaCount] = {}, live = 0;
    for (uint32_t i = 1; i <= table.userPool.used; ++i) {
        const UserRecord& user = table.users[i];
        if (std::none_of(user.taken, std::end(user.taken), [](uint32_t taken) { return taken != 0; })) continue;
        ++live;
        REQUIRE(users.insert(user.id).second);
        uint32_t counted[kQuotaCount] = {};
        for (uint32_t k = 1; k <= table.connectionPool.used; ++k)
            counted[kConnectionQuota] += table.connections[k].live != 0 && table.connections[k].user == i;
        for (uint32_t k = 1; k <= table.objectPool.used; ++k) {
            const ObjectRecord& object = table.objects[k];
            if (object.holds == 0 || object.user != i) continue;
            ++counted[kObjectQuota];
            counted[kPageQuota] += (ObjectBytes(object.kind, object.size) + 4095) / 4096;
        }
        for (uint32_t k = 1; k <= table.holdPool.used; ++k) {
            const uint32_t connection = table.holds[k].connection;
            counted[kHoldQuota] += connection != 0 && table.connections[connection].user == i;
        }
        for (int quota = 0; quota < kQuotaCount; ++quota) {
            REQUIRE(user.taken[quota] == counted[quota]);
            sum[quota] += user.taken[quota];
            if (IsPrivileged(user.id)) continue;
            others[quota] += user.taken[quota];
            REQUIRE(user.taken[quota] <= kSmall[quota] / kUserPart[quota]);
        }
    }
    REQUIRE(live == table.userPool.live);
    for (int quota = 0; quota < kQuotaCount; ++quota) {
        REQUIRE(sum[quota] == table.taken[quota] && sum[quota] <= kSmall[quota]);
        REQUIRE(others[quota] == table.takenByOthers[quota] && others[quota] <= kSmall[quota] / 2);
    }
    REQUIRE(sum[kConnectionQuota] == table.connectionPool.live && sum[kHoldQuota] == table.holdPool.live);
    REQUIRE(sum[kObjectQuota] == table.objectPool.live);
    REQUIRE(table.changes.count == 0);
}

// Each name that the model has is found, with as many holds; no other is.
void CheckNames() {
    REQUIRE(g_objects.size() == g_table->objectPool.live);
    for (const std::string& name : g_names) {
        const uint32_t number = FindObject(name.c_str());
        const auto known = g_objects.find(name);
        REQUIRE((number != 0) == (known != g_objects.end()));
        REQUIRE(number == 0 || g_table->objects[number].holds == known->second.holds);
    }
    for (const Peer& peer : g_peers) {
        if (peer.end < 0) continue;
        size_t holds = 0;
        for (uint32_t k = g_table->connections[peer.number].firstHold; k != 0; k = g_table->holds[k].next) {
            REQUIRE(peer.holds.contains(k));
            ++holds;
        }
        REQUIRE(holds == peer.holds.size());
    }
}

// Of those that the steps may have opened.
size_t OpenDescriptors() {
    size_t count = 0;
    for (int file = 0; file < 256; ++file)
        count += fcntl(file, F_GETFD) >= 0;
    return count;
}

// ---- steps

void LoseHold(Peer& peer, uint32_t hold) {
    const auto held = peer.holds.find(hold);
    REQUIRE(held != peer.holds.end());
    if (--g_objects.at(held->second).holds == 0) g_objects.erase(held->second);
    peer.holds.erase(held);
}

void Disconnect(Peer& peer) {
    if (peer.end < 0) return;
    ConnectionRecord& connection = g_table->connections[peer.number];
    while (connection.firstHold != 0) {
        LoseHold(peer, connection.firstHold);
        const int unused = RemoveHold(connection.firstHold);
        Commit();
        if (unused >= 0) close(unused);
        CheckPools();
    }
    const int file = connection.file;
    RemoveConnection(peer.number);
    Commit();
    close(file);
    close(peer.end);
    peer = {};
}

void Connect(Peer& peer, uid_t user) {
    Disconnect(peer);
    int ends[2];
    REQUIRE(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
    const int least = 1;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    const uint32_t number = AddConnection(user, ends[0]);
    if (number == 0) {
        Undo();
        REQUIRE(!IsPrivileged(user) || g_table->taken[kConnectionQuota] == kSmall[kConnectionQuota]);
        close(ends[0]);
        close(ends[1]);
        return;
    }
    Commit();
    peer = {.end = ends[1], .user = user, .number = number};
}

ForEveryone RightsOfNew(const ObjectRequest& request, uid_t user) {
    const std::string_view name = request.name;
    for (const ORIEL_RESERVED_NAME& rule : kRules) {
        const std::string_view pattern = rule.pattern;
        if (!name.starts_with(pattern.substr(0, pattern.size() - 1))) continue;
        REQUIRE(static_cast<DWORD>(request.kind) == rule.kind && (!rule.ownerMakes || IsPrivileged(user)));
        return static_cast<ForEveryone>(rule.others);
    }
    return request.forEveryone;
}

// The memory that a hold stands for.
struct stat MemoryOf(uint32_t hold) {
    struct stat status {};
    REQUIRE(fstat(g_table->objects[g_table->holds[hold].object].file, &status) == 0);
    return status;
}

void NoteHold(Peer& peer, const ObjectRequest& request, const ObjectReply& reply) {
    const std::string name = request.name;
    const struct stat memory = MemoryOf(reply.hold);
    if ((reply.flags & kExisted) == 0) {
        REQUIRE(request.action == ObjectAction::Create && !g_objects.contains(name));
        REQUIRE(memory.st_size == ObjectBytes(request.kind, request.size));
        g_objects[name] = {peer.user, RightsOfNew(request, peer.user), request.kind, memory.st_ino, 0};
    }
    REQUIRE(g_objects.contains(name) && g_objects[name].memory == memory.st_ino);
    ++g_objects[name].holds;
    REQUIRE(peer.holds.emplace(reply.hold, name).second);
}

// The server's user and root are refused only what nobody can have any more.
void CheckRefusal(const Peer& peer, const ObjectRequest& request) {
    const uint32_t pages = (ObjectBytes(request.kind, request.size) + 4095) / 4096;
    const uint32_t wanted[kQuotaCount] = {0, 1, 1, pages};
    bool full = !IsPrivileged(peer.user);
    for (int quota = 0; quota < kQuotaCount; ++quota)
        full |= g_table->taken[quota] + wanted[quota] > kSmall[quota];
    REQUIRE(full);
}

// What an executed request has done, in the model.
void Note(Peer& peer, const ObjectRequest& request, const ObjectReply& reply) {
    if (reply.error != ERROR_SUCCESS) {
        REQUIRE(reply.hold == 0 && reply.flags == 0);
        if (reply.error == ERROR_NO_SYSTEM_RESOURCES) CheckRefusal(peer, request);
        return;
    }
    switch (request.action) {
    case ObjectAction::Open:
    case ObjectAction::Create:
        return NoteHold(peer, request, reply);
    case ObjectAction::CloseOwned:
        REQUIRE(g_objects.at(peer.holds.at(request.hold)).holds == 1);
        [[fallthrough]];
    case ObjectAction::Close:
        return LoseHold(peer, request.hold);
    case ObjectAction::Count:
        REQUIRE(IsPrivileged(peer.user) && reply.size == g_objects.size());
        return;
    }
    REQUIRE(false);
}

// What the peer has got is what it may have, and the memory of that name.
void CheckMemory(const Object& object, const Peer& peer, uint32_t flags, int memory) {
    struct stat status {};
    REQUIRE(memory >= 0 && fstat(memory, &status) == 0 && status.st_ino == object.memory);
    constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    REQUIRE((fcntl(memory, F_GET_SEALS) & kSeals) == kSeals);
    const bool canWrite = (fcntl(memory, F_GETFL) & O_ACCMODE) == O_RDWR;
    REQUIRE(canWrite == ((flags & kOnlyReadable) == 0));
    const bool isTheirs = object.maker == peer.user || IsPrivileged(peer.user);
    REQUIRE(isTheirs || object.forEveryone == ForEveryone::All ||
            (object.forEveryone == ForEveryone::Read && !canWrite));
}

// Takes all replies; the last one is the table's.
void TakeReplies(Peer& peer) {
    const ObjectReply& expected = g_table->connections[peer.number].reply;
    for (bool isLast = false; !isLast;) {
        ObjectReply reply{};
        int memory = -1;
        REQUIRE(ReceiveReply(peer.end, 0, reply, memory) == ssize_t{sizeof reply});
        REQUIRE(reply.protocol == kObjectProtocol && (memory >= 0) == (reply.hold != 0));
        isLast = --peer.unread == 0;
        if (isLast) {
            REQUIRE(std::memcmp(&reply, &expected, sizeof reply) == 0);
            if (reply.hold != 0) CheckMemory(g_objects.at(peer.holds.at(reply.hold)), peer, reply.flags, memory);
        }
        if (memory >= 0) close(memory);
    }
}

// reads: the peer takes its replies.
void Ask(Peer& peer, std::string_view record, bool reads) {
    const uint32_t before = g_table->connections[peer.number].reply.number;
    ObjectRequest request{};
    const bool good = DecodeRequest(record.data(), record.size(), request) && request.number == before + 1;
    const bool answered = ExecuteAndAnswer(peer.number, record.data(), record.size());
    const ObjectReply reply = g_table->connections[peer.number].reply;
    REQUIRE((reply.number == before + 1) == good);
    if (good) Note(peer, request, reply);
    if (!answered) {
        REQUIRE(!good || peer.unread > 0);
        Disconnect(peer);
        return;
    }
    ++peer.unread;
    if (reads) TakeReplies(peer);
}

void AskFor(Peer& peer, Input& input) {
    ObjectRequest request{.number = g_table->connections[peer.number].reply.number + 1};
    request.action = static_cast<ObjectAction>(input.Take<uint8_t>() % 6);
    const auto how = input.Take<uint8_t>();
    request.flags = how & (kReadingIsEnough | kOwnedAtBirth);
    const bool repeats = (how & 4) != 0;
    const bool reads = (how & 8) == 0;
    request.kind = static_cast<ObjectKind>(how >> 4 & 7);
    request.forEveryone = static_cast<ForEveryone>(input.Take<uint8_t>() % 4);
    const uint32_t size = input.Take<uint8_t>() * 256U;
    if (request.kind == ObjectKind::Section) request.size = size;
    const auto which = input.Take<uint8_t>();
    g_names[which % g_names.size()].copy(request.name, sizeof request.name - 1);
    request.hold = which;
    if (!peer.holds.empty() && which < 128)
        request.hold = std::next(peer.holds.begin(), static_cast<long>(which % peer.holds.size()))->first;
    const std::string_view record(reinterpret_cast<const char*>(&request), sizeof request);
    Ask(peer, record, reads);
    if (repeats && peer.end >= 0) Ask(peer, record, reads);
}

// As the next worker finds the tables after a kill in the middle of a change.
void ChangeByHalf(const Peer& peer, uint8_t what) {
    const uint32_t hold = g_table->connections[peer.number].firstHold;
    if (what % 2 == 0 && hold != 0) {
        RemoveHold(hold);
    } else {
        ObjectRequest request{.kind = ObjectKind::Section, .size = what * 1024U + 1, .name = "Half"};
        const uint32_t object = AddObject(peer.number, request, ForEveryone::All, -1);
        if (object != 0) AddHold(peer.number, object);
    }
    Undo();
    REQUIRE(FindObject("Half") == 0);
}

void Step(Input& input) {
    const auto what = input.Take<uint8_t>() % 8;
    const auto which = input.Take<uint8_t>();
    Peer& peer = g_peers[which % g_peers.size()];
    if (peer.end < 0) return Connect(peer, kUsers[which / g_peers.size() % std::size(kUsers)]);
    switch (what) {
    case 0:
        return Disconnect(peer);
    case 1:
        return ChangeByHalf(peer, input.Take<uint8_t>());
    case 2:
        return Ask(peer, input.Bytes(input.Take<uint16_t>() % 512), true);
    default:
        return AskFor(peer, input);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (g_names.empty()) ChooseNames();
    EmptyTable();
    const size_t descriptors = OpenDescriptors();
    Input input(data, size);
    for (int steps = 0; !input.IsEmpty() && steps < 64; ++steps) {
        Step(input);
        CheckPools();
        CheckNames();
    }
    for (Peer& peer : g_peers)
        Disconnect(peer);
    CheckPools();
    REQUIRE(g_objects.empty() && g_table->userPool.live == 0);
    REQUIRE(OpenDescriptors() == descriptors);
    return 0;
}
