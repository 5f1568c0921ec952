// The queue of jobs: what reports of sent and printed jobs do to it, whose jobs are in it, and who is told.
#include "campaign.h"
#include "manager/variables.h"
#include "notification_kit.h"
#include "product/client.h"

#include <tvsqdz_records.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace {

using Ids = std::vector<uint32_t>;

TvsJobRecord Job(uint32_t id, const std::string& owner = "ann") {
    TvsJobRecord job = {};
    std::strcpy(job.jobName, ("Job " + std::to_string(id)).c_str());
    std::strcpy(job.ownerName, owner.c_str());
    job.jobId = id;
    return job;
}

TvsPrintingJobRecord2 Printing(uint32_t id, uint32_t progress = 0) {
    TvsPrintingJobRecord2 report = {};
    std::strcpy(report.job.jobName, "as it came");
    std::strcpy(report.job.ownerName, "someone");
    report.job.jobId = id;
    report.job.progress = progress;
    report.coverage[0] = id + 1;
    return report;
}

template <typename Record>
Bytes BytesOfRecord(const Record& record) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    return {bytes, bytes + sizeof record};
}

template <typename Record>
Record RecordIn(TvsManager manager, const std::string& variable) {
    Record record = {};
    uint32_t size = 0;
    EXPECT_EQ(GetPrinterStatusA(manager, variable.c_str(), &record, sizeof record, &size), TVS_OK) << variable;
    return record;
}

int32_t Send(TvsManager manager, const TvsJobRecord& job) {
    return Update(manager, "SendingJobInfo", BytesOfRecord(job));
}

// second: through "PrintingJobInfo2".
int32_t Report(TvsManager manager, const TvsPrintingJobRecord2& report, bool second = false) {
    return second ? Update(manager, "PrintingJobInfo2", BytesOfRecord(report))
                  : Update(manager, "PrintingJobInfo", BytesOfRecord(report.job));
}

// The jobs of a queue; a queue whose size does not go with its count fails the test.
std::vector<TvsJobRecord> Queued(TvsManager manager, const char* variable = "PrinterQueue") {
    const ReadResult read = Read(manager, variable, 64 * sizeof(TvsJobRecord));
    EXPECT_EQ(read.status, TVS_OK) << variable;
    uint32_t count = 0;
    if (read.returnedSize >= sizeof count) std::memcpy(&count, read.bytes.data(), sizeof count);
    EXPECT_TRUE(read.returnedSize == TVS_JOB_QUEUE_SIZE(count) || (read.returnedSize == 4 && count == 0));
    std::vector<TvsJobRecord> jobs(std::min(count, 64u));
    if (!jobs.empty()) std::memcpy(jobs.data(), read.bytes.data() + sizeof count, jobs.size() * sizeof(TvsJobRecord));
    return jobs;
}

Ids QueuedIds(TvsManager manager) {
    Ids ids;
    for (const TvsJobRecord& job : Queued(manager))
        ids.push_back(job.jobId);
    return ids;
}

Ids Range(uint32_t first, uint32_t count) {
    Ids ids(count);
    for (uint32_t i = 0; i < count; ++i)
        ids[i] = first + i;
    return ids;
}

// Stores a queue as another program may have left it: in its form in the database, whatever that is.
void StoreQueue(TvsManager manager, const char* variable, uint32_t length, uint32_t count,
                const std::vector<TvsJobRecord>& jobs) {
    Bytes stored = Joined({Number(length), Number(count)});
    for (const TvsJobRecord& job : jobs)
        stored = Joined({stored, BytesOfRecord(job)});
    EXPECT_EQ(
        WriteVariable(RecordOf(manager)->printerDatabase, variable, stored.data(), static_cast<DWORD>(stored.size())),
        Answer::Done);
}

void StoreQueue(TvsManager manager, const char* variable, const std::vector<TvsJobRecord>& jobs) {
    const auto count = static_cast<uint32_t>(jobs.size());
    StoreQueue(manager, variable, TVS_JOB_QUEUE_SIZE(count), count, jobs);
}

} // namespace

TEST(JobQueue, FollowsTheReportsOfSentAndPrintedJobs) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    enum Kind { kSent, kPrinted, kPrinted2 };
    const struct {
        const char* what;
        Kind kind;
        uint32_t id;
        uint32_t progress;
        Ids queue;        // afterwards
        const char* name; // of the printing job afterwards; of the owner in the same way
    } rows[] = {
        {"no job is sent", kSent, 0, 0, {}, ""},
        {"first job", kSent, 7, 0, {7}, ""},
        {"second job", kSent, 8, 0, {7, 8}, ""},
        {"third job", kSent, 9, 0, {7, 8, 9}, ""},
        {"the end of nothing", kPrinted, 0, 0, {7, 8, 9}, "as it came"},
        {"a job behind the head", kPrinted, 8, 0, {7, 8, 9}, "as it came"},
        {"the end of that", kPrinted, 0, 0, {7, 8, 9}, "as it came"},
        {"a job that nobody sent", kPrinted2, 70, 0, {7, 8, 9}, "as it came"},
        {"the head", kPrinted, 7, 0, {7, 8, 9}, "Job 7"},
        {"its progress", kPrinted, 7, 1, {7, 8, 9}, "Job 7"},
        {"another job's progress", kPrinted, 8, 1, {7, 8, 9}, "as it came"},
        {"the end of that one", kPrinted, 0, 1, {7, 8, 9}, "as it came"},
        {"the head again", kPrinted2, 7, 0, {7, 8, 9}, "Job 7"},
        {"its progress", kPrinted2, 7, 50, {7, 8, 9}, "Job 7"},
        {"its end, told with progress", kPrinted2, 0, 100, {8, 9}, "as it came"},
        {"the end once more", kPrinted2, 0, 0, {8, 9}, "as it came"},
        {"the next head, by one variable", kPrinted2, 8, 0, {8, 9}, "Job 8"},
        {"its end, by the other", kPrinted, 0, 0, {9}, "as it came"},
        {"a job is sent meanwhile", kSent, 10, 0, {9, 10}, "as it came"},
        {"the last but one", kPrinted, 9, 0, {9, 10}, "Job 9"},
        {"ends", kPrinted, 0, 0, {10}, "as it came"},
        {"the last", kPrinted, 10, 0, {10}, "Job 10"},
        {"ends", kPrinted2, 0, 0, {}, "as it came"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        if (row.kind == kSent) {
            EXPECT_EQ(Send(manager, Job(row.id)), TVS_OK);
            EXPECT_EQ(RecordIn<TvsJobRecord>(manager, "SendingJobInfo").jobId, row.id);
        } else {
            const TvsPrintingJobRecord2 report = Printing(row.id, row.progress);
            const TvsPrintingJobRecord2 before = report;
            EXPECT_EQ(Report(manager, report, row.kind == kPrinted2), TVS_OK);
            EXPECT_EQ(std::memcmp(&report, &before, sizeof report), 0);
            const auto stored = RecordIn<TvsPrintingJobRecord2>(manager, "PrintingJobInfo2");
            EXPECT_EQ(stored.job.jobId, row.id);
            EXPECT_EQ(stored.job.progress, row.progress);
            EXPECT_STREQ(stored.job.jobName, row.name);
            EXPECT_STREQ(stored.job.ownerName, row.name[0] == 'J' ? "ann" : "someone");
            EXPECT_EQ(stored.coverage[0], row.kind == kPrinted2 ? row.id + 1 : stored.coverage[0]);
        }
        EXPECT_EQ(QueuedIds(manager), row.queue);
    }

    // The 51st drops the first, and shorter values are none.
    for (uint32_t id = 1; id <= 51; ++id)
        EXPECT_EQ(Send(manager, Job(id)), TVS_OK);
    EXPECT_EQ(QueuedIds(manager), Range(2, 50));
    for (const char* variable : {"SendingJobInfo", "PrintingJobInfo", "PrintingJobInfo2"})
        EXPECT_EQ(Update(manager, variable, Bytes(291, 1)), PassOn(Answer::WrongSize)) << variable;
    EXPECT_EQ(QueuedIds(manager), Range(2, 50));
}

TEST(JobQueue, AReportIsOneWrite) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    std::atomic<bool> done = false;
    int mixed = 0;
    {
        const TestThread writer([&] {
            for (uint32_t id = 1; id <= 1000; ++id)
                EXPECT_EQ(Report(manager, Printing(id, 1), true), TVS_OK);
            done = true;
        });
        while (!done) {
            const auto report = RecordIn<TvsPrintingJobRecord2>(manager, "PrintingJobInfo2");
            mixed += report.job.jobId != 0 && report.coverage[0] != report.job.jobId + 1;
        }
    }
    EXPECT_EQ(mixed, 0);
}

TEST(JobQueue, IsReadAsWhatAnotherProgramMayHaveStored) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    TvsJobRecord endless = Job(1, "OPERATOR");
    std::memset(endless.jobName, 'x', sizeof endless.jobName);
    TvsJobRecord filled = Job(2);
    std::memset(filled.ownerName, 'o', sizeof filled.ownerName);
    // More entries than are there, a wrong length, an entry that is cut off.
    StoreQueue(manager, "PrinterQueue", 3, 0xFFFFFFFF, {endless, filled});
    EXPECT_EQ(NumberOf(manager, "PrintingMyJob"), 1u);
    EXPECT_EQ(Report(manager, Printing(1)), TVS_OK);
    EXPECT_EQ(std::strlen(RecordIn<TvsPrintingJobRecord>(manager, "PrintingJobInfo").jobName), 255u);
    EXPECT_EQ(Send(manager, Job(3)), TVS_OK);
    EXPECT_EQ(QueuedIds(manager), Ids({1, 2, 3}));
    // More than there may be.
    std::vector<TvsJobRecord> many;
    for (uint32_t id = 100; id < 160; ++id)
        many.push_back(Job(id));
    StoreQueue(manager, "PrinterQueue", many);
    EXPECT_EQ(Send(manager, Job(160)), TVS_OK);
    EXPECT_EQ(QueuedIds(manager), Range(111, 50));
    // Nothing at all.
    EXPECT_EQ(WriteVariable(RecordOf(manager)->printerDatabase, "PrinterQueue", "", 1), Answer::Done);
    EXPECT_EQ(NumberOf(manager, "PrintingMyJob"), 0u);
    EXPECT_EQ(Send(manager, Job(5)), TVS_OK);
    EXPECT_EQ(QueuedIds(manager), Ids{5});
    // A database that has gone: the read gives up, its reader is told that there is none.
    ManagerRecord* record = RecordOf(manager);
    EXPECT_EQ(CloseDatabase(record->printerDatabase.handle), Answer::Done);
    uint32_t count = 7;
    EXPECT_EQ(static_cast<int32_t>(PrintingMyJobRead(record, &count)), PassOn(Answer::UnknownDatabase));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(NumberOf(manager, "SpoolingMyJob"), 0u);
    EXPECT_EQ(Send(manager, Job(6)), PassOn(Answer::UnknownDatabase));
}

namespace {

// A user and an owner of jobs: what the two variables say of one job of the owner's in "PrinterQueue" and two in
// "SpoolerQueue", beside those of others.
std::string OwnJobs(const std::string& user, const std::string& owner) {
    TvsManager manager = 0;
    EXPECT_EQ(OpenManagerExA(kPrinter.c_str(), user.c_str(), 2, &manager), TVS_OK);
    StoreQueue(manager, "PrinterQueue", {Job(1, owner), Job(2, "somebody else")});
    StoreQueue(manager, "SpoolerQueue", {Job(1, owner), Job(2, owner), Job(3, "")});
    EXPECT_EQ(PrintingMyJobRead(RecordOf(manager), nullptr), 4u);
    const std::string counts =
        std::to_string(NumberOf(manager, "PrintingMyJob")) + " " + std::to_string(NumberOf(manager, "SpoolingMyJob"));
    EXPECT_EQ(CloseManager(manager), TVS_OK);
    return counts;
}

CHILD_PROCESS(CountsInCodePage932) {
    const Library library;
    // The second byte of a double-byte character is no letter.
    child.Say(OwnJobs("\x83\x41x", "\x83\x41X") + ", " + OwnJobs("\x83\x41x", "\x83\x61x"));
    return 0;
}

} // namespace

TEST(JobQueue, OwnJobsAreThoseOfTheUserWithoutCase) {
    const Product product;
    const struct {
        std::string user;
        std::string owner;
        bool own;
    } rows[] = {
        {"Operator", "oPERATOR", true},
        {"operator", "operator2", false},
        {"operator2", "operator", false},
        {"j\xFCrgen", "J\xFCRGEN", true},
        {"j\xFCrgen", "J\xDCRGEN", false}, // A to Z alone
        {"[user", "{user", false},
        {std::string(31, 'u'), std::string(31, 'U'), true},
        {std::string(40, 'u'), std::string(31, 'u'), false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(OwnJobs(row.user, row.owner), row.own ? "1 2" : "0 0") << row.user << " and " << row.owner;
    TestProcess japanese("CountsInCodePage932", {}, {{"ORIEL_ANSI_CODE_PAGE", "932"}});
    EXPECT_EQ(japanese.Hear(), "1 2, 0 0");
}

TEST(MyJobs, AreToldWhenTheirNumberChangesAndNotOtherwise) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    StoreQueue(manager, "PrinterQueue", {Job(1, "Operator"), Job(2)});
    for (const Form form : {Form::Event, Form::Message}) {
        SCOPED_TRACE(static_cast<int>(form));
        StoreQueue(manager, "SpoolerQueue", {});
        Registrant printing(form, manager, "PrintingMyJob", 0);
        Registrant spooling(form, manager, "SpoolingMyJob", 1);
        ASSERT_EQ(printing.status, TVS_OK);
        ASSERT_EQ(spooling.status, TVS_OK);
        // The queue changes, the number does not: another's job, one that is moved up, a report.
        EXPECT_EQ(Send(manager, Job(3)), TVS_OK);
        StoreQueue(manager, "PrinterQueue", {Job(2), Job(1, "OPERATOR")});
        EXPECT_EQ(Report(manager, Printing(2)), TVS_OK);
        EXPECT_EQ(printing.Told(kQuietMs), 0);
        EXPECT_EQ(Send(manager, Job(4, "operatoR")), TVS_OK);
        EXPECT_EQ(printing.Told(), 1);
        EXPECT_EQ(NumberOf(manager, "PrintingMyJob"), 2u);
        EXPECT_EQ(spooling.Told(kQuietMs), 0);
        StoreQueue(manager, "SpoolerQueue", {Job(5, "operator"), Job(6)});
        EXPECT_EQ(spooling.Told(), 1);
        // The job at the head is another's; the next one is the user's own.
        EXPECT_EQ(Report(manager, Printing(0)), TVS_OK);
        EXPECT_EQ(Report(manager, Printing(1)), TVS_OK);
        EXPECT_EQ(printing.Told(kQuietMs), 0);
        EXPECT_EQ(Report(manager, Printing(0)), TVS_OK);
        EXPECT_EQ(printing.Told(), 1);
        EXPECT_EQ(NumberOf(manager, "PrintingMyJob"), 1u);
        EXPECT_EQ(printing.Cancel(), TVS_OK);
        EXPECT_EQ(spooling.Cancel(), TVS_OK);
    }
}

namespace {

constexpr uint32_t kRoom = 40; // of the queue, that two senders who look first never fill
constexpr uint32_t kSenderIds = 1000000;

// Sends jobs in the order of their numbers: the sender, how many, whether it waits for room.
CHILD_PROCESS(SendsJobs) {
    const Library library;
    const TvsManager manager = OpenPrinter();
    const auto first = static_cast<uint32_t>(std::stoul(child.arguments[0])) * kSenderIds;
    const auto count = static_cast<uint32_t>(std::stoul(child.arguments[1]));
    const bool waits = child.arguments[2] == "waits";
    child.Say("sends");
    child.Hear();
    for (uint32_t i = 1; i <= count; ++i) {
        if (waits && !WaitUntil([&] { return Queued(manager).size() < kRoom; }, 60000)) break;
        if (Send(manager, Job(first + i, "operator")) != TVS_OK) break;
    }
    child.Say("sent");
    return CloseManager(manager);
}

// Two senders at once; while they send, `meanwhile` runs.
template <typename Work>
void WithTwoSenders(int jobsOfEach, const char* how, Work meanwhile) {
    std::vector<TestProcess> senders;
    for (const char* number : {"1", "2"})
        senders.emplace_back("SendsJobs", std::vector<std::string>{number, std::to_string(jobsOfEach), how});
    for (TestProcess& sender : senders)
        ASSERT_EQ(sender.Hear(), "sends");
    for (TestProcess& sender : senders)
        sender.Tell("go");
    meanwhile();
    for (TestProcess& sender : senders) {
        EXPECT_EQ(sender.Hear(60000), "sent");
        EXPECT_EQ(sender.Wait(), 0);
    }
}

} // namespace

// Nothing is lost while there is room, and each sender's jobs are printed in its order.
TEST(JobQueueCampaign, TwoSendersAndAPrinter) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const int jobsOfEach = Rounds(150, 5000);
    uint32_t printed[3] = {};
    WithTwoSenders(jobsOfEach, "waits", [&] {
        const uint32_t all = 2 * static_cast<uint32_t>(jobsOfEach);
        while (printed[1] + printed[2] < all && !::testing::Test::HasFailure()) {
            std::vector<TvsJobRecord> queue;
            ASSERT_TRUE(WaitUntil([&] { return !(queue = Queued(manager)).empty(); }, 60000));
            EXPECT_LE(queue.size(), 50u);
            const uint32_t id = queue[0].jobId;
            ASSERT_TRUE(id / kSenderIds == 1 || id / kSenderIds == 2) << id;
            EXPECT_EQ(id % kSenderIds, ++printed[id / kSenderIds]);
            EXPECT_EQ(Report(manager, Printing(id)), TVS_OK);
            EXPECT_EQ(RecordIn<TvsPrintingJobRecord>(manager, "PrintingJobInfo").jobName, "Job " + std::to_string(id));
            EXPECT_EQ(Report(manager, Printing(id, 50)), TVS_OK);
            EXPECT_EQ(Report(manager, Printing(0)), TVS_OK);
        }
    });
    EXPECT_TRUE(Queued(manager).empty());
    EXPECT_EQ(printed[1], static_cast<uint32_t>(jobsOfEach));
    EXPECT_EQ(printed[2], static_cast<uint32_t>(jobsOfEach));

    // Without room the newest stay, and without a gap.
    WithTwoSenders(60, "floods", [&] { EXPECT_LE(Queued(manager).size(), 50u); });
    uint32_t next[3] = {0, 61, 61};
    const std::vector<TvsJobRecord> left = Queued(manager);
    ASSERT_EQ(left.size(), 50u);
    for (auto job = left.rbegin(); job != left.rend(); ++job)
        EXPECT_EQ(job->jobId % kSenderIds, --next[job->jobId / kSenderIds]);
}
