// Every pointer argument of every export, with every kind of bad address: the code, no crash, and nothing lost.
#include "machine.h"
#include "memory_kit.h"
#include "product/client.h"
#include "wide_literal.h"

#include <cstring>
#include <set>

namespace {

constexpr size_t kPage = 4096;

// The bytes from the address on that can be read: up to the end of its page, if anything.
size_t ReadableRun(const AddressCase& row) {
    static const std::set<std::string> kNothing = {"NULL",   "1",         "non-canonical",
                                                   "kernel", "no access", "behind the file's end"};
    return kNothing.contains(row.kind) ? 0 : kPage - reinterpret_cast<uintptr_t>(row.address) % kPage;
}

struct TextArgument {
    const char* name;
    size_t capacity; // bytes that are read before the text is too long
    int32_t tooLong;
    int32_t fault;
    std::function<int32_t(const void* address)> call;
};

struct OutputArgument {
    const char* name;
    size_t size;
    int32_t fault;
    std::function<int32_t(void* address)> call;
};

// What is registered by them is never delivered.
const TvsCallback kCallback = [](TvsManager, uint32_t, const char*, const void*, uint32_t) {};
void* const kEvents[2] = {};
const uint32_t kNumbers[2] = {};

} // namespace

TEST(BadPointers, TextsAreReadOnlyAsFarAsTheyGo) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    uint32_t value = 0;
    uint32_t size = 0;
    SYSTEMTIME time;
    TvsManager opened = 0;
    const auto narrow = [](const void* address) { return static_cast<const char*>(address); };
    const auto wide = [](const void* address) { return static_cast<const WCHAR*>(address); };
    const auto closed = [&](int32_t status) {
        if (status == TVS_OK) {
            EXPECT_EQ(CloseManager(opened), TVS_OK);
        }
        return status;
    };
    const TextArgument arguments[] = {
        {"GetPrinterStatusA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return GetPrinterStatusA(manager, narrow(a), &value, 4, &size); }},
        {"GetPrinterStatusInfoA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return GetPrinterStatusInfoA(manager, narrow(a), &time); }},
        {"GetPrinterStatusInfoW variable", 64, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return GetPrinterStatusInfoW(manager, wide(a), &time); }},
        {"UpdatePrinterStatusA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return UpdatePrinterStatusA(manager, narrow(a), &value, 4); }},
        {"GetPrinterStatusDirectA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return GetPrinterStatusDirectA(manager, narrow(a), &value, 4, &size); }},
        {"SetPrinterStatusDirectA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return SetPrinterStatusDirectA(manager, narrow(a), &value, 4); }},
        {"SetNotificationEventA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return SetNotificationEventA(manager, narrow(a), nullptr, &opened); }},
        {"SetNotificationMsgA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return SetNotificationMsgA(manager, narrow(a), nullptr, 1, &opened); }},
        {"SetNotificationCallbackA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return SetNotificationCallbackA(manager, narrow(a), kCallback, 0, &opened); }},
        {"SetNotificationEventExA variables", 65536, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return SetNotificationEventExA(manager, 1, narrow(a), kEvents, &opened); }},
        {"SetNotificationMsgExA variables", 65536, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return SetNotificationMsgExA(manager, 1, narrow(a), nullptr, kNumbers, &opened); }},
        {"SetNotificationCallbackExA variables", 65536, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) {
             return SetNotificationCallbackExA(manager, 1, narrow(a), &kCallback, kNumbers, &opened);
         }},
        {"GetPrinterStatusW variable", 64, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return GetPrinterStatusW(manager, wide(a), &value, 4, &size); }},
        {"UpdatePrinterStatusW variable", 64, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return UpdatePrinterStatusW(manager, wide(a), &value, 4); }},
        {"SetNotificationEventW variable", 64, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return SetNotificationEventW(manager, wide(a), nullptr, &opened); }},
        {"SetNotificationEventExW variables", 131072, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return SetNotificationEventExW(manager, 1, wide(a), kEvents, &opened); }},
        {"GetReqPrinterStatusEventA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return GetReqPrinterStatusEventA(manager, narrow(a), nullptr); }},
        {"GetReqPrinterStatusMsgA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return GetReqPrinterStatusMsgA(manager, narrow(a), nullptr, 0); }},
        {"SetReqPrinterStatusEventA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return SetReqPrinterStatusEventA(manager, narrow(a), &value, 4, nullptr, &size); }},
        {"SetReqPrinterStatusMsgA variable", 256, TVS_E_UNKNOWN, TVS_E_FAULT,
         [&](const void* a) { return SetReqPrinterStatusMsgA(manager, narrow(a), &value, 4, nullptr, 0, &size); }},
        {"OpenManagerA printer", 260, TVS_E_UNAVAILABLE, TVS_E_FAULT,
         [&](const void* a) { return OpenManagerA(narrow(a), "u", &opened); }},
        {"OpenManagerExA printer", 260, TVS_E_UNAVAILABLE, TVS_E_FAULT,
         [&](const void* a) { return OpenManagerExA(narrow(a), "u", 2, &opened); }},
        {"OpenManagerExA printer of kind 1", 260, TVS_E_UNAVAILABLE, TVS_E_FAULT,
         [&](const void* a) { return OpenManagerExA(narrow(a), "u", 1, &opened); }},
        {"OpenManagerW printer", 520, TVS_E_UNAVAILABLE, TVS_E_FAULT,
         [&](const void* a) { return OpenManagerW(wide(a), WIDE("u"), &opened); }},
        {"OpenManagerExW printer", 520, TVS_E_UNAVAILABLE, TVS_E_FAULT,
         [&](const void* a) { return OpenManagerExW(wide(a), WIDE("u"), 2, &opened); }},
        // A user name that cannot be read counts as absent.
        {"OpenManagerExA user", 64, TVS_E_UNAVAILABLE, TVS_OK,
         [&](const void* a) { return closed(OpenManagerExA(kPrinter.c_str(), narrow(a), 2, &opened)); }},
        {"OpenManagerExW user", 128, TVS_E_UNAVAILABLE, TVS_OK,
         [&](const void* a) { return closed(OpenManagerExW(WIDE("Front desk"), wide(a), 2, &opened)); }},
    };
    BadMemory memory;
    for (const TextArgument& argument : arguments)
        for (const AddressCase& row : memory.Kinds(40)) {
            const int32_t expected = ReadableRun(row) >= argument.capacity ? argument.tooLong : argument.fault;
            EXPECT_EQ(argument.call(row.address), expected) << argument.name << ": " << row.kind;
        }
    // A text that ends where the page does is a text.
    const auto atEnd = [&](const void* text, size_t bytes) { return std::memcpy(memory.AtEnd(bytes), text, bytes); };
    EXPECT_EQ(GetPrinterStatusA(manager, static_cast<char*>(atEnd("ModelNumber", 12)), &value, 4, &size), TVS_OK);
    EXPECT_EQ(GetPrinterStatusInfoW(manager, static_cast<WCHAR*>(atEnd(WIDE("JobStatus"), 20)), &time), TVS_OK);
    EXPECT_EQ(closed(OpenManagerExA(static_cast<char*>(atEnd("Front desk", 11)), nullptr, 2, &opened)), TVS_OK);
    // One that begins on another page than it ends.
    const std::string longName(255, 'n');
    std::memcpy(memory.AtEnd(kPage) + 10, longName.c_str(), 256);
    EXPECT_EQ(GetPrinterStatusA(manager, narrow(memory.AtEnd(kPage) + 10), &value, 4, &size), TVS_E_UNKNOWN);
}

TEST(BadPointers, OutputsAreWrittenOrNothingIsLost) {
    const Product product;
    AddModelVariable(kModel, "Queue", 4, 0x10080, Number(0));
    const TvsManager manager = OpenPrinter();
    const DatabaseHandle database = RecordOf(manager)->printerDatabase.handle;
    const Bytes items = Joined({Number(12), Number(2), {'o', 'l', 'd', '1'}, {'n', 'e', 'w', '2'}});
    const Bytes results = Joined({Number(12), Number(1), Number(5), Number(0)});
    ASSERT_EQ(CreateVariable(database, "Queue", product::kTypeVariableLength, 16, items.data()), Answer::Done);
    const auto restore = [&] {
        EXPECT_EQ(WriteVariable(database, "Queue", items.data(), 16), Answer::Done);
        EXPECT_EQ(WriteVariable(database, "ReqResult", results.data(), 16), Answer::Done);
    };
    const auto unchanged = [&] {
        Bytes now(16);
        DWORD size = 0;
        EXPECT_EQ(ReadVariable(database, "Queue", now.data(), 16, &size), Answer::Done);
        const bool queueIsWhole = size == 16 && now == items;
        EXPECT_EQ(ReadVariable(database, "ReqResult", now.data(), 16, &size), Answer::Done);
        return queueIsWhole && size == 16 && now == results;
    };
    uint32_t value = 0;
    uint32_t size = 0;
    const auto word = [](void* address) { return static_cast<uint32_t*>(address); };
    const char* printer = kPrinter.c_str();
    const OutputArgument arguments[] = {
        {"GetPrinterStatusA buffer", 4, TVS_E_FAULT,
         [&](void* a) { return GetPrinterStatusA(manager, "ModelNumber", a, a != nullptr ? 4 : 0, &size); }},
        {"GetPrinterStatusA buffer of a queue", 4, TVS_E_FAULT,
         [&](void* a) { return GetPrinterStatusA(manager, "Queue", a, a != nullptr ? 4 : 0, &size); }},
        {"GetPrinterStatusA returned size", 4, TVS_E_FAULT,
         [&](void* a) { return GetPrinterStatusA(manager, "ModelNumber", &value, 4, word(a)); }},
        {"GetPrinterStatusA returned size of a queue", 4, TVS_E_FAULT,
         [&](void* a) { return GetPrinterStatusA(manager, "Queue", &value, 4, word(a)); }},
        {"GetPrinterStatusInfoA time", 16, TVS_E_FAULT,
         [&](void* a) { return GetPrinterStatusInfoA(manager, "JobStatus", static_cast<SYSTEMTIME*>(a)); }},
        {"GetPrinterStatusInfoW time", 16, TVS_E_FAULT,
         [&](void* a) { return GetPrinterStatusInfoW(manager, WIDE("JobStatus"), static_cast<SYSTEMTIME*>(a)); }},
        {"ResSetPrinterStatus result", 4, TVS_E_FAULT,
         [&](void* a) { return ResSetPrinterStatus(manager, 5, static_cast<int32_t*>(a)); }},
        {"OpenManagerExA handle", sizeof(TvsManager), TVS_E_UNAVAILABLE,
         [&](void* a) { return OpenManagerExA(printer, "u", 2, static_cast<TvsManager*>(a)); }},
        {"OpenManagerExW handle", sizeof(TvsManager), TVS_E_UNAVAILABLE,
         [&](void* a) { return OpenManagerExW(WIDE("Front desk"), WIDE("u"), 2, static_cast<TvsManager*>(a)); }},
    };
    BadMemory memory;
    for (const OutputArgument& argument : arguments)
        for (const AddressCase& row : memory.Kinds(argument.size)) {
            SCOPED_TRACE(std::string(argument.name) + ": " + row.kind);
            if (row.size != argument.size) continue; // the size of an output is fixed
            restore();
            const int32_t status = argument.call(row.address);
            if (row.writable) {
                EXPECT_EQ(status, TVS_OK);
                continue;
            }
            // No buffer at all is the question for the size.
            const bool asked = row.address == nullptr && std::strstr(argument.name, "buffer") != nullptr;
            EXPECT_EQ(status, asked ? TVS_E_SIZE : argument.fault);
            EXPECT_TRUE(unchanged());
        }
    while (g_managerList != nullptr && g_openManagerCount > 1)
        EXPECT_EQ(CloseManager(HandleOf(g_managerList)), TVS_OK);
}

TEST(BadPointers, DataToStoreAreReadWholeOrNotAtAll) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    BadMemory memory;
    for (const AddressCase& row : memory.Kinds(600)) {
        SCOPED_TRACE(row.kind);
        EXPECT_EQ(Update(manager, "AccessControlList", {1, 2, 3}), TVS_OK);
        const uint32_t size = row.size > 0xFFFFFFFF ? 0xFFFFFFFF : static_cast<uint32_t>(row.size);
        const int32_t status = UpdatePrinterStatusA(manager, "AccessControlList", row.address, size);
        const bool huge = size == 0xFFFFFFFF;
        EXPECT_EQ(status, huge ? PassOn(Answer::WrongSize) : row.readable ? TVS_OK : TVS_E_FAULT);
        DWORD stored = 0;
        EXPECT_EQ(ReadVariable(RecordOf(manager)->printerDatabase, "AccessControlList", nullptr, 0, &stored),
                  Answer::Done);
        EXPECT_EQ(stored, row.readable ? 604u : 7u);
    }
}

// A list with a variable that is delegated and one that is not.
TEST(BadPointers, NotificationsAreRegisteredWholeOrNotAtAll) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const char one[] = "PrinterStatus";
    const char two[] = "PrinterStatus;ModelNumber";
    const TvsCallback callbacks[] = {kCallback, kCallback};
    TvsRegistration made = 0;
    const auto handle = [](void* a) { return static_cast<TvsRegistration*>(a); };
    const auto numbers = [](void* a) { return static_cast<const uint32_t*>(a); };
    const struct {
        const char* name;
        size_t size;
        bool isOutput;
        std::function<int32_t(void* address)> call;
    } arguments[] = {
        {"EventA", sizeof made, true, [&](void* a) { return SetNotificationEventA(manager, one, nullptr, handle(a)); }},
        {"MsgA", sizeof made, true, [&](void* a) { return SetNotificationMsgA(manager, one, nullptr, 1, handle(a)); }},
        {"CallbackA", sizeof made, true,
         [&](void* a) { return SetNotificationCallbackA(manager, one, kCallback, 0, handle(a)); }},
        {"EventExA", sizeof made, true,
         [&](void* a) { return SetNotificationEventExA(manager, 2, two, kEvents, handle(a)); }},
        {"MsgExA", sizeof made, true,
         [&](void* a) { return SetNotificationMsgExA(manager, 2, two, nullptr, kNumbers, handle(a)); }},
        {"CallbackExA", sizeof made, true,
         [&](void* a) { return SetNotificationCallbackExA(manager, 2, two, callbacks, kNumbers, handle(a)); }},
        {"EventExA events", 2 * sizeof(void*), false,
         [&](void* a) { return SetNotificationEventExA(manager, 2, two, static_cast<void**>(a), &made); }},
        {"MsgExA messages", 8, false,
         [&](void* a) { return SetNotificationMsgExA(manager, 2, two, nullptr, numbers(a), &made); }},
        {"CallbackExA callbacks", 2 * sizeof(TvsCallback), false,
         [&](void* a) {
             return SetNotificationCallbackExA(manager, 2, two, static_cast<TvsCallback*>(a), kNumbers, &made);
         }},
        {"CallbackExA flags", 8, false,
         [&](void* a) { return SetNotificationCallbackExA(manager, 2, two, callbacks, numbers(a), &made); }},
    };
    const auto registered = [&] {
        const ManagerLockHold lock;
        return FindManager(manager)->registrations != nullptr;
    };
    BadMemory memory;
    for (const auto& argument : arguments)
        for (const AddressCase& row : memory.Kinds(argument.size)) {
            if (row.size != argument.size) continue; // the size is not told
            SCOPED_TRACE(std::string(argument.name) + ": " + row.kind);
            const bool good = argument.isOutput ? row.writable : row.readable;
            EXPECT_EQ(argument.call(row.address), good ? TVS_OK : TVS_E_FAULT);
            EXPECT_EQ(registered(), good);
            if (!good) continue;
            if (argument.isOutput) std::memcpy(&made, row.address, sizeof made);
            EXPECT_EQ(KillNotificationEvent(manager, made), TVS_OK);
            EXPECT_FALSE(registered());
        }
}
