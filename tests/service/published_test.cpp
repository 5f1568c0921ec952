// Published values: the same as those that calls give, whole under load, and no longer taken for alive when the service
// is dead.
#include "service_under_test.h"

#include "acting_user.h"
#include "campaign.h"

#include "product/client.h"
#include "product/guards.h"
#include "product/published_values.h"
#include "product/service_life.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>

bool RestartStatusService9x() {
    return false;
}

namespace {

// What a client maps.
struct Mapped {
    explicit Mapped(const Database& database) {
        EXPECT_TRUE(BindStatusDatabase());
        EXPECT_EQ(FindPublishedValues(database.handle, &place), Answer::Done);
        section = {static_cast<const BYTE*>(View(place.section.text, place.size)), place.size};
        const auto* record = static_cast<const LifeRecord*>(View(place.life.text, sizeof(LifeRecord)));
        EXPECT_TRUE(section.base && record && BeginLifeWatch(record, &life));
    }
    ~Mapped() { UnbindStatusDatabase(); }

    static const void* View(const char* name, DWORD size) {
        const KernelHandle handle(OpenFileMappingA(FILE_MAP_READ, FALSE, name));
        return handle ? MapViewOfFile(handle.Get(), FILE_MAP_READ, 0, 0, size) : nullptr;
    }
    PublishedRead Read(std::string_view name, Bytes* value, PublishedState* state) const {
        value->assign(kPublishedValueMax, 0xEE);
        const PublishedRead read = ReadPublished(section, name, value->data(), kPublishedValueMax, state);
        if (read == PublishedRead::Done) value->resize(state->size);
        return read;
    }

    PublishedPlace place;
    PublishedSection section;
    LifeWatch life;
};

} // namespace

TEST(Published, TellWhichVariablesAreWatchedAlsoInALargerSection) {
    const Service service;
    const Database database("Database", {{"Byte", kTypeByte, {7}}});
    const auto watched = [&] {
        Bytes value;
        PublishedState state;
        EXPECT_EQ(Mapped(database).Read("Byte", &value, &state), PublishedRead::Done);
        return state.watched;
    };
    EXPECT_FALSE(watched());
    for (const WatchMode mode : {kEveryWrite, kOnlyChanges}) {
        EXPECT_EQ(database.Watch("Byte", mode), kDone);
        EXPECT_TRUE(watched());
        for (int i = 0; i < 200; ++i) // one for each replaces the section
            EXPECT_EQ(database.Add("More" + std::to_string(mode * 1000 + i), kTypeRecord, Bytes(600)), kDone);
        EXPECT_TRUE(watched());
        EXPECT_EQ(database.Unwatch("Byte"), kDone);
        EXPECT_FALSE(watched());
    }
}

TEST(Published, ValuesAreThoseOfTheCallsAlsoWhenTheyGrow) {
    const Service service;
    const Database database("Database", {{"Byte", kTypeByte, {7}},
                                         {"Text", kTypeString, {'a', 0, 0, 0, 0}},
                                         {"List", kTypeVariableLength, {4, 0, 0, 0, 1, 2, 3, 4}},
                                         {"Large", kTypeRecord, Bytes(kPublishedValueMax + 1, 5)},
                                         {"Inner", kTypeComposite, {}},
                                         {"Outer", kTypeComposite, {}}});
    ASSERT_EQ(database.Compose("Inner", "List;Late;"), kDone);
    ASSERT_EQ(database.Compose("Outer", "Byte;Inner;Text;"), kDone);
    const auto compare = [&](const char* when) {
        const Mapped mapped(database); // a section that was replaced is asked for again
        for (const char* name : {"Byte", "Text", "List", "Large", "Inner", "Outer", "Late", "TextW"}) {
            Bytes value;
            PublishedState state;
            VariableInfo info{};
            const bool exists = database.Info(name, &info) == kDone;
            const bool published = mapped.Read(name, &value, &state) == PublishedRead::Done;
            EXPECT_EQ(published, exists && info.size <= kPublishedValueMax) << when << " " << name;
            if (!published) continue;
            EXPECT_EQ(value, database.Value(name)) << when << " " << name;
            EXPECT_EQ(state.type, info.type) << name;
            EXPECT_EQ(static_cast<DWORD>(state.writes + (state.writes >> 32)), info.writes) << when << " " << name;
            EXPECT_EQ(state.writeTime / 10000, Milliseconds(info.writeTime)) << when << " " << name;
        }
    };
    compare("at first");
    EXPECT_EQ(database.Write("Outer", Bytes(1 + 4 + 5, 9)), kWrongSize) << "it has a part of variable length";
    EXPECT_EQ(database.Write("Text", {'b', 'c'}), kDone);
    EXPECT_EQ(database.Write("TextW", {'w'}), kDone);
    compare("after writes");
    EXPECT_EQ(database.Add("Late", kTypeNumber, Number(77)), kDone);
    compare("with a new member");
    for (DWORD size = 16; size <= kPublishedValueMax + 8; size = size * 2 + 4)
        EXPECT_EQ(database.Write("List", Bytes(size, static_cast<unsigned char>(size))), kDone);
    compare("when grown");
    EXPECT_EQ(database.Write("List", {0, 0, 0, 0}), kDone);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(database.Add("More" + std::to_string(i), kTypeNumber, Number(1)), kDone);
    EXPECT_EQ(database.Compose("Outer", "Late;"), kDone);
    compare("when crowded");
}

// Writers of a composite and of its parts, while the section is replaced again and again.
TEST(Published, ValuesAreNeverTornOrOld) {
    const Service service;
    const Database database("Database", {{"A", kTypeRecord, Bytes(100, 1)},
                                         {"B", kTypeRecord, Bytes(100, 1)},
                                         {"Both", kTypeComposite, {}},
                                         {"Own", kTypeNumber, Number(0)}});
    ASSERT_EQ(database.Compose("Both", "A;B;"), kDone);
    std::atomic<bool> isOver = false;
    std::thread writer([&] {
        for (unsigned char byte = 1; !isOver; byte = static_cast<unsigned char>(byte % 250 + 1))
            EXPECT_EQ(database.Write("Both", Bytes(200, byte)), kDone);
    });
    std::thread crowd([&] {
        for (int i = 0; !isOver && i < 1500; ++i)
            EXPECT_EQ(database.Add("More" + std::to_string(i), kTypeRecord, Bytes(64, 1)), kDone);
    });
    const int rounds = Rounds(2000, 100000);
    for (int round = 1, read = 0; read < rounds; ++round) {
        const Mapped mapped(database);
        for (int i = 0; i < 50; ++i) {
            Bytes value;
            PublishedState state;
            const auto number = static_cast<DWORD>(round * 64 + i);
            EXPECT_EQ(database.Set("Own", number), kDone);
            if (mapped.Read("Own", &value, &state) == PublishedRead::Done) {
                EXPECT_EQ(value, Number(number)) << "an own write is not read";
            }
            if (mapped.Read("Both", &value, &state) != PublishedRead::Done) continue;
            ++read;
            ASSERT_EQ(value, Bytes(200, value[0]));
        }
    }
    isOver = true;
    writer.join();
    crowd.join();
}

TEST(Published, OthersReadAndCannotWriteAndADeadServiceIsKnownAsRoot) {
    Service service;
    const Database database("Database", {{"Number", kTypeNumber, Number(7)}});
    const Mapped mapped(database);
    std::thread([&] {
        ASSERT_TRUE(ActAs(65534, 65534));
        EXPECT_NE(Mapped::View(mapped.place.section.text, mapped.place.size), nullptr);
        EXPECT_EQ(OpenFileMappingA(FILE_MAP_WRITE, FALSE, mapped.place.section.text), nullptr);
    }).join();
    EXPECT_TRUE(IsAlive(mapped.life));
    service.process.Kill();
    EXPECT_FALSE(IsAlive(mapped.life)) << "at once, since the process has been waited for";
    const Service next;
    EXPECT_FALSE(IsAlive(mapped.life));
    const Database again("Database", {{"Number", kTypeNumber, Number(8)}});
    EXPECT_TRUE(IsAlive(Mapped(again).life));
}
