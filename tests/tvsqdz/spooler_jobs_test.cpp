// Commands to jobs of the print spooler, here the embedded one.
#include "machine.h"
#include "product/client.h"

#include <tvsqdz_records.h>
#include <winspool.h>

namespace {

constexpr DWORD kGone = 0xFFFFFFFF;

struct SpoolerJobs : Opened {
    int32_t Direct(const char* variable, uint32_t value) {
        return SetPrinterStatusDirectA(manager, variable, &value, sizeof value);
    }
    // A job that is still spooled; complete once EndDocPrinter is called.
    DWORD BeginJob() {
        char title[] = "Report";
        DOC_INFO_1A document = {title, nullptr, nullptr};
        const DWORD job = StartDocPrinterA(printer, 1, reinterpret_cast<BYTE*>(&document));
        EXPECT_NE(job, 0u) << GetLastError();
        return job;
    }
    DWORD StatusOf(DWORD job) {
        Bytes buffer(65536);
        DWORD needed = 0;
        DWORD count = 0;
        EXPECT_TRUE(EnumJobsA(printer, 0, 0xFFFFFFFF, 1, buffer.data(), 65536, &needed, &count));
        const auto* jobs = reinterpret_cast<const JOB_INFO_1A*>(buffer.data());
        for (DWORD i = 0; i < count; ++i)
            if (jobs[i].JobId == job) return jobs[i].Status;
        return kGone;
    }
    HANDLE printer = nullptr;
};

} // namespace

TEST_F(SpoolerJobs, ArePausedResumedAndCancelled) {
    // The spooler does not know the printer yet.
    EXPECT_EQ(Update(manager, "SetJob", Number(3)), TVS_E_UNKNOWN);
    EXPECT_EQ(Update(manager, "SetJob", Number(1)), TVS_E_NO_OWNER);
    AddToSpooler(kPrinter);
    std::string name = kPrinter;
    ASSERT_TRUE(OpenPrinterA(name.data(), &printer, nullptr)) << GetLastError();
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(1)), TVS_E_NOT_NOW); // there is none at all
    const DWORD first = BeginJob();
    EXPECT_TRUE(EndDocPrinter(printer));
    const DWORD second = BeginJob();
    EXPECT_TRUE(EndDocPrinter(printer));

    // No job is being sent; a command that there is not; a value that is no number.
    EXPECT_EQ(Update(manager, "SetJob", Number(1)), TVS_OK);
    EXPECT_EQ(UpdateRecord(manager, "SendingJobInfo", TvsJobRecord{.jobId = second}), TVS_OK);
    EXPECT_EQ(Direct("SetJob", 3), TVS_E_UNKNOWN);
    EXPECT_EQ(Update(manager, "SetJob", {1, 0, 0}), TVS_E_FAULT);
    // Only the job that is being sent; again changes nothing.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Update(manager, "SetJob", Number(1)), TVS_OK);
        EXPECT_EQ(StatusOf(first) & JOB_STATUS_PAUSED, 0u);
        EXPECT_NE(StatusOf(second) & JOB_STATUS_PAUSED, 0u);
    }
    EXPECT_EQ(Direct("SetJob", 2), TVS_OK);
    EXPECT_EQ(StatusOf(second) & JOB_STATUS_PAUSED, 0u);
    EXPECT_EQ(NumberOf(manager, "SetJob"), 0xFFFFFFFFu); // commands are not stored

    EXPECT_EQ(Update(manager, "DeleteJobId", Number(second + 100)), TVS_E_NOT_NOW);
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(second)), TVS_OK);
    EXPECT_EQ(StatusOf(second), kGone);
    EXPECT_EQ(Direct("DeleteJobId", second), TVS_E_NOT_NOW);
    EXPECT_EQ(Update(manager, "SetJob", Number(1)), TVS_OK); // the job that was being sent has gone
    // One that is still spooled is on its way out until its spooler notices.
    const DWORD third = BeginJob();
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(third)), TVS_OK);
    EXPECT_NE(StatusOf(third) & JOB_STATUS_DELETING, 0u);
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(third)), TVS_E_NOT_NOW);
    EXPECT_NE(StatusOf(first), kGone);

    // The printer is the one that "PrinterName" names now, whatever the manager was opened with.
    StoreBytes(database, "PrinterName", BytesOf("Gone"));
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(first)), TVS_E_NO_OWNER);
    EXPECT_TRUE(ClosePrinter(printer));
}
