// The queue of jobs: what reports of sent and printed jobs do to it, whose jobs are in it, and who is told.
#include "campaign.h"
#include "manager/variables.h"
#include "notification_kit.h"
#include "product/client.h"

#include <tvsqdz_records.h>

#include <atomic>
#include <cstring>
#include <numeric>

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
Record RecordIn(TvsManager manager, const std::string& variable) {
    Record record = {};
    uint32_t size = 0;
    EXPECT_EQ(GetPrinterStatusA(manager, variable.c_str(), &record, sizeof record, &size), TVS_OK) << variable;
    return record;
}

int32_t Send(TvsManager manager, const TvsJobRecord& job) {
    return UpdateRecord(manager, "SendingJobInfo", job);
}

// second: through "PrintingJobInfo2".
int32_t Report(TvsManager manager, const TvsPrintingJobRecord2& report, bool second = false) {
    return second ? UpdateRecord(manager, "PrintingJobInfo2", report)
                  : UpdateRecord(manager, "PrintingJobInfo", report.job);
}

// The numbers of the queued jobs; a queue whose size does not go with its count fails the test.
Ids Queued(TvsManager manager) {
    const ReadResult read = Read(manager, "PrinterQueue", TVS_JOB_QUEUE_SIZE(64));
    EXPECT_EQ(read.status, TVS_OK);
    Ids ids;
    for (size_t at = 4 + offsetof(TvsJobRecord, jobId); at < read.returnedSize; at += sizeof(TvsJobRecord))
        std::memcpy(&ids.emplace_back(), &read.bytes[at], sizeof(uint32_t));
    const auto count = static_cast<uint32_t>(ids.size());
    EXPECT_EQ(Bytes(read.bytes.begin(), read.bytes.begin() + 4), Number(count));
    EXPECT_TRUE(read.returnedSize == TVS_JOB_QUEUE_SIZE(count) || (read.returnedSize == 4 && count == 0));
    return ids;
}

Ids Range(uint32_t first, uint32_t count) {
    Ids ids(count);
    std::iota(ids.begin(), ids.end(), first);
    return ids;
}

// Stores a queue in its form in the database, as another program may have left it: with any length and count.
void StoreQueue(TvsManager manager, const char* variable, const std::vector<TvsJobRecord>& jobs, uint32_t length = 0,
                uint32_t count = 0) {
    const auto size = static_cast<uint32_t>(jobs.size());
    Bytes stored = Joined({Number(length != 0 ? length : TVS_JOB_QUEUE_SIZE(size)), Number(count != 0 ? count : size)});
    for (const TvsJobRecord& job : jobs)
        stored = Joined({stored, BytesOfRecord(job)});
    StoreBytes(RecordOf(manager)->printerDatabase.handle, variable, stored);
}

using JobQueue = Opened;
using MyJobs = Opened;
using JobQueueCampaign = Opened;

} // namespace

TEST_F(JobQueue, FollowsTheReportsOfSentAndPrintedJobs) {
    enum Kind { kSent, kPrinted, kPrinted2 };
    // queue: afterwards.
    // name: of the printing job afterwards; of the owner in the same way.
    const std::tuple<const char*, Kind, uint32_t, uint32_t, Ids, const char*> rows[] = {
        {"no job is sent", kSent, 0, 0, {}, ""},
        {"first job", kSent, 7, 0, {7}, ""},
        {"second job", kSent, 8, 0, {7, 8}, ""},
        {"the end of nothing", kPrinted, 0, 0, {7, 8}, "as it came"},
        {"a job behind the head", kPrinted, 8, 0, {7, 8}, "as it came"},
        {"the end of that", kPrinted, 0, 0, {7, 8}, "as it came"},
        {"a job that nobody sent", kPrinted2, 70, 0, {7, 8}, "as it came"},
        {"the head", kPrinted, 7, 0, {7, 8}, "Job 7"},
        {"another job's progress", kPrinted, 8, 1, {7, 8}, "as it came"},
        {"the end of that one", kPrinted, 0, 1, {7, 8}, "as it came"},
        {"the head again", kPrinted2, 7, 0, {7, 8}, "Job 7"},
        {"its progress", kPrinted2, 7, 50, {7, 8}, "Job 7"},
        {"its end, told with progress", kPrinted2, 0, 100, {8}, "as it came"},
        {"the end once more", kPrinted2, 0, 0, {8}, "as it came"},
        {"the next head, by one variable", kPrinted2, 8, 0, {8}, "Job 8"},
        {"its end, by the other", kPrinted, 0, 0, {}, "as it came"},
    };
    for (const auto& [what, kind, job, progress, queue, name] : rows) {
        SCOPED_TRACE(what);
        if (kind == kSent) {
            EXPECT_EQ(Send(manager, Job(job)), TVS_OK);
            EXPECT_EQ(RecordIn<TvsJobRecord>(manager, "SendingJobInfo").jobId, job);
        } else {
            const TvsPrintingJobRecord2 report = Printing(job, progress);
            EXPECT_EQ(Report(manager, report, kind == kPrinted2), TVS_OK);
            const auto stored = RecordIn<TvsPrintingJobRecord2>(manager, "PrintingJobInfo2");
            EXPECT_EQ(stored.job.jobId, job);
            EXPECT_EQ(stored.job.progress, progress);
            EXPECT_STREQ(stored.job.jobName, name);
            EXPECT_STREQ(stored.job.ownerName, name[0] == 'J' ? "ann" : "someone");
            EXPECT_EQ(stored.coverage[0], kind == kPrinted2 ? job + 1 : stored.coverage[0]);
        }
        EXPECT_EQ(Queued(manager), queue);
    }

    // The 51st drops the first, and shorter values are none.
    for (uint32_t id = 1; id <= 51; ++id)
        EXPECT_EQ(Send(manager, Job(id)), TVS_OK);
    EXPECT_EQ(Queued(manager), Range(2, 50));
    for (const char* variable : {"SendingJobInfo", "PrintingJobInfo", "PrintingJobInfo2"})
        EXPECT_EQ(Update(manager, variable, Bytes(291, 1)), PassOn(Answer::WrongSize)) << variable;
    EXPECT_EQ(Queued(manager), Range(2, 50));
}

TEST_F(JobQueue, AReportIsOneWrite) {
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

TEST_F(JobQueue, IsReadAsWhatAnotherProgramMayHaveStored) {
    TvsJobRecord endless = Job(1, "OPERATOR");
    std::memset(endless.jobName, 'x', sizeof endless.jobName);
    TvsJobRecord filled = Job(2);
    std::memset(filled.ownerName, 'o', sizeof filled.ownerName);
    // More entries than are there, a wrong length, an entry that is cut off.
    StoreQueue(manager, "PrinterQueue", {endless, filled}, 3, 0xFFFFFFFF);
    EXPECT_EQ(NumberOf(manager, "PrintingMyJob"), 1u);
    EXPECT_EQ(Report(manager, Printing(1)), TVS_OK);
    EXPECT_EQ(std::strlen(RecordIn<TvsPrintingJobRecord>(manager, "PrintingJobInfo").jobName), 255u);
    EXPECT_EQ(Send(manager, Job(3)), TVS_OK);
    EXPECT_EQ(Queued(manager), Ids({1, 2, 3}));
    // More than there may be.
    std::vector<TvsJobRecord> many;
    for (uint32_t id = 100; id < 160; ++id)
        many.push_back(Job(id));
    StoreQueue(manager, "PrinterQueue", many);
    EXPECT_EQ(Send(manager, Job(160)), TVS_OK);
    EXPECT_EQ(Queued(manager), Range(111, 50));
    // Nothing at all.
    StoreBytes(database, "PrinterQueue", {0});
    EXPECT_EQ(NumberOf(manager, "PrintingMyJob"), 0u);
    EXPECT_EQ(Send(manager, Job(5)), TVS_OK);
    EXPECT_EQ(Queued(manager), Ids{5});
}

TEST_F(JobQueue, OwnJobsAreThoseOfTheUserWithoutCase) {
    const std::tuple<std::string, std::string, bool> rows[] = {
        {"Operator", "oPERATOR", true},   {"operator", "operator2", false},
        {"operator2", "operator", false}, {"j\xFCrgen", "J\xDCRGEN", false}, // A to Z alone
        {"[user", "{user", false},        {std::string(31, 'u'), std::string(31, 'U'), true},
    };
    // Of one job of the owner's in "PrinterQueue" and two in "SpoolerQueue", beside those of others.
    for (const auto& [user, owner, own] : rows) {
        SCOPED_TRACE(user + " and " + owner);
        const TvsManager users = OpenPrinter(2, kPrinter, user.c_str());
        StoreQueue(manager, "PrinterQueue", {Job(1, owner), Job(2, "somebody else")});
        StoreQueue(manager, "SpoolerQueue", {Job(1, owner), Job(2, owner), Job(3, "")});
        EXPECT_EQ(NumberOf(users, "PrintingMyJob"), own ? 1u : 0u);
        EXPECT_EQ(NumberOf(users, "SpoolingMyJob"), own ? 2u : 0u);
    }
}

TEST_F(MyJobs, AreToldWhenTheirNumberChangesAndNotOtherwise) {
    StoreQueue(manager, "PrinterQueue", {Job(1, "Operator"), Job(2)});
    StoreQueue(manager, "SpoolerQueue", {});
    Registrant printing(Form::Event, manager, "PrintingMyJob");
    Registrant spooling(Form::Event, manager, "SpoolingMyJob");
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
    for (const uint32_t job : {0, 1, 0}) {
        EXPECT_EQ(printing.Told(0), 0);
        EXPECT_EQ(Report(manager, Printing(job)), TVS_OK);
    }
    EXPECT_EQ(printing.Told(), 1);
    EXPECT_EQ(NumberOf(manager, "PrintingMyJob"), 1u);
}

namespace {

constexpr uint32_t kRoom = 40; // of the queue, that two senders who look first never fill
constexpr uint32_t kSenderIds = 1000000;

// Sends jobs in the order of their numbers, when there is room: the sender, how many.
CHILD_PROCESS(SendsJobs) {
    const Library library;
    const TvsManager manager = OpenPrinter();
    const auto first = static_cast<uint32_t>(std::stoul(child.arguments[0])) * kSenderIds;
    const auto count = static_cast<uint32_t>(std::stoul(child.arguments[1]));
    child.Say("sends");
    child.Hear();
    for (uint32_t i = 1; i <= count; ++i)
        if (!WaitUntil([&] { return Queued(manager).size() < kRoom; }, 60000) ||
            Send(manager, Job(first + i, "operator")) != TVS_OK)
            return 1;
    return CloseManager(manager);
}

} // namespace

// Nothing is lost while there is room, and each sender's jobs are printed in its order.
TEST_F(JobQueueCampaign, TwoSendersAndAPrinter) {
    const auto jobsOfEach = static_cast<uint32_t>(Rounds(150, 5000));
    TestProcess senders[] = {TestProcess("SendsJobs", {"1", std::to_string(jobsOfEach)}),
                             TestProcess("SendsJobs", {"2", std::to_string(jobsOfEach)})};
    for (TestProcess& sender : senders)
        ASSERT_EQ(sender.Hear(), "sends");
    for (TestProcess& sender : senders)
        sender.Tell("go");
    uint32_t printed[3] = {};
    while (printed[1] + printed[2] < 2 * jobsOfEach && !HasFailure()) {
        Ids queue;
        ASSERT_TRUE(WaitUntil([&] { return !(queue = Queued(manager)).empty(); }, 60000));
        EXPECT_LE(queue.size(), 50u);
        const uint32_t id = queue[0];
        ASSERT_TRUE(id / kSenderIds == 1 || id / kSenderIds == 2) << id;
        EXPECT_EQ(id % kSenderIds, ++printed[id / kSenderIds]);
        EXPECT_EQ(Report(manager, Printing(id)), TVS_OK);
        EXPECT_EQ(RecordIn<TvsPrintingJobRecord>(manager, "PrintingJobInfo").jobName, "Job " + std::to_string(id));
        EXPECT_EQ(Report(manager, Printing(0)), TVS_OK);
    }
    EXPECT_TRUE(Queued(manager).empty());
    for (TestProcess& sender : senders)
        EXPECT_EQ(sender.Wait(), 0) << sender.Errors();
}
