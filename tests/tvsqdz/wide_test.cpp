// The converters, and the reads and writes that use them, in code pages of one, two and more bytes a character.
#include "base/converters.h"
#include "campaign.h"
#include "manager/printer_registration.h"
#include "manager/variables.h"
#include "memory_kit.h"
#include "notification_kit.h"
#include "notify/delivery.h"
#include "printer_side.h"
#include "wide_literal.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace {

using Wide = OpenedReady;

// A character of the code page in both forms. The second byte of the one of 932 is a backslash; the one of UTF-8 is a
// pair of surrogates.
struct Script {
    const char* codePage;
    std::string ansi;
    WideString wide;
};
const Script kScripts[] = {{"1252", "\xF6", WIDE("\u00F6")},
                           {"932", "\x95\x5C", WIDE("\u8868")},
                           {"65001", "\xF0\x9F\x98\x80", WIDE("\U0001F600")}};

struct Sample {
    std::string ansi;
    WideString wide;
};

// Some letters, then as many of the script's characters as stay within both limits.
Sample Cut(const Script& script, size_t letters, size_t characters, size_t bytes, size_t units) {
    Sample sample;
    for (size_t i = 0; i < letters + characters; ++i) {
        const std::string ansi = i < letters ? "a" : script.ansi;
        const WideString wide = i < letters ? WIDE("a") : script.wide;
        if (sample.ansi.size() + ansi.size() > bytes || sample.wide.size() + wide.size() > units) break;
        sample.ansi += ansi;
        sample.wide += wide;
    }
    return sample;
}

// Numbers, two texts, and numbers behind.
struct RecordRow {
    const char* variable;
    ConvertProc toWide, toAnsi;
    uint32_t before;
    size_t texts[2]; // characters
    uint32_t behind;
};
const RecordRow kRecords[] = {
    {"SendingJobInfo", JobRecordToWide, JobRecordToAnsi, 0, {256, 32}, 1},
    {"PrintingJobInfo", PrintingJobToWide, PrintingJobToAnsi, 0, {256, 32}, 2},
    {"PrintingJobInfo2", PrintingJob2ToWide, PrintingJob2ToAnsi, 0, {256, 32}, 8},
    {"Port", PortToWide, PortToAnsi, 1, {128, 128}, 0},
    {"PortEx", PortExToWide, PortExToAnsi, 2, {128, 128}, 0},
};

Bytes WideBytes(const WideString& text) { // with its NUL
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.c_str());
    return Bytes(bytes, bytes + 2 * (text.size() + 1));
}

struct Forms {
    Bytes ansi, wide;
    void Add(const Bytes& ansiPart, const Bytes& widePart) {
        ansi = Joined({ansi, ansiPart});
        wide = Joined({wide, widePart});
    }
};

// Both forms of a record with these texts in its fields. filler: what follows a text in its field.
Forms FormsOf(const RecordRow& row, const std::vector<Sample>& texts, uint8_t filler = 0) {
    Forms forms;
    const auto addNumbers = [&](uint32_t count) {
        for (; count > 0; --count)
            forms.Add(Number(0x01020304 * count), Number(0x01020304 * count));
    };
    addNumbers(row.before);
    for (size_t i = 0; i < 2; ++i) {
        Bytes ansi = BytesOf(texts[i].ansi);
        Bytes wide = WideBytes(texts[i].wide);
        ansi.resize(row.texts[i], filler);
        wide.resize(2 * row.texts[i], filler);
        forms.Add(ansi, wide);
    }
    addNumbers(row.behind);
    return forms;
}

Forms OrdinaryForms(const RecordRow& row, const Script& script) {
    return FormsOf(row, {Cut(script, 3, 5, 100, 100), Cut(script, 1, 2, 100, 100)});
}

Forms QueueOf(const Script& script, uint32_t count) {
    Forms queue{Number(count), Number(count)};
    for (uint32_t i = 0; i < count; ++i) {
        const Forms entry = FormsOf(kRecords[0], {Cut(script, i, 9, 99, 99), Cut(script, 0, i, 99, 99)});
        queue.Add(entry.ansi, entry.wide);
    }
    return queue;
}

// A buffer of 'x' that ends where memory does.
struct GuardedBuffer {
    GuardedBuffer(BadMemory& memory, size_t size) : data(memory.AtEnd(size)), bytes(size) {
        std::memset(data, 'x', size);
    }
    void ExpectOnly(Bytes expected) { // nothing behind them
        expected.resize(bytes, 'x');
        EXPECT_EQ(Bytes(data, data + bytes), expected);
    }
    unsigned char* data;
    size_t bytes;
};

void CheckFields(const Script& script) {
    for (const RecordRow& row : kRecords)
        for (size_t letters = 0; letters < 4; ++letters)
            for (size_t characters = 0; characters <= row.texts[0]; ++characters) {
                SCOPED_TRACE(row.variable + std::to_string(letters) + " " + std::to_string(characters));
                constexpr size_t kAny = 10000;
                constexpr size_t kOneLess = SIZE_MAX;
                const auto cut = [&](size_t bytes, size_t units) { // beside what each field takes
                    return std::vector<Sample>{
                        Cut(script, letters, characters, row.texts[0] + bytes, row.texts[0] + units),
                        Cut(script, letters, characters, row.texts[1] + bytes, row.texts[1] + units)};
                };
                const auto check = [&](ConvertProc convert, bool toWide, Bytes source, const Bytes& expected) {
                    const auto wideSize = static_cast<uint32_t>((toWide ? expected : source).size());
                    Bytes converted(expected.size(), 'x');
                    uint32_t size = 0;
                    ASSERT_EQ(toWide ? convert(converted.data(), source.data(), wideSize, &size)
                                     : convert(source.data(), converted.data(), wideSize, &size),
                              TVS_OK);
                    ASSERT_EQ(size, expected.size());
                    ASSERT_EQ(converted, expected);
                };
                check(row.toAnsi, false, FormsOf(row, cut(kAny, 0), 0xEE).wide, FormsOf(row, cut(kOneLess, 0)).ansi);
                check(row.toWide, true, FormsOf(row, cut(0, kAny), 0xEE).ansi, FormsOf(row, cut(0, kOneLess)).wide);
            }
}

// The value is written and read in buffers about its size, the size of its count and none.
void CheckValue(TvsManager manager, const char* variable, const Forms& forms, bool isQueue) {
    const WideString name(variable, variable + std::strlen(variable));
    const auto whole = static_cast<uint32_t>(forms.wide.size());
    BadMemory memory;
    Bytes stored = forms.ansi;
    stored.resize(4000, 0xEE);
    for (const uint32_t bytes : {whole + 2, 0u, 3u, 4u, whole - 1, whole}) {
        SCOPED_TRACE(variable + std::to_string(bytes));
        const bool fits = bytes >= whole;
        GuardedBuffer value(memory, bytes);
        std::memcpy(value.data, forms.wide.data(), std::min(bytes, whole));
        EXPECT_EQ(UpdatePrinterStatusW(manager, name.c_str(), value.data, bytes), fits ? TVS_OK : TVS_E_MEMORY);
        EXPECT_EQ(Read(manager, variable, 4000).bytes, stored);
        uint32_t size = 77;
        GuardedBuffer buffer(memory, bytes);
        EXPECT_EQ(GetPrinterStatusW(manager, name.c_str(), buffer.data, bytes, &size), fits ? TVS_OK : TVS_E_MEMORY);
        EXPECT_EQ(size, whole);
        buffer.ExpectOnly(fits ? forms.wide
                               : Bytes(forms.wide.begin(), forms.wide.begin() + (isQueue && bytes > 3) * 4));
    }
}

void CheckText(TvsManager manager, const Script& script) {
    const WCHAR* name = WIDE("PrinterLocation");
    BadMemory memory;
    const Sample text = Cut(script, 1, 12, 99, 99);
    const Bytes wide = WideBytes(text.wide);
    for (uint32_t bytes = 0; bytes <= wide.size() + 2; ++bytes) {
        SCOPED_TRACE("size " + std::to_string(bytes));
        const size_t room = bytes / 2;
        // A text may take more bytes than it has characters; one that is not terminated loses its last character.
        GuardedBuffer value(memory, bytes);
        std::memcpy(value.data, wide.data(), std::min<size_t>(bytes, wide.size()));
        EXPECT_EQ(UpdatePrinterStatusW(manager, name, value.data, bytes), room > 0 ? TVS_OK : TVS_E_MEMORY);
        if (room > 0) {
            const ReadResult narrow = Read(manager, "PrinterLocation", 260);
            EXPECT_EQ(Bytes(narrow.bytes.begin(), narrow.bytes.begin() + narrow.returnedSize),
                      BytesOf(Cut(script, 1, 12, 99, room - 1).ansi));
        }
        EXPECT_EQ(UpdatePrinterStatusW(manager, name, wide.data(), static_cast<uint32_t>(wide.size())), TVS_OK);
        GuardedBuffer buffer(memory, bytes);
        uint32_t size = 77;
        const int32_t status = GetPrinterStatusW(manager, name, buffer.data, bytes, &size);
        EXPECT_EQ(status, bytes == 0 ? TVS_E_MEMORY : room > text.wide.size() ? TVS_OK : TVS_E_SIZE);
        EXPECT_EQ(size, bytes == 0 ? 520 : 2 * bytes);
        buffer.ExpectOnly(room > 0 ? WideBytes(Cut(script, 1, 12, 99, room - 1).wide) : Bytes{});
    }
}

CHILD_PROCESS(ReadsAndWritesInItsCodePage) {
    const Script& script = *std::find_if(std::begin(kScripts), std::end(kScripts),
                                         [&](const Script& known) { return child.arguments[0] == known.codePage; });
    CheckFields(script);
    const Library library;
    // A printer whose name has the script's characters is that of a key: backslashes become commas, but not those that
    // end a character.
    AddPrinter("\\" + script.ansi, kModel);
    const WideString name = WIDE("\\") + script.wide;
    TvsManager manager = 0;
    EXPECT_EQ(OpenManagerExW(name.c_str(), script.wide.c_str(), 2, &manager), TVS_OK);
    EXPECT_EQ(RecordOf(manager)->printerName, "\\" + script.ansi);
    EXPECT_EQ(RecordOf(manager)->userName, script.ansi);
    EXPECT_EQ(PrinterKeyName(RecordOf(manager)->printerName).name, "," + script.ansi);
    for (const int i : {0, 3})
        CheckValue(manager, kRecords[i].variable, OrdinaryForms(kRecords[i], script), false);
    for (const uint32_t count : {3u, 0u})
        CheckValue(manager, "PrinterQueue", QueueOf(script, count), true);
    CheckText(manager, script);
    EXPECT_EQ(Update(manager, "PrinterExtStatus", Number(1)), TVS_OK);
    // A composite: the member that was just written, behind the number that was there.
    Bytes port(520);
    uint32_t size = 0;
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("PortEx"), port.data(), 520, &size), TVS_OK);
    EXPECT_EQ(port, Joined({Number(1), OrdinaryForms(kRecords[3], script).wide}));
    return testing::Test::HasFailure();
}

} // namespace

TEST_F(Wide, ReadsAndWritesKeepToTheirBuffersAndToWholeCharacters) {
    for (const Script& script : kScripts) {
        TestProcess process("ReadsAndWritesInItsCodePage", {script.codePage},
                            {{"ORIEL_ANSI_CODE_PAGE", script.codePage}});
        const std::string output = process.HearAll();
        EXPECT_EQ(process.Wait(), 0) << script.codePage << "\n" << output << process.Errors();
    }
}

TEST_F(Wide, ValuesWithoutAWideFormAndNamesThatAreNone) {
    uint32_t value = 5;
    uint32_t size = 77;
    EXPECT_EQ(UpdatePrinterStatusW(manager, WIDE("JobStatus"), &value, 4), TVS_OK);
    value = 0;
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("JobStatus"), &value, 4, &size), TVS_OK);
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("AccessControlList"), &value, 4, &size), TVS_E_UNKNOWN);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(GetPrinterStatusW(0, WIDE("JobStatus"), &value, 4, &size), TVS_E_HANDLE);
    EXPECT_EQ(UpdatePrinterStatusW(0, WIDE("JobStatus"), &value, 4), TVS_E_HANDLE);
    for (const WideString& name : {WideString(WIDE("Nothing")), WideString(), WideString(32, u'a')}) {
        EXPECT_EQ(GetPrinterStatusW(manager, name.c_str(), &value, 4, &size), TVS_E_UNKNOWN);
        EXPECT_EQ(UpdatePrinterStatusW(manager, name.c_str(), &value, 4), TVS_E_UNKNOWN);
    }
    // Every variable that can be read tells its size in the wide form.
    for (const StatusVariableDef& row : std::span(kStatusVariables, CountStatusVariables())) {
        if ((row.flags & SVF_READABLE) == 0) continue;
        SCOPED_TRACE(row.name);
        uint32_t expected = Read(manager, row.name, 0).returnedSize;
        if (row.toWide != nullptr && TypeOf(row) == SVT_STRING) expected *= 2;
        for (const RecordRow& record : kRecords)
            if (row.name == std::string(record.variable)) expected += record.texts[0] + record.texts[1];
        const WideString name(row.name, row.name + std::strlen(row.name));
        EXPECT_EQ(GetPrinterStatusW(manager, name.c_str(), nullptr, 0, &size), row.toWide ? TVS_E_MEMORY : TVS_E_SIZE);
        EXPECT_EQ(size, expected);
    }
    // A count that promises more than the value, and than the buffer, has.
    const Bytes lying = Joined({Number(0xFFFFFFFF), Bytes(1000)});
    EXPECT_EQ(UpdatePrinterStatusW(manager, WIDE("PrinterQueue"), lying.data(), 1004), TVS_E_MEMORY);
    EXPECT_EQ(Update(manager, "PrinterQueue", Number(1)), TVS_OK);
    Bytes queue(584, 'x');
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("PrinterQueue"), queue.data(), 584, &size), TVS_OK);
    EXPECT_EQ(queue, Joined({Number(1), Bytes(580)}));
    EXPECT_EQ(Update(manager, "PrinterQueue", Number(0xFFFFFFFF)), TVS_OK);
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("PrinterQueue"), queue.data(), 584, &size), TVS_E_MEMORY);
    EXPECT_EQ(size, 0xFFFFFFFFu);
    // What no value can be is answered before anything is read or made room for.
    for (const WCHAR* name : {WIDE("PrinterLocation"), WIDE("SendingJobInfo"), WIDE("PrinterQueue"), WIDE("JobStatus")})
        for (const uint32_t huge : {uint32_t{16} << 20, 0xFFFFFFFFu})
            EXPECT_EQ(UpdatePrinterStatusW(manager, name, &value, huge), PassOn(Answer::WrongSize)) << huge;
}

// Another thread changes the count while the value is written: what is stored is one of the queues that there were.
TEST_F(Wide, AQueueThatChangesMeanwhileIsWrittenAsItWasRead) {
    constexpr uint32_t kMany = 12;
    alignas(4) static unsigned char queue[4 + kMany * sizeof(TvsJobRecordWide)];
    auto* count = reinterpret_cast<volatile uint32_t*>(queue);
    *count = 1; // the other thread may begin late
    std::atomic<bool> stop = false;
    const TestThread changer([&] {
        while (!stop)
            *count = *count == 1 ? kMany : 1;
    });
    for (int round = Rounds(3000, 300000); round > 0; --round) {
        if (UpdatePrinterStatusW(manager, WIDE("PrinterQueue"), queue, sizeof queue) != TVS_OK) ADD_FAILURE();
        if (round % 16 != 0) continue;
        const Bytes stored = StoredBytes(database, "PrinterQueue");
        const uint32_t entries = stored.size() == 8 + sizeof(TvsJobRecord) ? 1 : kMany;
        EXPECT_EQ(stored.size(), 8 + entries * sizeof(TvsJobRecord));
        EXPECT_EQ(Bytes(stored.begin() + 4, stored.begin() + 8), Number(entries));
    }
    stop = true;
}

TEST_F(Wide, RequestsTakeAndGiveTheWideForm) {
    const PrinterSide printer(database, [&](const std::string& mailbox, const std::string& text) {
        if (mailbox == "ReadRequest") StoreBytes(database, "DNumber", Number(11));
        return text == "DNumberW" ? -77 : 0;
    });
    uint32_t value = 0;
    uint32_t size = 77;
    EXPECT_EQ(GetPrinterStatusDirectW(manager, WIDE("DNumber"), &value, 4, &size), TVS_OK);
    EXPECT_EQ(value, 11u);
    EXPECT_EQ(SetPrinterStatusDirectW(manager, WIDE("DNumber"), &value, 4), -77);
    EXPECT_EQ(SetPrinterStatusDirectW(manager, WIDE("RefreshStatus"), WIDE("B\u00FCro"), 10), TVS_OK);
    EXPECT_EQ(StoredBytes(database, "RefreshStatus"), BytesOf("B\xFCro"));
    const HANDLE event = NewEvent();
    const HWND window = MakeWindow("Requests");
    uint32_t id = 77;
    MSG message;
    EXPECT_EQ(GetReqPrinterStatusEventW(manager, WIDE("DNumber"), event), TVS_OK);
    EXPECT_TRUE(IsSet(event));
    EXPECT_EQ(GetReqPrinterStatusMsgW(manager, WIDE("DNumber"), window, kMessage), TVS_OK);
    EXPECT_TRUE(TakeMessage(message, window));
    EXPECT_EQ(SetReqPrinterStatusEventW(manager, WIDE("DNumber"), &value, 4, event, &id), TVS_OK);
    EXPECT_TRUE(IsSet(event));
    EXPECT_EQ(ResultOf(manager, id), -77);
    EXPECT_EQ(SetReqPrinterStatusMsgW(manager, WIDE("DNumber"), &value, 4, window, kMessage, &id), TVS_OK);
    EXPECT_TRUE(TakeMessage(message, window));
}

TEST_F(Wide, RegistrationsAreMadeByWideNames) {
    void* const events[] = {NewEvent(), NewEvent()};
    const uint32_t messages[] = {kMessage, kMessage + 1};
    const HWND window = MakeWindow("Wide");
    TvsRegistration handle = 0;
    const WCHAR* one = WIDE("PageCount");
    const WCHAR* two = WIDE("PageCount;LMStatus");
    const std::function<int32_t()> forms[] = {
        [&] { return SetNotificationEventW(manager, one, events[0], &handle); },
        [&] { return SetNotificationMsgW(manager, one, window, 1, &handle); },
        [&] { return SetNotificationEventExW(manager, 2, two, events, &handle); },
        [&] { return SetNotificationMsgExW(manager, 2, two, window, messages, &handle); }};
    for (const auto& set : forms) {
        const bool isList = &set >= forms + 2;
        SCOPED_TRACE(&set - forms);
        ASSERT_EQ(set(), TVS_OK);
        const NotificationRegistration* made = RegistrationAt(handle);
        ASSERT_EQ(made->entryCount, isList ? 2u : 1u);
        EXPECT_STREQ(made->entries[made->entryCount - 1].variableName, isList ? "LMStatus" : "PageCount");
        EXPECT_EQ(KillNotificationMsg(manager, handle), TVS_OK);
    }
}
