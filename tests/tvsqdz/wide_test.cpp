// The converters, and the reads and writes that use them, in code pages of one, two and more bytes a character.
#include "base/converters.h"
#include "campaign.h"
#include "machine.h"
#include "manager/variables.h"
#include "memory_kit.h"
#include "notification_kit.h"
#include "notify/delivery.h"
#include "printer_side.h"
#include "wide_literal.h"

#include <algorithm>
#include <cstring>

namespace {

using Wide = WideString;

// A character of the code page in both forms. The second byte of the one of 932 is a backslash; the one of UTF-8 is a
// pair of surrogates.
struct Script {
    const char* codePage;
    std::string ansi;
    Wide wide;
};
const Script kScripts[] = {{"1252", "\xF6", WIDE("\u00F6")},
                           {"932", "\x95\x5C", WIDE("\u8868")},
                           {"65001", "\xF0\x9F\x98\x80", WIDE("\U0001F600")}};

struct Sample {
    std::string ansi;
    Wide wide;
};

// Some letters, then as many of the script's characters as stay within both limits.
Sample Cut(const Script& script, size_t letters, size_t characters, size_t bytes, size_t units) {
    Sample sample;
    for (size_t i = 0; i < letters + characters; ++i) {
        const std::string ansi = i < letters ? "a" : script.ansi;
        const Wide wide = i < letters ? WIDE("a") : script.wide;
        if (sample.ansi.size() + ansi.size() > bytes || sample.wide.size() + wide.size() > units) break;
        sample.ansi += ansi;
        sample.wide += wide;
    }
    return sample;
}

struct FieldRow {
    size_t ansi, wide, characters;
};
struct NumbersRow {
    size_t ansi, wide, count;
};
struct RecordRow {
    const char* variable;
    ConvertProc toWide, toAnsi;
    size_t ansiSize, wideSize;
    std::vector<FieldRow> texts;
    NumbersRow numbers;
};
const std::vector<RecordRow> kRecords = {
    {"SendingJobInfo", JobRecordToWide, JobRecordToAnsi, 292, 580, {{0, 0, 256}, {256, 512, 32}}, {288, 576, 1}},
    {"PrintingJobInfo", PrintingJobToWide, PrintingJobToAnsi, 296, 584, {{0, 0, 256}, {256, 512, 32}}, {288, 576, 2}},
    {"PrintingJobInfo2",
     PrintingJob2ToWide,
     PrintingJob2ToAnsi,
     320,
     608,
     {{0, 0, 256}, {256, 512, 32}},
     {288, 576, 8}},
    {"Port", PortToWide, PortToAnsi, 260, 516, {{4, 4, 128}, {132, 260, 128}}, {0, 0, 1}},
    {"PortEx", PortExToWide, PortExToAnsi, 264, 520, {{8, 8, 128}, {136, 264, 128}}, {0, 0, 2}},
};

// Both forms of a record with these texts in its fields. filler: what follows a text in its field.
struct Forms {
    Bytes ansi, wide;
};
Forms FormsOf(const RecordRow& row, const std::vector<Sample>& texts, uint8_t filler) {
    Forms forms{Bytes(row.ansiSize, filler), Bytes(row.wideSize, filler)};
    for (size_t i = 0; i < row.texts.size(); ++i) {
        const FieldRow& field = row.texts[i];
        const size_t bytes = std::min(texts[i].ansi.size() + 1, field.characters);
        const size_t units = std::min(texts[i].wide.size() + 1, field.characters);
        std::memcpy(forms.ansi.data() + field.ansi, texts[i].ansi.c_str(), bytes);
        std::memcpy(forms.wide.data() + field.wide, texts[i].wide.c_str(), 2 * units);
    }
    for (uint32_t i = 0; i < row.numbers.count; ++i) {
        const uint32_t number = 0x01020304 * (i + 1);
        std::memcpy(forms.ansi.data() + row.numbers.ansi + 4 * i, &number, 4);
        std::memcpy(forms.wide.data() + row.numbers.wide + 4 * i, &number, 4);
    }
    return forms;
}

Forms OrdinaryForms(const RecordRow& row, const Script& script) {
    return FormsOf(row, {Cut(script, 3, 5, 100, 100), Cut(script, 1, 2, 100, 100)}, 0);
}

Forms QueueOf(const Script& script, uint32_t count) {
    Forms queue{Number(count), Number(count)};
    for (uint32_t i = 0; i < count; ++i) {
        const Forms entry = FormsOf(kRecords[0], {Cut(script, i, 9, 99, 99), Cut(script, 0, i, 99, 99)}, 0);
        queue.ansi = Joined({queue.ansi, entry.ansi});
        queue.wide = Joined({queue.wide, entry.wide});
    }
    return queue;
}

Bytes WideBytes(const Wide& text) { // with its NUL
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.c_str());
    return Bytes(bytes, bytes + 2 * (text.size() + 1));
}

// A buffer that ends where memory does, with the byte 'x' in it and before it.
struct GuardedBuffer {
    GuardedBuffer(BadMemory& memory, size_t size) : data(memory.AtEnd(size)), bytes(size) {
        std::memset(data - kBefore, 'x', kBefore + size);
    }
    // It holds these bytes and nothing else was touched.
    void ExpectOnly(Bytes expected) {
        expected.insert(expected.begin(), kBefore, 'x');
        expected.resize(kBefore + bytes, 'x');
        EXPECT_EQ(Bytes(data - kBefore, data + bytes), expected);
    }
    static constexpr size_t kBefore = 64;
    unsigned char* data;
    size_t bytes;
};

void CheckFields(const Script& script) {
    for (const RecordRow& row : kRecords)
        for (size_t letters = 0; letters < 4; ++letters)
            for (size_t characters = 0; characters <= row.texts[0].characters; ++characters) {
                std::vector<Sample> asked, narrow, wide;
                std::vector<Sample> full;
                for (const FieldRow& field : row.texts) {
                    const size_t most = field.characters;
                    asked.push_back(Cut(script, letters, characters, SIZE_MAX, most)); // fills the wide field
                    narrow.push_back(Cut(script, letters, characters, most - 1, most));
                    full.push_back(Cut(script, letters, characters, most, SIZE_MAX)); // fills the ANSI field
                    wide.push_back(Cut(script, letters, characters, most, most - 1));
                }
                uint32_t size = 0;
                Bytes ansi(row.ansiSize, 'x');
                Bytes source = FormsOf(row, asked, 0xEE).wide;
                ASSERT_EQ(row.toAnsi(source.data(), ansi.data(), static_cast<uint32_t>(row.wideSize), &size), TVS_OK);
                ASSERT_EQ(size, row.ansiSize);
                ASSERT_EQ(ansi, FormsOf(row, narrow, 0).ansi) << row.variable << " " << letters << " " << characters;
                Bytes converted(row.wideSize, 'x');
                source = FormsOf(row, full, 0xEE).ansi;
                ASSERT_EQ(row.toWide(converted.data(), source.data(), static_cast<uint32_t>(row.wideSize), &size),
                          TVS_OK);
                ASSERT_EQ(size, row.wideSize);
                ASSERT_EQ(converted, FormsOf(row, wide, 0).wide) << row.variable << " " << letters << " " << characters;
            }
}

const Script& ScriptOf(const Child& child) {
    return *std::find_if(std::begin(kScripts), std::end(kScripts),
                         [&](const Script& script) { return child.arguments[0] == script.codePage; });
}

// What GetPrinterStatusW must say of a value of these forms for every size of the buffer.
void CheckReads(TvsManager manager, const Wide& variable, const Bytes& whole, bool isQueue) {
    BadMemory memory;
    for (uint32_t bytes = 0; bytes <= whole.size() + 2; ++bytes) {
        SCOPED_TRACE("size " + std::to_string(bytes));
        const bool fits = bytes >= whole.size();
        uint32_t size = 77;
        GuardedBuffer buffer(memory, bytes);
        EXPECT_EQ(GetPrinterStatusW(manager, variable.c_str(), buffer.data, bytes, &size),
                  fits ? TVS_OK : TVS_E_MEMORY);
        EXPECT_EQ(size, whole.size());
        buffer.ExpectOnly(fits ? whole : Bytes(whole.begin(), whole.begin() + (isQueue && bytes >= 4 ? 4 : 0)));
    }
}

// Writes the value with every size and reads what was stored by the ANSI form.
void CheckWrites(TvsManager manager, const Wide& variable, const Forms& forms) {
    const std::string name(variable.begin(), variable.end());
    BadMemory memory;
    Bytes stored = Read(manager, name, 4000).bytes;
    for (uint32_t bytes = 0; bytes <= forms.wide.size() + 2; ++bytes) {
        SCOPED_TRACE("size " + std::to_string(bytes));
        GuardedBuffer value(memory, bytes);
        std::memcpy(value.data, forms.wide.data(), std::min<size_t>(bytes, forms.wide.size()));
        const bool fits = bytes >= forms.wide.size();
        EXPECT_EQ(UpdatePrinterStatusW(manager, variable.c_str(), value.data, bytes), fits ? TVS_OK : TVS_E_MEMORY);
        if (fits) std::copy(forms.ansi.begin(), forms.ansi.end(), stored.begin());
        stored.resize(fits ? forms.ansi.size() : stored.size());
        stored.resize(4000, 0xEE);
        EXPECT_EQ(Read(manager, name, 4000).bytes, stored);
    }
}

void CheckText(TvsManager manager, const Script& script) {
    BadMemory memory;
    const Sample text = Cut(script, 1, 12, 99, 99);
    const Bytes wide = WideBytes(text.wide);
    for (uint32_t bytes = 0; bytes <= wide.size() + 2; ++bytes) {
        SCOPED_TRACE("size " + std::to_string(bytes));
        const size_t room = bytes / 2;
        // A text may take more bytes than it has characters; one that is not terminated loses its last character.
        GuardedBuffer value(memory, bytes);
        std::memcpy(value.data, wide.data(), std::min<size_t>(bytes, wide.size()));
        EXPECT_EQ(UpdatePrinterStatusW(manager, WIDE("PrinterLocation"), value.data, bytes),
                  room > 0 ? TVS_OK : TVS_E_MEMORY);
        if (room > 0) {
            const Bytes kept = BytesOf(Cut(script, 1, 12, 99, room - 1).ansi);
            const ReadResult narrow = Read(manager, "PrinterLocation", 260);
            EXPECT_EQ(Bytes(narrow.bytes.begin(), narrow.bytes.begin() + narrow.returnedSize), kept);
        }

        EXPECT_EQ(
            UpdatePrinterStatusW(manager, WIDE("PrinterLocation"), wide.data(), static_cast<uint32_t>(wide.size())),
            TVS_OK);
        GuardedBuffer buffer(memory, bytes);
        uint32_t size = 77;
        const int32_t status = GetPrinterStatusW(manager, WIDE("PrinterLocation"), buffer.data, bytes, &size);
        EXPECT_EQ(status, bytes == 0 ? TVS_E_MEMORY : room > text.wide.size() ? TVS_OK : TVS_E_SIZE);
        EXPECT_EQ(size, bytes == 0 ? 520 : 2 * bytes);
        buffer.ExpectOnly(room > 0 ? WideBytes(Cut(script, 1, 12, 99, room - 1).wide) : Bytes{});
    }
    // More than the field takes is cut to it, and a text that fills it is read whole.
    const Bytes longText = WideBytes(Cut(script, 1, 300, SIZE_MAX, 259).wide);
    EXPECT_EQ(UpdatePrinterStatusW(manager, WIDE("PrinterLocation"), longText.data(), 520), TVS_OK);
    Bytes whole(600);
    uint32_t size = 0;
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("PrinterLocation"), whole.data(), 600, &size), TVS_OK);
    whole.resize(2 * (Wide(reinterpret_cast<const WCHAR*>(whole.data())).size() + 1));
    EXPECT_EQ(whole, WideBytes(Cut(script, 1, 300, 259, 259).wide));
}

CHILD_PROCESS(ReadsAndWrites) {
    const Library library;
    const Script& script = ScriptOf(child);
    const TvsManager manager = OpenPrinter();
    const RecordRow& sending = kRecords[0];
    const RecordRow& printing = kRecords[1];
    const RecordRow& port = kRecords[3];
    // Else a report of the same job would keep the names that it had in another code page.
    EXPECT_EQ(Update(manager, "PrintingJobInfo", Bytes(sizeof(TvsPrintingJobRecord))), TVS_OK);
    for (const RecordRow* row : {&sending, &printing, &port}) {
        const Forms forms = OrdinaryForms(*row, script);
        const Wide name(row->variable, row->variable + std::strlen(row->variable));
        CheckWrites(manager, name, forms);
        CheckReads(manager, name, forms.wide, false);
    }
    // Composites: the member that was just written, and numbers as they were at first.
    const Bytes printed = OrdinaryForms(printing, script).wide;
    CheckReads(manager, WIDE("PrintingJobInfo2"), Joined({printed, Bytes(24)}), false);
    CheckReads(manager, WIDE("PortEx"), Joined({Number(0), OrdinaryForms(port, script).wide}), false);
    for (uint32_t count : {3u, 0u}) {
        const Forms queue = QueueOf(script, count);
        CheckWrites(manager, WIDE("PrinterQueue"), queue);
        CheckReads(manager, WIDE("PrinterQueue"), queue.wide, true);
    }
    CheckText(manager, script);
    return testing::Test::HasFailure() ? 1 : 0;
}

CHILD_PROCESS(ChecksFields) {
    CheckFields(ScriptOf(child));
    return testing::Test::HasFailure() ? 1 : 0;
}

void RunInEachCodePage(const char* procedure) {
    for (const Script& script : kScripts) {
        TestProcess process(procedure, {script.codePage}, {{"ORIEL_ANSI_CODE_PAGE", script.codePage}});
        const std::string output = process.HearAll();
        EXPECT_EQ(process.Wait(), 0) << script.codePage << "\n" << output << process.Errors();
    }
}

} // namespace

TEST(Wide, RecordsAreConvertedFieldByFieldAndCutAtWholeCharacters) {
    RunInEachCodePage("ChecksFields");
}

// What no export asks a converter.
TEST(Wide, ConvertersAnswerForAbsentBuffers) {
    Bytes buffer(1000);
    struct Row {
        ConvertProc convert;
        void *wide, *ansi;
        uint32_t size;
        int32_t status;
        uint32_t outSize;
    };
    const Row rows[] = {
        {PortToWide, buffer.data(), nullptr, 515, TVS_E_MEMORY, 516},
        {PortToWide, buffer.data(), nullptr, 516, TVS_E_FAULT, 0},
        {JobRecordToAnsi, nullptr, nullptr, 580, TVS_E_MEMORY, 292},
        {JobRecordToAnsi, buffer.data(), buffer.data(), 579, TVS_E_MEMORY, 292},
        {JobQueueToWide, nullptr, nullptr, 9, TVS_E_FAULT, 0},
        {JobQueueToAnsi, nullptr, buffer.data(), 9, TVS_E_FAULT, 0},
        {StringToWide, nullptr, nullptr, 260, TVS_E_MEMORY, 520},
        {StringToWide, buffer.data(), nullptr, 260, TVS_E_FAULT, 0},
        {StringToAnsi, nullptr, nullptr, 520, TVS_E_MEMORY, 260},
        {StringToAnsi, nullptr, buffer.data(), 520, TVS_E_FAULT, 0},
    };
    for (const Row& row : rows) {
        uint32_t outSize = 77;
        EXPECT_EQ(row.convert(row.wide, row.ansi, row.size, &outSize), row.status) << &row - rows;
        EXPECT_EQ(outSize, row.outSize) << &row - rows;
    }
}

TEST(Wide, ReadsAndWritesKeepToTheirBuffersAndToWholeCharacters) {
    SetUpProduct();
    const Service service;
    RunInEachCodePage("ReadsAndWrites");
}

TEST(Wide, ValuesWithoutAWideFormAndNamesThatAreNone) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    uint32_t value = 5;
    uint32_t size = 77;
    EXPECT_EQ(UpdatePrinterStatusW(manager, WIDE("JobStatus"), &value, 4), TVS_OK);
    value = 0;
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("JobStatus"), &value, 4, &size), TVS_OK);
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("JobStatus"), nullptr, 9, &size), TVS_E_SIZE);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("AccessControlList"), &value, 4, &size), TVS_E_UNKNOWN);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(GetPrinterStatusW(0, WIDE("JobStatus"), &value, 4, &size), TVS_E_HANDLE);
    EXPECT_EQ(UpdatePrinterStatusW(0, WIDE("JobStatus"), &value, 4), TVS_E_HANDLE);
    for (const Wide& name : {Wide(WIDE("Nothing")), Wide(WIDE("")), Wide(31, u'a'), Wide(32, u'a'), Wide(5000, u'a')}) {
        EXPECT_EQ(GetPrinterStatusW(manager, name.c_str(), &value, 4, &size), TVS_E_UNKNOWN);
        EXPECT_EQ(UpdatePrinterStatusW(manager, name.c_str(), &value, 4), TVS_E_UNKNOWN);
    }
    // Every variable that can be read tells its size in both forms, and has its first value in them.
    for (uint32_t i = 0; i < CountStatusVariables(); ++i) {
        const StatusVariableDef& row = kStatusVariables[i];
        if ((row.flags & SVF_READABLE) == 0) continue;
        SCOPED_TRACE(row.name);
        const auto record = std::find_if(kRecords.begin(), kRecords.end(), [&](const RecordRow& known) {
            return std::string(known.variable) == row.name;
        });
        const ReadResult narrow = Read(manager, row.name, 700);
        const uint32_t narrowSize = Read(manager, row.name, 0).returnedSize;
        const bool isText = TypeOf(row) == SVT_STRING && row.toWide != nullptr;
        const Wide name(row.name, row.name + std::strlen(row.name));
        Bytes wide(700, 0xEE);
        EXPECT_EQ(GetPrinterStatusW(manager, name.c_str(), nullptr, 0, &size), row.toWide ? TVS_E_MEMORY : TVS_E_SIZE);
        EXPECT_EQ(size, record != kRecords.end() ? record->wideSize : isText ? 2 * narrowSize : narrowSize);
        EXPECT_EQ(GetPrinterStatusW(manager, name.c_str(), wide.data(), 700, &size), TVS_OK);
        EXPECT_EQ(size, record != kRecords.end() ? record->wideSize : isText ? 1400 : narrow.returnedSize);
        if (record == kRecords.end() && !isText) {
            EXPECT_EQ(wide, narrow.bytes);
        }
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
}

// Another thread changes the count while the value is written: what is stored is one of the queues that there were.
TEST(Wide, AQueueThatChangesMeanwhileIsWrittenAsItWasRead) {
    const Product product;
    const TvsManager manager = OpenPrinter();
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
        const Bytes stored = StoredBytes(RecordOf(manager)->printerDatabase.handle, "PrinterQueue");
        const Bytes counted(stored.begin() + 4, stored.begin() + 8);
        EXPECT_TRUE(stored.size() == 8 + sizeof(TvsJobRecord)
                        ? counted == Number(1)
                        : stored.size() == 8 + kMany * sizeof(TvsJobRecord) && counted == Number(kMany));
    }
    stop = true;
}

// What no value can be is answered as in the ANSI form, before anything is read or made room for.
TEST(Wide, ASizeBeyondAnyValuesIsRefusedAsInTheAnsiForm) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const char value = 0;
    for (const auto& [name, wide] : {std::pair{"PrinterLocation", WIDE("PrinterLocation")},
                                     {"SendingJobInfo", WIDE("SendingJobInfo")},
                                     {"PrinterQueue", WIDE("PrinterQueue")},
                                     {"JobStatus", WIDE("JobStatus")}})
        for (const uint32_t size : {uint32_t{8} << 20, (uint32_t{8} << 20) + 2, 0x7FFFFFFEu, 0xFFFFFFFFu}) {
            SCOPED_TRACE(std::string(name) + " " + std::to_string(size));
            EXPECT_EQ(UpdatePrinterStatusA(manager, name, &value, size), PassOn(Answer::WrongSize));
            EXPECT_EQ(UpdatePrinterStatusW(manager, wide, &value, size), PassOn(Answer::WrongSize));
        }
}

TEST(Wide, DirectRequestsTakeAndGiveTheWideForm) {
    const DirectProduct product;
    const TvsManager manager = product.manager;
    const ManagerRecord* record = product.record;
    const PrinterSide printer(record, [&](const std::string&, const std::string& text) {
        if (text == "DNumber") StoreBytes(record->printerDatabase.handle, "DNumber", Number(11));
        return 0;
    });
    uint32_t value = 0;
    uint32_t size = 77;
    EXPECT_EQ(GetPrinterStatusDirectW(manager, WIDE("DNumber"), &value, 4, &size), TVS_OK);
    EXPECT_EQ(value, 11u);
    EXPECT_EQ(SetPrinterStatusDirectW(manager, WIDE("DNumber"), &value, 8), TVS_E_SIZE);
    EXPECT_EQ(SetPrinterStatusDirectW(manager, WIDE("DNumber"), &value, 4), TVS_OK);
    EXPECT_EQ(SetPrinterStatusDirectW(manager, WIDE("JobStatus"), &value, 4), TVS_E_UNKNOWN);
    EXPECT_EQ(SetPrinterStatusDirectW(manager, WIDE("RefreshStatus"), WIDE("B\u00FCro"), 10), TVS_OK);
    const Bytes refresh = StoredBytes(record->printerDatabase.handle, "RefreshStatus");
    EXPECT_STREQ(reinterpret_cast<const char*>(refresh.data()), "B\xFCro");
    // What no printer is asked for is read as GetPrinterStatusW reads it.
    const Bytes job = OrdinaryForms(kRecords[0], kScripts[0]).wide;
    EXPECT_EQ(UpdatePrinterStatusW(manager, WIDE("SendingJobInfo"), job.data(), 580), TVS_OK);
    Bytes buffer(580);
    EXPECT_EQ(GetPrinterStatusDirectW(manager, WIDE("SendingJobInfo"), buffer.data(), 580, &size), TVS_OK);
    EXPECT_EQ(buffer, job);
    EXPECT_EQ(GetPrinterStatusDirectW(manager, WIDE("SendingJobInfo"), buffer.data(), 300, &size), TVS_E_MEMORY);
    EXPECT_EQ(size, 580u);
}

TEST(Wide, AsynchronousRequestsTakeTheWideForm) {
    const DirectProduct product;
    const TvsManager manager = product.manager;
    const ManagerRecord* record = product.record;
    const PrinterSide printer(record, [&](const std::string&, const std::string& text) {
        if (text == "DNumber") StoreBytes(record->printerDatabase.handle, "DNumber", Number(11));
        return text == "DNumberW" ? -77 : 0;
    });
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const HWND window = MakeWindow("Requests");
    uint32_t number = 5;
    uint32_t id = 77;
    int32_t result = 0;
    MSG message;
    EXPECT_EQ(GetReqPrinterStatusEventW(manager, WIDE("DNumber"), event), TVS_OK);
    EXPECT_EQ(WaitForSingleObject(event, 10000), WAIT_OBJECT_0);
    EXPECT_EQ(NumberOf(manager, "DNumber"), 11u);
    EXPECT_EQ(GetReqPrinterStatusMsgW(manager, WIDE("DNumber"), window, kMessage), TVS_OK);
    EXPECT_TRUE(TakeMessage(message, window));
    EXPECT_EQ(SetReqPrinterStatusEventW(manager, WIDE("DNumber"), &number, 4, event, &id), TVS_OK);
    EXPECT_EQ(WaitForSingleObject(event, 10000), WAIT_OBJECT_0);
    EXPECT_EQ(ResSetPrinterStatus(manager, id, &result), TVS_OK);
    EXPECT_EQ(result, -77);
    EXPECT_EQ(SetReqPrinterStatusMsgW(manager, WIDE("RefreshStatus"), WIDE("B\u00FCro"), 10, window, kMessage, &id),
              TVS_OK);
    EXPECT_TRUE(TakeMessage(message, window));
    const Bytes refresh = StoredBytes(record->printerDatabase.handle, "RefreshStatus");
    EXPECT_STREQ(reinterpret_cast<const char*>(refresh.data()), "B\xFCro");
    // The number is 0 whatever fails, before the ANSI form too, and looked at first.
    for (const Wide& name : {Wide(WIDE("Nothing")), Wide(32, u'a')}) {
        EXPECT_EQ(GetReqPrinterStatusEventW(manager, name.c_str(), event), TVS_E_UNKNOWN);
        EXPECT_EQ(GetReqPrinterStatusMsgW(0, name.c_str(), window, 1), TVS_E_HANDLE);
        id = 77;
        EXPECT_EQ(SetReqPrinterStatusEventW(manager, name.c_str(), &number, 4, event, &id), TVS_E_UNKNOWN);
        EXPECT_EQ(id, 0u);
        EXPECT_EQ(SetReqPrinterStatusMsgW(manager, name.c_str(), &number, 4, window, 1, nullptr), TVS_E_FAULT);
    }
}

TEST(Wide, RegistrationsAreMadeByWideNames) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    void* const events[] = {event, event};
    const uint32_t messages[] = {kMessage, kMessage + 1};
    const HWND window = MakeWindow("Wide");
    TvsRegistration handles[4] = {};
    EXPECT_EQ(SetNotificationEventW(manager, WIDE("JobStatus"), event, &handles[0]), TVS_OK);
    EXPECT_EQ(SetNotificationMsgW(manager, WIDE("JobStatus"), window, kMessage, &handles[1]), TVS_OK);
    EXPECT_EQ(SetNotificationEventExW(manager, 2, WIDE("PageCount;LMStatus"), events, &handles[2]), TVS_OK);
    EXPECT_EQ(SetNotificationMsgExW(manager, 2, WIDE("PageCount;LMStatus"), window, messages, &handles[3]), TVS_OK);
    const char* const names[4][2] = {
        {"JobStatus"}, {"JobStatus"}, {"PageCount", "LMStatus"}, {"PageCount", "LMStatus"}};
    for (int i = 0; i < 4; ++i)
        for (uint32_t entry = 0; entry < RegistrationAt(handles[i])->entryCount; ++entry)
            EXPECT_STREQ(RegistrationAt(handles[i])->entries[entry].variableName, names[i][entry]) << i;
    EXPECT_EQ(Update(manager, "JobStatus", Number(3)), TVS_OK);
    EXPECT_EQ(WaitForSingleObject(event, 10000), WAIT_OBJECT_0);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(i % 2 ? KillNotificationMsg(manager, handles[i]) : KillNotificationEvent(manager, handles[i]),
                  TVS_OK);
    for (const Wide& name : {Wide(WIDE("Nothing")), Wide(32, u'a'), Wide(70000, u'a')}) {
        EXPECT_EQ(SetNotificationEventW(manager, name.c_str(), event, handles), TVS_E_UNKNOWN);
        EXPECT_EQ(SetNotificationMsgW(manager, name.c_str(), window, 1, handles), TVS_E_UNKNOWN);
        EXPECT_EQ(SetNotificationEventExW(manager, 1, name.c_str(), events, handles), TVS_E_UNKNOWN);
        EXPECT_EQ(SetNotificationMsgExW(manager, 1, name.c_str(), window, messages, handles), TVS_E_UNKNOWN);
        EXPECT_EQ(SetNotificationEventW(0, name.c_str(), event, handles), TVS_E_HANDLE);
        EXPECT_EQ(SetNotificationEventExW(0, 1, name.c_str(), events, handles), TVS_E_HANDLE);
    }
    EXPECT_EQ(RegistrationCount(manager), 0);
    // Without names the list is not looked at.
    EXPECT_EQ(SetNotificationEventExW(manager, 0, nullptr, nullptr, handles),
              SetNotificationEventExA(manager, 0, nullptr, nullptr, handles + 1));
}

TEST(Wide, BadPointersAreFaults) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    BadMemory memory;
    struct Row {
        const WCHAR* variable;
        uint32_t size;
    };
    const Bytes none(4);
    EXPECT_EQ(Update(manager, "PrinterQueue", none), TVS_OK);
    for (const Row& row : {Row{WIDE("SendingJobInfo"), 580}, Row{WIDE("PrinterQueue"), 4}})
        for (const AddressCase& memoryCase : memory.Kinds(row.size)) {
            SCOPED_TRACE(memoryCase.kind + std::to_string(row.size));
            if (memoryCase.size != row.size) continue;
            uint32_t size = 77;
            const int32_t read = GetPrinterStatusW(manager, row.variable, memoryCase.address, row.size, &size);
            EXPECT_EQ(read, memoryCase.writable ? TVS_OK : memoryCase.address == nullptr ? TVS_E_MEMORY : TVS_E_FAULT);
            if (read == TVS_E_FAULT) {
                EXPECT_EQ(size, 0u);
            }
            std::memset(memory.GoodPage(), 0, 4096); // texts that end, queues without entries
            const int32_t written = UpdatePrinterStatusW(manager, row.variable, memoryCase.address, row.size);
            if (!memoryCase.readable) {
                EXPECT_EQ(written, TVS_E_FAULT);
            }
            EXPECT_EQ(Update(manager, "PrinterQueue", none), TVS_OK);
        }
    uint32_t value = 0;
    EXPECT_EQ(GetPrinterStatusW(manager, WIDE("SendingJobInfo"), nullptr, 0, nullptr), TVS_E_FAULT);
    EXPECT_EQ(GetPrinterStatusW(manager, nullptr, &value, 4, &value), TVS_E_FAULT);
    EXPECT_EQ(UpdatePrinterStatusW(manager, nullptr, &value, 4), TVS_E_FAULT);
}
