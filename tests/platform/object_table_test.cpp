// The tables of the object server when the process that changes them is killed.
#include "campaign.h"
#include "objects/table.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace oriel;

namespace {

ObjectRequest Named(const std::string& name, uint32_t size) {
    ObjectRequest request{.action = ObjectAction::Create, .kind = ObjectKind::Section, .size = size};
    name.copy(request.name, sizeof request.name - 1);
    return request;
}

template <typename Record>
void TellPool(std::ostream& out, const Pool& pool, const Record* records) {
    std::set<uint32_t> free;
    for (uint32_t number = pool.free; number != 0 && free.insert(number).second;)
        number = records[number].next;
    out << pool.live << " live; ";
    EXPECT_EQ(pool.used - pool.live, free.size()) << "records are lost, or free twice";
}

// What the tables say, checked for what must hold between them.
std::string Told() {
    std::ostringstream out;
    const ObjectTable& table = *g_table;
    TellPool(out, table.userPool, table.users);
    TellPool(out, table.connectionPool, table.connections);
    TellPool(out, table.holdPool, table.holds);
    TellPool(out, table.objectPool, table.objects);
    for (int quota = 0; quota < kQuotaCount; ++quota) {
        uint32_t taken = 0;
        for (uint32_t user = 1; user <= table.userPool.used; ++user)
            taken += table.users[user].taken[quota];
        EXPECT_EQ(taken, table.taken[quota]) << quota;
        out << taken << '/' << table.takenByOthers[quota] << ' ';
    }
    uint32_t holds = 0, held = 0;
    for (uint32_t connection = 1; connection <= table.connectionPool.used; ++connection) {
        if (table.connections[connection].live == 0) continue;
        out << "\nconnection " << connection << ':';
        uint32_t previous = 0;
        for (uint32_t hold = table.connections[connection].firstHold; hold != 0; hold = table.holds[hold].next) {
            if (++holds > table.holdPool.used) return "holds in a circle";
            EXPECT_EQ(table.holds[hold].connection, connection);
            EXPECT_EQ(table.holds[hold].previous, previous);
            previous = hold;
            out << ' ' << table.objects[table.holds[hold].object].name;
        }
    }
    std::multiset<std::string> objects;
    for (uint32_t first : table.buckets)
        for (uint32_t object = first; object != 0; object = table.objects[object].next) {
            if (objects.size() > table.objectPool.used) return "objects in a circle";
            held += table.objects[object].holds;
            objects.insert(table.objects[object].name + (' ' + std::to_string(table.objects[object].holds)));
        }
    EXPECT_EQ(holds, held);
    EXPECT_EQ(holds, table.holdPool.live);
    EXPECT_EQ(objects.size(), table.objectPool.live);
    for (const std::string& object : objects)
        out << "\nobject " << object;
    return out.str();
}

// Changes the tables in a process that is killed after so many instructions. False when it was not: it has ended.
bool ChangeAndDie(const std::function<void()>& change, int instructions) {
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        change();
        Commit();
        raise(SIGSTOP);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    for (; instructions > 0; --instructions) {
        ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr);
        waitpid(child, &status, 0);
        if (WIFSTOPPED(status) && WSTOPSIG(status) == SIGSTOP) break;
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return instructions == 0;
}

} // namespace

TEST(ObjectTable, IsAsBeforeOrAsAfterWhereverAChangeIsKilled) {
    ASSERT_TRUE(MakeTable(0, 2000));
    for (const uid_t user : {1000U, 1000U, 2000U}) {
        ASSERT_NE(AddConnection(user, -1), 0U);
        Commit();
    }
    for (const char* name : {"A", "B", "C"}) {
        ASSERT_NE(AddHold(1, AddObject(1, Named(name, 5000), ForEveryone::All, -1)), 0U);
        Commit();
    }
    const std::string before = Told();
    std::string after;
    uint32_t hold = 0; // known by its number, which both processes choose alike
    const std::function<void()> add = [&] {
        AddHold(2, FindObject("B"));
        hold = AddHold(3, AddObject(3, Named("New", 9000), ForEveryone::Nothing, -1));
    };
    add();
    Commit();
    after = Told();
    EXPECT_NE(before, after);
    const uint32_t first = g_table->connections[2].firstHold;
    const std::function<void()> remove = [&] {
        RemoveHold(hold);
        RemoveHold(first);
    };
    remove();
    Commit();
    ASSERT_EQ(Told(), before);
    int undone = 0;
    std::mt19937_64 random(Seed());
    const auto stride = static_cast<unsigned>(Rounds(120, 3)); // of some 2,000 instructions
    for (const bool adds : {true, false}) {
        if (!adds) add(), Commit();
        for (int instructions = 0;; instructions += 1 + static_cast<int>(random() % stride)) {
            const bool killed = ChangeAndDie(adds ? add : remove, instructions);
            Undo();
            const std::string now = Told();
            ASSERT_TRUE(now == before || now == after) << instructions << ":\n" << now;
            if (!killed) {
                EXPECT_EQ(now, adds ? after : before);
                break;
            }
            if (now == (adds ? before : after))
                ++undone;
            else
                adds ? remove() : add(), Commit();
        }
        if (Told() == after) remove(), Commit();
    }
    EXPECT_GT(undone, 20);
}
