// Message registrations that are left to the printer's owner: the bytes of the list.
#include "notification_kit.h"

namespace {

using RelayedNotification = Opened;

Bytes Entry(uint32_t number, uint32_t window, uint32_t message, const std::string& variable) {
    Bytes name = BytesOf(variable);
    name.resize(32);
    return Joined({Number(number), Number(0), Number(window), Number(message), name});
}

Bytes List(const std::vector<Bytes>& entries) {
    return Joined({Number(static_cast<uint32_t>(4 + 48 * entries.size())),
                   Number(static_cast<uint32_t>(entries.size())), Joined(entries)});
}

} // namespace

TEST_F(RelayedNotification, TheListHoldsWhatTheOwnerIsToServe) {
    g_processKindMask = 0; // as if the first manager had been of the kind of this one, which starts no agent
    manager = OpenPrinter(9);
    const auto list = [&] { return StoredBytes(database, "NotifyMsg"); };
    void* const window = reinterpret_cast<void*>(ULONG_PTR{0x12345678});
    TvsRegistration handle = 77;
    const uint32_t messages[] = {8, 9};
    // Without an owner on the machine nobody would post: asked even before the manager is looked for.
    EXPECT_EQ(SetNotificationMsgA(0, "ModelNumber", window, 7, &handle), TVS_E_NO_OWNER);
    EXPECT_EQ(SetNotificationMsgExA(manager, 2, "ModelNumber;Port", window, messages, &handle), TVS_E_NO_OWNER);
    EXPECT_EQ(KillNotificationMsg(manager, 1), TVS_E_NO_OWNER);
    AddKindBits(0x20); // another process opened one
    EXPECT_EQ(SetNotificationMsgA(0, "ModelNumber", window, 7, &handle), TVS_E_HANDLE);
    EXPECT_EQ(list(), List({}));

    EXPECT_EQ(SetNotificationMsgA(manager, "No such variable", window, 7, &handle), TVS_OK);
    EXPECT_EQ(handle, 1u);
    const Bytes first = Entry(1, 0x12345678, 7, "No such variable");
    EXPECT_EQ(list(), List({first}));
    EXPECT_EQ(SetNotificationMsgExA(manager, 2, "ModelNumber;;Port;JobStatus", window, messages, &handle), TVS_OK);
    EXPECT_EQ(handle, 2u);
    const Bytes second = Entry(2, 0x12345678, 8, "ModelNumber");
    const Bytes third = Entry(2, 0x12345678, 9, "Port");
    EXPECT_EQ(list(), List({first, second, third}));

    // Nothing of these is written.
    EXPECT_EQ(SetNotificationMsgExA(manager, 2, "Port;Nothing", window, messages, &handle), TVS_E_UNKNOWN);
    EXPECT_EQ(SetNotificationMsgExA(manager, 2, "Port", window, messages, &handle), TVS_E_UNKNOWN);
    EXPECT_EQ(SetNotificationMsgExA(manager, 1, "Port", window, nullptr, &handle), TVS_E_FAULT);
    EXPECT_EQ(SetNotificationMsgA(manager, std::string(32, 'n').c_str(), window, 7, &handle), TVS_E_UNKNOWN);
    EXPECT_EQ(SetNotificationMsgA(manager, nullptr, window, 7, &handle), TVS_E_FAULT);
    EXPECT_EQ(SetNotificationMsgA(manager, "Port", reinterpret_cast<void*>(INTPTR_MAX), 7, &handle), TVS_E_UNKNOWN);
    EXPECT_EQ(KillNotificationMsg(manager, 3), TVS_OK);
    EXPECT_EQ(KillNotificationMsg(manager, 0), TVS_OK);
    EXPECT_EQ(list(), List({first, second, third}));
    // A handle that cannot be given back is cancelled.
    EXPECT_EQ(SetNotificationMsgA(manager, "Port", window, 7, nullptr), TVS_E_FAULT);
    const Bytes fourth = Entry(0, 0x12345678, 7, "Port");
    EXPECT_EQ(list(), List({first, second, third, fourth}));
    EXPECT_EQ(KillNotificationMsg(manager, 2), TVS_OK);
    const auto cancelled = [](const Bytes& entry) {
        return Joined({Number(0), Bytes(entry.begin() + 4, entry.end())});
    };
    EXPECT_EQ(list(), List({first, cancelled(second), cancelled(third), fourth}));

    // Lists that others left wrong: the entries that are there count, and no number is given twice.
    Bytes lying = List({first});
    lying[4] = 200;
    StoreBytes(database, "NotifyMsg", lying);
    EXPECT_EQ(SetNotificationMsgA(manager, "Port", window, 7, &handle), TVS_OK);
    EXPECT_EQ(list(), List({first, Entry(2, 0x12345678, 7, "Port")}));
    StoreBytes(database, "NotifyMsg", List({Entry(0xFFFFFFFF, 1, 1, "Port")}));
    EXPECT_EQ(SetNotificationMsgA(manager, "Port", window, 7, &handle), TVS_E_MEMORY);

    // A process that has opened one manager of another kind serves all of its messages itself.
    OpenPrinter(2);
    EXPECT_EQ(SetNotificationMsgA(manager, "ModelNumber", window, 7, &handle), TVS_OK);
    EXPECT_EQ(RegistrationCount(manager), 1);
    EXPECT_EQ(KillNotificationMsg(manager, handle), TVS_OK);
}
