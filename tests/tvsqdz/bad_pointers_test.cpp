// Every pointer argument of every export, with every kind of bad address: the code, no crash, and nothing lost.
#include "memory_kit.h"
#include "notification_kit.h"
#include "printer_side.h"
#include "wide_literal.h"

#include <tvsqdz_records.h>

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

// An address that is taken for a pointer to whatever the export wants.
struct Any {
    void* address;
    template <typename Type>
    operator Type*() const {
        return static_cast<Type*>(address);
    }
};
using Call = std::function<int32_t(Any)>;

// What is registered by it is never delivered.
const TvsCallback kCallback = [](TvsManager, uint32_t, const char*, const void*, uint32_t) {};

struct BadPointers : OpenedReady {
    // Opened, closed again; registered, cancelled; requested, done.
    int32_t Closed(int32_t status) {
        if (status == TVS_OK) {
            EXPECT_EQ(CloseManager(made), TVS_OK);
        }
        return status;
    }
    int32_t Cancelled(int32_t status, Any handle) {
        EXPECT_EQ(RegistrationCount(manager) > 0, status == TVS_OK);
        if (status != TVS_OK) return status;
        if (handle.address != &made) std::memcpy(&made, handle.address, sizeof made);
        EXPECT_EQ(KillNotificationEvent(manager, made), TVS_OK);
        EXPECT_EQ(RegistrationCount(manager), 0);
        return status;
    }
    int32_t Done(int32_t status) {
        if (status == TVS_OK) {
            EXPECT_TRUE(IsSet(event));
            EXPECT_EQ(ResultOf(manager, 1), 0);
        }
        EXPECT_EQ(StoredBytes(database, "ReqResult"), Joined({Number(4), Number(0)}));
        return status;
    }

    const HANDLE event = NewEvent();
    void* const events[2] = {};
    const uint32_t numbers[2] = {};
    const TvsCallback callbacks[2] = {kCallback, kCallback};
    uint32_t value = 0;
    uint32_t size = 0;
    SYSTEMTIME time;
    UINT_PTR made = 0;
    BadMemory memory;
};

} // namespace

TEST_F(BadPointers, TextsAreReadOnlyAsFarAsTheyGo) {
    const TvsManager m = manager;
    // capacity: bytes that are read before the text is too long.
    const auto check = [&](size_t capacity, int32_t tooLong, const std::vector<Call>& calls,
                           int32_t fault = TVS_E_FAULT) {
        for (const Call& call : calls)
            for (const AddressCase& row : memory.Kinds(40))
                EXPECT_EQ(call({row.address}), ReadableRun(row) >= capacity ? tooLong : fault)
                    << capacity << " bytes, call " << &call - calls.data() << ": " << row.kind;
    };
    std::vector<Call> ansi, wide;
    const auto add = [&](auto ansiForm, auto wideForm, auto... arguments) {
        ansi.push_back([=](Any a) { return ansiForm(m, a, arguments...); });
        wide.push_back([=](Any a) { return wideForm(m, a, arguments...); });
    };
    add(GetPrinterStatusA, GetPrinterStatusW, &value, 4u, &size);
    add(GetPrinterStatusInfoA, GetPrinterStatusInfoW, &time);
    add(UpdatePrinterStatusA, UpdatePrinterStatusW, &value, 4u);
    add(GetPrinterStatusDirectA, GetPrinterStatusDirectW, &value, 4u, &size);
    add(SetPrinterStatusDirectA, SetPrinterStatusDirectW, &value, 4u);
    add(SetNotificationEventA, SetNotificationEventW, nullptr, &made);
    add(SetNotificationMsgA, SetNotificationMsgW, nullptr, 1u, &made);
    add(GetReqPrinterStatusEventA, GetReqPrinterStatusEventW, event);
    add(GetReqPrinterStatusMsgA, GetReqPrinterStatusMsgW, nullptr, 0u);
    add(SetReqPrinterStatusEventA, SetReqPrinterStatusEventW, &value, 4u, nullptr, &size);
    add(SetReqPrinterStatusMsgA, SetReqPrinterStatusMsgW, &value, 4u, nullptr, 0u, &size);
    ansi.push_back([&](Any a) { return SetNotificationCallbackA(m, a, kCallback, 0, &made); });
    check(256, TVS_E_UNKNOWN, ansi);
    check(64, TVS_E_UNKNOWN, wide);
    check(65536, TVS_E_UNKNOWN,
          {[&](Any a) { return SetNotificationEventExA(m, 1, a, events, &made); },
           [&](Any a) { return SetNotificationMsgExA(m, 1, a, nullptr, numbers, &made); },
           [&](Any a) { return SetNotificationCallbackExA(m, 1, a, callbacks, numbers, &made); },
           [&](Any a) { return SetNotificationEventExW(m, 1, a, events, &made); },
           [&](Any a) { return SetNotificationMsgExW(m, 1, a, nullptr, numbers, &made); }});
    check(260, TVS_E_UNAVAILABLE, {[&](Any a) { return OpenManagerExA(a, "u", 1, &made); }});
    check(520, TVS_E_UNAVAILABLE, {[&](Any a) { return OpenManagerW(a, WIDE("u"), &made); }});
    // A user name that cannot be read counts as absent.
    const char* name = kPrinter.c_str();
    const WCHAR* wideName = WIDE("Front desk");
    check(64, TVS_E_UNAVAILABLE, {[&](Any a) { return Closed(OpenManagerExA(name, a, 2, &made)); }}, TVS_OK);
    check(128, TVS_E_UNAVAILABLE, {[&](Any a) { return Closed(OpenManagerExW(wideName, a, 2, &made)); }}, TVS_OK);
    // A text that ends where the page does is a text.
    void* atEnd = std::memcpy(memory.AtEnd(12), "ModelNumber", 12);
    EXPECT_EQ(GetPrinterStatusA(manager, Any{atEnd}, &value, 4, &size), TVS_OK);
    atEnd = std::memcpy(memory.AtEnd(20), WIDE("JobStatus"), 20);
    EXPECT_EQ(GetPrinterStatusInfoW(manager, Any{atEnd}, &time), TVS_OK);
}

TEST_F(BadPointers, BlocksAreReadOrWrittenWholeOrNothingIsLost) {
    const PrinterSide printer(database);
    const Bytes items = Joined({Number(20), Number(2), Text("item one"), Text("item two")});
    ASSERT_EQ(CreateVariable(database, "Q", product::kTypeVariableLength, 24, items.data()), Answer::Done);
    const Bytes results = Joined({Number(12), Number(1), Number(5), Number(0x33)});
    const auto queueRead = [&](int32_t status) {
        EXPECT_EQ(StoredBytes(database, "Q") == items, status != TVS_OK);
        StoreBytes(database, "Q", items);
        return status;
    };
    const auto stored = [&](Any a) {
        EXPECT_EQ(Update(manager, "AccessControlList", {}), TVS_OK);
        const int32_t status = UpdatePrinterStatusA(manager, "AccessControlList", a, 600);
        EXPECT_EQ(StoredBytes(database, "AccessControlList").size(), status == TVS_OK ? 604u : 4u);
        return status;
    };
    const auto resultRead = [&](Any a) {
        StoreBytes(database, "ReqResult", results);
        const int32_t status = ResSetPrinterStatus(manager, 5, a);
        EXPECT_EQ(StoredBytes(database, "ReqResult") == results, status != TVS_OK);
        StoreBytes(database, "ReqResult", Joined({Number(4), Number(0)}));
        return status;
    };
    const auto registered = [&](const char* names, Any a) { // in each form; a list with one variable of each kind
        const int32_t status = Cancelled(SetNotificationEventA(manager, "PrinterStatus", nullptr, a), a);
        EXPECT_EQ(Cancelled(SetNotificationMsgA(manager, "PrinterStatus", nullptr, 1, a), a), status);
        EXPECT_EQ(Cancelled(SetNotificationCallbackA(manager, "PrinterStatus", kCallback, 0, a), a), status);
        EXPECT_EQ(Cancelled(SetNotificationEventExA(manager, 2, names, events, a), a), status);
        EXPECT_EQ(Cancelled(SetNotificationMsgExA(manager, 2, names, nullptr, numbers, a), a), status);
        EXPECT_EQ(Cancelled(SetNotificationCallbackExA(manager, 2, names, callbacks, numbers, a), a), status);
        return status;
    };
    const auto direct = [&](bool write, Any a) {
        const int before = printer.Requests();
        const int32_t status = write ? SetPrinterStatusDirectA(manager, "DNumber", a, 4)
                                     : GetPrinterStatusDirectA(manager, "DNumber", a, 4, &size);
        EXPECT_EQ(printer.Requests() - before, write ? status == TVS_OK : a.address != nullptr);
        EXPECT_TRUE(IsSet(record->requestMutex, 0)) << "no lock is lost";
        ReleaseMutex(record->requestMutex);
        return status;
    };
    const auto wideUpdate = [&](const WCHAR* variable, uint32_t bytes, Any a) {
        std::memset(memory.GoodPage(), 0, kPage); // texts that end, queues without entries
        const int32_t status = UpdatePrinterStatusW(manager, variable, a, bytes);
        return status == TVS_E_MEMORY ? TVS_OK : status; // a count that promises more was read
    };
    const char two[] = "PrinterStatus;ModelNumber";
    enum Access { kRead, kWrite };
    const struct {
        const char* what;
        size_t bytes;
        Access access;
        Call call;
        int32_t fault = TVS_E_FAULT;
        int32_t null = TVS_E_FAULT; // no buffer may be the question for the size
    } rows[] = {
        {"buffer", 4, kWrite,
         [&](Any a) { return GetPrinterStatusA(manager, "ModelNumber", a, a.address ? 4 : 0, &size); }, TVS_E_FAULT,
         TVS_E_SIZE},
        {"of a queue", 8, kWrite,
         [&](Any a) { return queueRead(GetPrinterStatusA(manager, "Q", a, a.address ? 8 : 0, &size)); }, TVS_E_FAULT,
         TVS_E_SIZE},
        {"returned size", 4, kWrite, [&](Any a) { return GetPrinterStatusA(manager, "ModelNumber", &value, 4, a); }},
        {"of a queue", 4, kWrite, [&](Any a) { return queueRead(GetPrinterStatusA(manager, "Q", &time, 8, a)); }},
        {"wide record", 580, kWrite,
         [&](Any a) { return GetPrinterStatusW(manager, WIDE("SendingJobInfo"), a, 580, &size); }, TVS_E_FAULT,
         TVS_E_MEMORY},
        {"wide queue", 4, kWrite, [&](Any a) { return GetPrinterStatusW(manager, WIDE("PrinterQueue"), a, 4, &size); },
         TVS_E_FAULT, TVS_E_MEMORY},
        {"wide record", 580, kRead, [&](Any a) { return wideUpdate(WIDE("SendingJobInfo"), 580, a); }},
        {"wide queue", 4, kRead, [&](Any a) { return wideUpdate(WIDE("PrinterQueue"), 4, a); }},
        {"time", 16, kWrite, [&](Any a) { return GetPrinterStatusInfoA(manager, "JobStatus", a); }},
        {"result", 4, kWrite, resultRead},
        {"data to store", 600, kRead, stored},
        {"handle", sizeof made, kWrite,
         [&](Any a) {
             const int32_t status = OpenManagerExA(kPrinter.c_str(), "u", 2, a);
             if (status == TVS_OK) std::memcpy(&made, a.address, sizeof made);
             return Closed(status);
         },
         TVS_E_UNAVAILABLE, TVS_E_UNAVAILABLE},
        {"direct data", 4, kRead, [&](Any a) { return direct(true, a); }},
        {"direct buffer", 4, kWrite, [&](Any a) { return direct(false, a); }, TVS_E_FAULT, TVS_E_SIZE},
        {"request's data", 4, kRead,
         [&](Any a) { return Done(SetReqPrinterStatusEventA(manager, "DNumber", a, 4, event, &size)); }},
        {"request's number", 4, kWrite,
         [&](Any a) { return Done(SetReqPrinterStatusEventA(manager, "DNumber", &value, 4, event, a)); }},
        {"registrations", sizeof made, kWrite, [&](Any a) { return registered(two, a); }},
        {"events", sizeof events, kRead,
         [&](Any a) { return Cancelled(SetNotificationEventExA(manager, 2, two, a, &made), {&made}); }},
        {"messages", sizeof numbers, kRead,
         [&](Any a) { return Cancelled(SetNotificationMsgExA(manager, 2, two, nullptr, a, &made), {&made}); }},
        {"flags", sizeof numbers, kRead,
         [&](Any a) { return Cancelled(SetNotificationCallbackExA(manager, 2, two, callbacks, a, &made), {&made}); }},
        {"callbacks", sizeof callbacks, kRead,
         [&](Any a) { return Cancelled(SetNotificationCallbackExA(manager, 2, two, a, numbers, &made), {&made}); }},
    };
    for (const auto& row : rows)
        for (const AddressCase& memoryCase : memory.Kinds(row.bytes)) {
            if (memoryCase.size != row.bytes) continue; // the size of each is fixed
            const bool good = row.access == kRead ? memoryCase.readable : memoryCase.writable;
            const int32_t bad = memoryCase.address == nullptr ? row.null : row.fault;
            EXPECT_EQ(row.call({memoryCase.address}), good ? TVS_OK : bad) << row.what << ": " << memoryCase.kind;
            EXPECT_EQ(g_openManagerCount, 1u);
        }
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("SendingJobInfo"), nullptr, 0, nullptr), TVS_E_FAULT);
}
