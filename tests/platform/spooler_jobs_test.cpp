// Jobs of the embedded spool: what is listed, who may change it, what is left of jobs whose process died.
#include "posix_kit.h"
#include "private_machine.h"
#include "spooler_kit.h"

#include <filesystem>
#include <fstream>

namespace {

HANDLE NewPrinter(const std::string& name = "Office") {
    HANDLE printer = nullptr;
    EXPECT_EQ(Add(name, "Driver", "LPT1:", 0, &printer), DWORD{ERROR_SUCCESS});
    return printer;
}

std::string JobFile(const std::string& name) {
    return PrivateDirectory() + "/state/jobs/" + name;
}

std::string Line(DWORD job, DWORD status, const std::string& document, const std::string& user = "") {
    char name[256] = "";
    DWORD size = sizeof name;
    EXPECT_TRUE(GetUserNameA(name, &size));
    return std::to_string(job) + " " + std::to_string(status) + " " + (user.empty() ? name : user) + " " + document +
           "\n";
}

} // namespace

TEST(SpoolerJobs, AreListedPausedResumedAndCancelled) {
    const HANDLE printer = NewPrinter();
    const HANDLE other = NewPrinter("Other");
    EXPECT_EQ(JobsOf(printer), "");
    const DWORD first = Print(printer, "letter");
    const DWORD elsewhere = Print(other, "elsewhere");
    const DWORD second = Print(printer, std::string(1023, 'n'), std::string(100000, 'x'));
    EXPECT_EQ(ReadWholeFile(JobFile(std::to_string(second) + ".data")), std::string(100000, 'x'));
    EXPECT_EQ(JobsOf(printer), Line(first, 0, "letter") + Line(second, 0, std::string(1023, 'n')));
    EXPECT_EQ(JobsOf(printer, 1, 7), Line(second, 0, std::string(1023, 'n')));
    EXPECT_EQ(JobsOf(printer, 0, 1), Line(first, 0, "letter"));
    EXPECT_EQ(JobsOf(printer, 9), "");

    const struct {
        DWORD job, command, code, status;
    } rows[] = {
        {first, JOB_CONTROL_PAUSE, ERROR_SUCCESS, JOB_STATUS_PAUSED},
        {first, JOB_CONTROL_PAUSE, ERROR_SUCCESS, JOB_STATUS_PAUSED},
        {first, 0, ERROR_INVALID_PARAMETER, JOB_STATUS_PAUSED},
        {first, 4, ERROR_INVALID_PARAMETER, JOB_STATUS_PAUSED},
        {elsewhere, JOB_CONTROL_CANCEL, ERROR_INVALID_PARAMETER, JOB_STATUS_PAUSED},
        {0, JOB_CONTROL_CANCEL, ERROR_INVALID_PARAMETER, JOB_STATUS_PAUSED},
        {0x80000000, JOB_CONTROL_CANCEL, ERROR_INVALID_PARAMETER, JOB_STATUS_PAUSED},
        {first, JOB_CONTROL_RESUME, ERROR_SUCCESS, 0},
        {first, JOB_CONTROL_RESUME, ERROR_SUCCESS, 0},
        {second, JOB_CONTROL_DELETE, ERROR_SUCCESS, 0},
        {second, JOB_CONTROL_CANCEL, ERROR_INVALID_PARAMETER, 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Control(printer, row.job, row.command), row.code) << row.job << " " << row.command;
        EXPECT_EQ(JobsOf(printer, 0, 1), Line(first, row.status, "letter")) << row.job << " " << row.command;
    }
    EXPECT_FALSE(std::filesystem::exists(JobFile(std::to_string(second) + ".data")));
    EXPECT_GT(Print(printer, "next"), second) << "a number is not used again";
    EXPECT_EQ(JobsOf(other), Line(elsewhere, 0, "elsewhere"));

    EXPECT_TRUE(DeletePrinter(other));
    EXPECT_FALSE(std::filesystem::exists(JobFile(std::to_string(elsewhere))));
    EXPECT_EQ(JobsOf(other), "error 1905");
    EXPECT_EQ(Control(other, elsewhere, JOB_CONTROL_PAUSE), DWORD{ERROR_PRINTER_DELETED});
    EXPECT_EQ(Start(other, "late"), 0U);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_PRINTER_DELETED});
}

TEST(SpoolerJobs, RecordsTellWhatIsKnown) {
    const HANDLE printer = NewPrinter();
    SYSTEMTIME before;
    GetSystemTime(&before);
    Print(printer, "letter");
    DWORD needed = 7;
    DWORD returned = 7;
    EXPECT_FAILS(EnumJobsA(printer, 0, 9, 1, nullptr, 0, &needed, &returned), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(returned, 0U);
    std::vector<BYTE> buffer(needed, 0xee);
    const DWORD whole = needed;
    EXPECT_FAILS(EnumJobsA(printer, 0, 9, 1, buffer.data(), whole - 1, &needed, &returned), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(buffer, std::vector<BYTE>(whole, 0xee));
    ASSERT_TRUE(EnumJobsA(printer, 0, 9, 1, buffer.data(), whole, &needed, &returned));
    const auto& job = *reinterpret_cast<JOB_INFO_1A*>(buffer.data());
    EXPECT_STREQ(job.pPrinterName, "Office");
    EXPECT_STREQ(job.pDatatype, "RAW");
    EXPECT_EQ(std::string(job.pMachineName).substr(0, 2), "\\\\");
    EXPECT_EQ(job.pStatus, nullptr);
    EXPECT_LE(reinterpret_cast<BYTE*>(job.pPrinterName) + sizeof "Office", buffer.data() + whole);
    FILETIME begun;
    FILETIME submitted;
    ASSERT_TRUE(SystemTimeToFileTime(&before, &begun) && SystemTimeToFileTime(&job.Submitted, &submitted));
    const auto ticks = [](FILETIME time) { return uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime; };
    EXPECT_GE(ticks(submitted), ticks(begun));
    EXPECT_LT(ticks(submitted) - ticks(begun), 600'000'000U); // within a minute

    EXPECT_FAILS(EnumJobsA(printer, 0, 9, 2, nullptr, 0, &needed, &returned), ERROR_INVALID_LEVEL);
    EXPECT_FAILS(SetJobA(printer, job.JobId, 1, buffer.data(), JOB_CONTROL_PAUSE), ERROR_INVALID_LEVEL);
    EXPECT_FAILS(SetJobA(printer, job.JobId, 0, buffer.data(), JOB_CONTROL_PAUSE), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(SetJobA(nullptr, job.JobId, 0, nullptr, JOB_CONTROL_PAUSE), ERROR_INVALID_HANDLE);
    EXPECT_EQ(Start(printer, std::string(1024, 'n')), 0U);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(SpoolerJobs, ADocumentIsAJobWhileItIsSpooled) {
    const HANDLE printer = NewPrinter();
    HANDLE spooler = nullptr;
    ASSERT_EQ(Open("Office", &spooler), DWORD{ERROR_SUCCESS});
    DWORD written = 7;
    char data[] = "data";
    EXPECT_FAILS(WritePrinter(spooler, data, 4, &written), ERROR_SPL_NO_STARTDOC);
    EXPECT_FAILS(EndDocPrinter(spooler), ERROR_SPL_NO_STARTDOC);
    DWORD job = Start(spooler, "long");
    EXPECT_EQ(Start(spooler, "second"), 0U);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_BUSY});
    EXPECT_EQ(Control(printer, job, JOB_CONTROL_PAUSE), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(JobsOf(printer), Line(job, JOB_STATUS_SPOOLING | JOB_STATUS_PAUSED, "long"));
    EXPECT_TRUE(EndDocPrinter(spooler));
    EXPECT_EQ(JobsOf(printer), Line(job, JOB_STATUS_PAUSED, "long"));
    EXPECT_EQ(Control(printer, job, JOB_CONTROL_CANCEL), DWORD{ERROR_SUCCESS});

    // Cancelled while it is spooled: it goes when its spooler is told.
    job = Start(spooler, "unwanted");
    EXPECT_EQ(Control(printer, job, JOB_CONTROL_CANCEL), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(JobsOf(printer), Line(job, JOB_STATUS_SPOOLING | JOB_STATUS_DELETING, "unwanted"));
    EXPECT_FAILS(WritePrinter(spooler, data, 4, &written), ERROR_PRINT_CANCELLED);
    EXPECT_EQ(written, 0U);
    EXPECT_FAILS(EndDocPrinter(spooler), ERROR_PRINT_CANCELLED);
    EXPECT_EQ(JobsOf(printer), "");
    // Given up with its handle.
    EXPECT_NE(Start(spooler, "given up"), 0U);
    EXPECT_TRUE(ClosePrinter(spooler));
    EXPECT_EQ(JobsOf(printer), "");
}

CHILD_PROCESS(SpoolsUntilKilled) {
    HANDLE printer = nullptr;
    Open("Office", &printer);
    child.Say(std::to_string(Start(printer, "unfinished")));
    child.Hear();
    return 0;
}

TEST(SpoolerJobs, AJobWhoseProcessDiedIsGone) {
    const HANDLE printer = NewPrinter();
    TestProcess process("SpoolsUntilKilled");
    const std::string job = process.Hear();
    EXPECT_EQ(JobsOf(printer), Line(static_cast<DWORD>(std::stoul(job)), JOB_STATUS_SPOOLING, "unfinished"));
    process.Kill();
    EXPECT_EQ(JobsOf(printer), "");
    EXPECT_EQ(Control(printer, static_cast<DWORD>(std::stoul(job)), JOB_CONTROL_CANCEL),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_TRUE(std::filesystem::exists(JobFile(job)));
    Print(printer, "next");
    EXPECT_FALSE(std::filesystem::exists(JobFile(job)) || std::filesystem::exists(JobFile(job + ".data")));
}

CHILD_PROCESS(SpoolsAsAnotherUser) {
    if (!BecomeNobody()) return 1;
    HANDLE printer = nullptr;
    Open("Office", &printer);
    const auto job = static_cast<DWORD>(std::stoul(child.arguments[0]));
    std::string said = std::to_string(ReadWholeFile(JobFile(child.arguments[0] + ".data")).size());
    for (const DWORD command : {JOB_CONTROL_PAUSE, JOB_CONTROL_RESUME, JOB_CONTROL_CANCEL})
        said += " " + std::to_string(Control(printer, job, command));
    const auto open = static_cast<DWORD>(std::stoul(child.arguments[1]));
    said += " " + std::to_string(Control(printer, open, JOB_CONTROL_CANCEL));
    HANDLE document = nullptr;
    for (const DWORD others : {job, open})
        said += " " + std::to_string(Open("Office, Job " + std::to_string(others), &document));
    const DWORD own = Print(printer, "own");
    child.Say(said + " " + std::to_string(Control(printer, own, JOB_CONTROL_PAUSE)));
    return 0;
}

TEST_AS_ROOT(SpoolerJobs, AnotherUserHasJobsOfItsOwnAndNoOthers) {
    SetUmask(077);
    const HANDLE printer = NewPrinter();
    const DWORD job = Print(printer, "secret");
    const DWORD open = Print(printer, "open to all");
    std::filesystem::permissions(JobFile(std::to_string(open)), std::filesystem::perms(0666));
    TestProcess other("SpoolsAsAnotherUser", {std::to_string(job), std::to_string(open)});
    EXPECT_EQ(other.Hear(), "0 5 5 5 5 5 5 0");
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_EQ(JobsOf(printer), Line(job, 0, "secret") + Line(open, 0, "open to all") +
                                   Line(open + 1, JOB_STATUS_PAUSED, "own", "nobody"));
    HANDLE document = nullptr;
    const std::string own = "Office, Job " + std::to_string(open + 1);
    EXPECT_EQ(Open(own, &document), DWORD{ERROR_SUCCESS}) << "root may";
    // What its user puts in its place is not read for them.
    std::filesystem::remove(JobFile(std::to_string(open + 1) + ".data"));
    std::filesystem::create_hard_link(JobFile(std::to_string(job) + ".data"),
                                      JobFile(std::to_string(open + 1) + ".data"));
    EXPECT_EQ(Open(own, &document), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Control(printer, open + 1, JOB_CONTROL_CANCEL), DWORD{ERROR_SUCCESS}) << "root may";
}

TEST(SpoolerJobs, AreToldAndRead) {
    const HANDLE printer = NewPrinter();
    const HANDLE changes = FindFirstPrinterChangeNotification(printer, PRINTER_CHANGE_JOB, 0, nullptr);
    ASSERT_NE(changes, INVALID_HANDLE_VALUE);
    const auto told = [&] {
        const bool set = WaitForSingleObject(changes, 0) == WAIT_OBJECT_0;
        DWORD change = 0;
        EXPECT_TRUE(FindNextPrinterChangeNotification(changes, &change, nullptr, nullptr));
        EXPECT_EQ(change, DWORD{PRINTER_CHANGE_JOB});
        return set;
    };
    EXPECT_FALSE(told());
    const DWORD job = Print(printer, "letter", "Dear Anna");
    EXPECT_TRUE(told());
    EXPECT_FALSE(told());
    EXPECT_EQ(Control(printer, job, JOB_CONTROL_PAUSE), DWORD{ERROR_SUCCESS});
    EXPECT_TRUE(told());
    EXPECT_EQ(Control(printer, job, 77), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(told());

    HANDLE document = nullptr;
    ASSERT_EQ(Open("office, Job " + std::to_string(job), &document), DWORD{ERROR_SUCCESS});
    char text[16] = {};
    DWORD read = 0;
    EXPECT_TRUE(ReadPrinter(document, text, 5, &read) && read == 5);
    EXPECT_TRUE(ReadPrinter(document, text + 5, 11, &read) && read == 4);
    EXPECT_STREQ(text, "Dear Anna");
    EXPECT_TRUE(ReadPrinter(document, text, 5, &read) && read == 0);
    EXPECT_FAILS(ReadPrinter(printer, text, 5, &read), ERROR_ACCESS_DENIED);
    EXPECT_EQ(JobsOf(document), "error 5") << "it is a job and no printer";
    for (const char* name : {"Office, Job 99", "Office, Job 0", "Office, Job ", "None, Job 1"})
        EXPECT_NE(Open(name, &document), DWORD{ERROR_SUCCESS}) << name;
    const DWORD spooling = Start(printer, "unfinished");
    EXPECT_EQ(Open("Office, Job " + std::to_string(spooling), &document), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_TRUE(FindClosePrinterChangeNotification(changes));
}

TEST(SpoolerJobs, WhatIsNoJobIsPassedOver) {
    const HANDLE printer = NewPrinter();
    const DWORD job = Print(printer, "letter");
    const std::string good = ReadWholeFile(JobFile(std::to_string(job)));
    std::string unterminated = good;
    unterminated.replace(32, 1024, 1024, 'x');
    std::string otherMark = good;
    otherMark[0] ^= 1;
    int number = 100;
    for (const std::string& bytes : {std::string(), good.substr(0, good.size() - 1), unterminated, otherMark})
        std::ofstream(JobFile(std::to_string(number++))) << bytes;
    for (const Plant plant : {Plant::kLink, Plant::kPipe, Plant::kDirectory})
        EXPECT_TRUE(PlantInPlace(JobFile(std::to_string(number++)), plant, JobFile(std::to_string(job))));
    std::ofstream(JobFile("0007")) << good;
    std::ofstream(JobFile("4294967297")) << good;
    std::ofstream(JobFile("last")) << "\xff\xff\xff\xff";
    EXPECT_EQ(JobsOf(printer), Line(job, 0, "letter"));
    EXPECT_EQ(Control(printer, 102, JOB_CONTROL_CANCEL), DWORD{ERROR_INVALID_PARAMETER});
    const DWORD next = Print(printer, "next");
    EXPECT_NE(next, job) << "numbers begin again behind the highest";
    EXPECT_EQ(Control(printer, next, JOB_CONTROL_CANCEL), DWORD{ERROR_SUCCESS});
}
