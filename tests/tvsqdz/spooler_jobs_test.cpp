// Commands to jobs of the print spooler, here the embedded one.
#include "machine.h"
#include "product/client.h"

#include <tvsqdz_records.h>
#include <winspool.h>

namespace {

HANDLE OpenInSpooler() {
    std::string name = kPrinter;
    HANDLE printer = nullptr;
    EXPECT_TRUE(OpenPrinterA(name.data(), &printer, nullptr)) << GetLastError();
    return printer;
}

// A job that is still spooled; complete once EndDocPrinter is called for the handle.
DWORD BeginJob(HANDLE printer) {
    char title[] = "Report";
    DOC_INFO_1A document = {title, nullptr, nullptr};
    const DWORD job = StartDocPrinterA(printer, 1, reinterpret_cast<BYTE*>(&document));
    EXPECT_NE(job, 0u) << GetLastError();
    return job;
}

constexpr DWORD kGone = 0xFFFFFFFF;

DWORD StatusOf(HANDLE printer, DWORD job) {
    Bytes buffer(65536);
    DWORD needed = 0;
    DWORD count = 0;
    EXPECT_TRUE(
        EnumJobsA(printer, 0, 0xFFFFFFFF, 1, buffer.data(), static_cast<DWORD>(buffer.size()), &needed, &count));
    const auto* jobs = reinterpret_cast<const JOB_INFO_1A*>(buffer.data());
    for (DWORD i = 0; i < count; ++i)
        if (jobs[i].JobId == job) return jobs[i].Status;
    return kGone;
}

} // namespace

TEST(SpoolerJobs, ArePausedResumedAndCancelled) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const auto direct = [&](const char* variable, uint32_t value) {
        return SetPrinterStatusDirectA(manager, variable, &value, sizeof value);
    };
    const auto sending = [&](uint32_t job) {
        TvsJobRecord record = {};
        record.jobId = job;
        EXPECT_EQ(UpdatePrinterStatusA(manager, "SendingJobInfo", &record, sizeof record), TVS_OK);
    };
    // The spooler does not know the printer yet.
    EXPECT_EQ(Update(manager, "SetJob", Number(3)), TVS_E_UNKNOWN);
    EXPECT_EQ(Update(manager, "SetJob", Number(1)), TVS_E_NO_OWNER);
    EXPECT_EQ(direct("DeleteJobId", 1), TVS_E_NO_OWNER);
    AddToSpooler(kPrinter);
    const HANDLE printer = OpenInSpooler();
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(1)), TVS_E_NOT_NOW); // there is none at all
    const DWORD first = BeginJob(printer);
    EXPECT_TRUE(EndDocPrinter(printer));
    const DWORD second = BeginJob(printer);
    EXPECT_TRUE(EndDocPrinter(printer));

    // No job is being sent; a command that there is not; a value that is no number.
    EXPECT_EQ(Update(manager, "SetJob", Number(1)), TVS_OK);
    sending(second);
    EXPECT_EQ(direct("SetJob", 3), TVS_E_UNKNOWN);
    EXPECT_EQ(direct("SetJob", 0), TVS_E_UNKNOWN);
    EXPECT_EQ(Update(manager, "SetJob", {1, 0, 0}), TVS_E_FAULT);
    EXPECT_EQ(Update(manager, "DeleteJobId", {}), TVS_E_FAULT);
    EXPECT_EQ(StatusOf(printer, first) & JOB_STATUS_PAUSED, 0u);
    EXPECT_EQ(StatusOf(printer, second) & JOB_STATUS_PAUSED, 0u);
    // Only the job that is being sent; again changes nothing.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Update(manager, "SetJob", Number(1)), TVS_OK);
        EXPECT_EQ(StatusOf(printer, first) & JOB_STATUS_PAUSED, 0u);
        EXPECT_NE(StatusOf(printer, second) & JOB_STATUS_PAUSED, 0u);
    }
    EXPECT_EQ(direct("SetJob", 2), TVS_OK);
    EXPECT_EQ(StatusOf(printer, second) & JOB_STATUS_PAUSED, 0u);
    EXPECT_EQ(NumberOf(manager, "SetJob"), 0xFFFFFFFFu); // commands are not stored

    EXPECT_EQ(Update(manager, "DeleteJobId", Number(second + 100)), TVS_E_NOT_NOW);
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(second)), TVS_OK);
    EXPECT_EQ(StatusOf(printer, second), kGone);
    EXPECT_EQ(direct("DeleteJobId", second), TVS_E_NOT_NOW);
    EXPECT_EQ(Update(manager, "SetJob", Number(1)), TVS_OK); // the job that was being sent has gone
    // One that is still spooled is on its way out until its spooler notices.
    const DWORD third = BeginJob(printer);
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(third)), TVS_OK);
    EXPECT_NE(StatusOf(printer, third) & JOB_STATUS_DELETING, 0u);
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(third)), TVS_E_NOT_NOW);
    EXPECT_NE(StatusOf(printer, first), kGone);

    // The printer is the one that "PrinterName" names now, whatever the manager was opened with.
    EXPECT_EQ(WriteVariable(RecordOf(manager)->printerDatabase, "PrinterName", "Gone", 5), Answer::Done);
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(first)), TVS_E_NO_OWNER);
    EXPECT_EQ(WriteVariable(RecordOf(manager)->printerDatabase, "PrinterName", kPrinter.c_str(),
                            static_cast<DWORD>(kPrinter.size() + 1)),
              Answer::Done);
    EXPECT_EQ(Update(manager, "DeleteJobId", Number(first)), TVS_OK);
    EXPECT_EQ(StatusOf(printer, first), kGone);
    EXPECT_TRUE(ClosePrinter(printer));
}
