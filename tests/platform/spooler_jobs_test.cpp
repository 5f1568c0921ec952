// Jobs of the embedded spool: what is listed, who may change it, what is left of jobs whose process died.
#include "private_machine.h"
#include "spooler_kit.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

HANDLE NewPrinter(const std::string& name = "Office") {
    HANDLE printer = nullptr;
    EXPECT_EQ(Add(name, "Driver", "LPT1:", 0, &printer), DWORD{ERROR_SUCCESS});
    return printer;
}

std::string JobFile(DWORD job, const char* suffix = "") {
    return PrivateDirectory() + "/state/jobs/" + std::to_string(job) + suffix;
}

} // namespace

TEST(SpoolerJobs, AreListedPausedResumedAndCancelled) {
    const HANDLE printer = NewPrinter();
    const HANDLE other = NewPrinter("Other");
    EXPECT_EQ(JobsOf(printer), "");
    const DWORD first = Print(printer, "letter");
    const DWORD elsewhere = Print(other, "elsewhere");
    const DWORD second = Print(printer, std::string(1023, 'n'), std::string(100000, 'x'));
    EXPECT_EQ(ReadWholeFile(JobFile(second, ".data")), std::string(100000, 'x'));
    const std::string line = Line(second, 0, std::string(1023, 'n'));
    EXPECT_EQ(JobsOf(printer, 1, 7), line);
    EXPECT_EQ(JobsOf(printer, 0, 1), Line(first, 0, "letter"));
    EXPECT_EQ(JobsOf(printer, 9), "");
    // Whoever watches the printer's jobs is told of commands to them.
    const HANDLE changes = FindFirstPrinterChangeNotification(printer, PRINTER_CHANGE_JOB, 0, nullptr);
    const auto told = [&] {
        const bool isSet = Look(changes) == WAIT_OBJECT_0;
        FindNextPrinterChangeNotification(changes, nullptr, nullptr, nullptr);
        return isSet;
    };
    EXPECT_FALSE(told());
    for (const auto& [command, status] : {std::pair{DWORD{JOB_CONTROL_PAUSE}, DWORD{JOB_STATUS_PAUSED}},
                                          {JOB_CONTROL_PAUSE, JOB_STATUS_PAUSED},
                                          {JOB_CONTROL_RESUME, 0}}) {
        EXPECT_EQ(Control(printer, first, command), DWORD{ERROR_SUCCESS});
        EXPECT_TRUE(told());
        EXPECT_EQ(Control(printer, first, 77), DWORD{ERROR_INVALID_PARAMETER});
        EXPECT_FALSE(told());
        EXPECT_EQ(JobsOf(printer), Line(first, status, "letter") + line);
    }
    EXPECT_TRUE(FindClosePrinterChangeNotification(changes));
    EXPECT_EQ(Control(printer, elsewhere, JOB_CONTROL_CANCEL), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Control(printer, second, JOB_CONTROL_DELETE), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(Control(printer, second, JOB_CONTROL_CANCEL), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(fs::exists(JobFile(second, ".data")));
    EXPECT_GT(Print(printer, "next"), second) << "a number is not used again";
    EXPECT_EQ(JobsOf(other), Line(elsewhere, 0, "elsewhere"));

    EXPECT_TRUE(DeletePrinter(other));
    EXPECT_FALSE(fs::exists(JobFile(elsewhere)));
    EXPECT_EQ(JobsOf(other), "error 1905");
    EXPECT_EQ(Control(other, elsewhere, JOB_CONTROL_PAUSE), DWORD{ERROR_PRINTER_DELETED});
    EXPECT_FAILS(Start(other, "late"), ERROR_PRINTER_DELETED);
}

TEST(SpoolerJobs, RecordsTellWhatIsKnown) {
    const HANDLE printer = NewPrinter();
    const DWORD number = Print(printer, "letter");
    DWORD needed = 7, returned = 7;
    EXPECT_FAILS(EnumJobsA(printer, 0, 9, 1, nullptr, 0, &needed, &returned), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(returned, 0U);
    const DWORD whole = needed;
    std::vector<BYTE> buffer(whole);
    EXPECT_FAILS(EnumJobsA(printer, 0, 9, 1, buffer.data(), whole - 1, &needed, &returned), ERROR_INSUFFICIENT_BUFFER);
    ASSERT_TRUE(EnumJobsA(printer, 0, 9, 1, buffer.data(), whole, &needed, &returned));
    const auto& job = *reinterpret_cast<JOB_INFO_1A*>(buffer.data());
    EXPECT_EQ(job.pPrinterName + std::string(job.pDatatype) + std::string(job.pMachineName, 2), "OfficeRAW\\\\");
    EXPECT_EQ(job.pStatus, nullptr);
    EXPECT_LE(reinterpret_cast<BYTE*>(job.pPrinterName) + sizeof "Office", buffer.data() + whole);

    EXPECT_FAILS(EnumJobsA(printer, 0, 9, 2, nullptr, 0, &needed, &returned), ERROR_INVALID_LEVEL);
    EXPECT_FAILS(SetJobA(printer, number, 1, buffer.data(), JOB_CONTROL_PAUSE), ERROR_INVALID_LEVEL);
    EXPECT_FAILS(Start(printer, std::string(1024, 'n')), ERROR_INVALID_PARAMETER);
}

CHILD_PROCESS(SpoolsUntilKilled) {
    child.Say(std::to_string(Start(Opened("Office"), "unfinished")));
    child.Hear();
    return 0;
}

TEST(SpoolerJobs, ADocumentIsAJobWhileItIsSpooled) {
    const HANDLE printer = NewPrinter();
    const HANDLE spooler = Opened("Office");
    DWORD written = 7;
    char data[] = "data";
    EXPECT_FAILS(WritePrinter(spooler, data, 4, &written), ERROR_SPL_NO_STARTDOC);
    EXPECT_FAILS(EndDocPrinter(spooler), ERROR_SPL_NO_STARTDOC);
    DWORD job = Start(spooler, "long");
    EXPECT_FAILS(Start(spooler, "second"), ERROR_BUSY);
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
    // Its process dies.
    TestProcess process("SpoolsUntilKilled");
    job = static_cast<DWORD>(std::stoul(process.Hear()));
    EXPECT_EQ(JobsOf(printer), Line(job, JOB_STATUS_SPOOLING, "unfinished"));
    process.Kill();
    EXPECT_EQ(JobsOf(printer), "");
    EXPECT_EQ(Control(printer, job, JOB_CONTROL_CANCEL), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_TRUE(fs::exists(JobFile(job)));
    Print(printer, "next");
    EXPECT_FALSE(fs::exists(JobFile(job)) || fs::exists(JobFile(job, ".data")));
}

CHILD_PROCESS(SpoolsAsAnotherUser) {
    if (!BecomeNobody()) return 1;
    const HANDLE printer = Opened("Office");
    HANDLE document = nullptr;
    std::string said;
    for (const std::string& argument : child.arguments) {
        const auto job = static_cast<DWORD>(std::stoul(argument));
        for (const DWORD command : {JOB_CONTROL_PAUSE, JOB_CONTROL_RESUME, JOB_CONTROL_CANCEL})
            said += std::to_string(Control(printer, job, command)) + " ";
        said += std::to_string(Open("Office, Job " + argument, &document)) + ", ";
    }
    said += ReadWholeFile(JobFile(static_cast<DWORD>(std::stoul(child.arguments[0])), ".data"));
    child.Say(said + std::to_string(Control(printer, Print(printer, "own"), JOB_CONTROL_PAUSE)));
    return 0;
}

TEST_AS_ROOT(SpoolerJobs, AnotherUserHasJobsOfItsOwnAndNoOthers) {
    umask(077);
    const HANDLE printer = NewPrinter();
    const DWORD job = Print(printer, "secret"), open = Print(printer, "open to all"), own = open + 1;
    fs::permissions(JobFile(open), fs::perms(0666));
    TestProcess other("SpoolsAsAnotherUser", {std::to_string(job), std::to_string(open)});
    EXPECT_EQ(other.Hear(), "5 5 5 5, 5 5 5 5, 0"); // also of a job whose file everybody may write
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_EQ(JobsOf(printer),
              Line(job, 0, "secret") + Line(open, 0, "open to all") + Line(own, JOB_STATUS_PAUSED, "own", "nobody"));
    Opened("Office, Job " + std::to_string(own)); // root may
    // What its user puts in its place is not read for them.
    fs::remove(JobFile(own, ".data"));
    fs::create_hard_link(JobFile(job, ".data"), JobFile(own, ".data"));
    HANDLE document = nullptr;
    EXPECT_EQ(Open("Office, Job " + std::to_string(own), &document), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Control(printer, own, JOB_CONTROL_CANCEL), DWORD{ERROR_SUCCESS}) << "root may";
}

TEST(SpoolerJobs, AUserHasAShareOfTheSpool) {
    const HANDLE printer = NewPrinter();
    const DWORD first = Print(printer, "letter");
    for (DWORD copy = first + 1; copy <= 1000; ++copy)
        fs::copy(JobFile(first), JobFile(copy));
    EXPECT_FAILS(Start(printer, "one too many"), ERROR_NOT_ENOUGH_QUOTA);
    EXPECT_EQ(Control(printer, 1000, JOB_CONTROL_CANCEL), DWORD{ERROR_SUCCESS});
    fs::resize_file(JobFile(first, ".data"), (4ULL << 30) - 2);
    EXPECT_NE(Start(printer, "too long"), 0U);
    char data[] = "data";
    DWORD written = 7;
    EXPECT_FAILS(WritePrinter(printer, data, 4, &written), ERROR_NOT_ENOUGH_QUOTA);
    EXPECT_TRUE(WritePrinter(printer, data, 2, &written));
    EXPECT_TRUE(EndDocPrinter(printer));
}

TEST(SpoolerJobs, WhatNobodyFinishesIsRemoved) {
    const HANDLE printer = NewPrinter();
    const DWORD job = Print(printer, "letter");
    const auto isThereAfter = [&](const std::string& name, int seconds, int user = -1) {
        const std::string path = PrivateDirectory() + "/state/jobs/" + name;
        if (!fs::exists(path)) ReplaceFile(path, ReadWholeFile(JobFile(job)));
        EXPECT_TRUE(user < 0 || chown(path.c_str(), static_cast<uid_t>(user), 0) == 0);
        fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(seconds));
        EXPECT_EQ(Control(printer, Print(printer, "next"), JOB_CONTROL_CANCEL), DWORD{ERROR_SUCCESS});
        return fs::exists(path);
    };
    EXPECT_TRUE(isThereAfter("500.data", 0)) << "its head may be made at this moment";
    EXPECT_FALSE(isThereAfter("501.data", 9));
    ASSERT_TRUE(PlantInPlace(JobFile(502), Plant::kPipe));
    EXPECT_TRUE(isThereAfter("502", 0));
    EXPECT_FALSE(isThereAfter("502", 9));
    EXPECT_TRUE(isThereAfter(std::to_string(job), 10 * 86400));
    if (!RunsAsRoot()) return;
    constexpr int kNoUser = 543210, kNobody = 65534;
    EXPECT_TRUE(isThereAfter("600", 6 * 86400, kNoUser));
    EXPECT_FALSE(isThereAfter("600", 8 * 86400, kNoUser));
    EXPECT_TRUE(isThereAfter("601", 8 * 86400, kNobody)) << "its user is there";
    EXPECT_TRUE(isThereAfter("a note", 9)) << "root's";
    EXPECT_FALSE(isThereAfter("another note", 0, kNobody));
}

// Fills the folder for all with what is in the way of others.
CHILD_PROCESS(IsInTheWay) {
    if (!BecomeNobody()) return 1;
    const std::string jobs = PrivateDirectory() + "/state/jobs/", job = child.arguments[0];
    const std::string good = ReadWholeFile(jobs + job);
    for (int number = 1000; number < 3500; ++number)
        std::ofstream(jobs + std::to_string(number)) << good;
    for (const Plant plant : kPlants)
        PlantInPlace(jobs + std::to_string(50 + int(plant)), plant, "/etc/passwd");
    child.Say(LockWholeFile(jobs + job, true) ? "ready" : "no lock");
    const int last = std::stoi(child.Hear());
    for (int number = last; number < last + 40; ++number)
        fs::create_directory(jobs + std::to_string(number) + ".data");
    child.Say("taken");
    child.Hear();
    return 0;
}

TEST_AS_ROOT(SpoolerJobs, AnotherUserIsInNobodysWay) {
    const HANDLE printer = NewPrinter();
    const DWORD before = Print(printer, "before");
    EXPECT_NE(Start(printer, "slow"), 0U);
    const std::string jobs = PrivateDirectory() + "/state/jobs/", kept = PrivateDirectory() + "/kept";
    TestProcess other = Ready("IsInTheWay", {std::to_string(before)});
    // A file that only root may write, under another name.
    ReplaceFile(kept, "kept");
    ASSERT_TRUE(PlantInPlace(jobs + "last", Plant::kHardLink, kept));
    const double begin = NowMs();
    DWORD written = 0;
    EXPECT_TRUE(WritePrinter(printer, const_cast<char*>("data"), 4, &written) && EndDocPrinter(printer));
    const DWORD next = Print(printer, "next");
    std::vector<BYTE> buffer(1 << 21);
    DWORD needed = 0, returned = 0;
    EXPECT_TRUE(EnumJobsA(printer, 0, 9999, 1, buffer.data(), DWORD(buffer.size()), &needed, &returned));
    EXPECT_EQ(returned, 3 + 1000 - std::size(kPlants)) << "the share of the other user, and all others";
    for (const DWORD job : {before, next})
        EXPECT_EQ(Control(printer, job, JOB_CONTROL_CANCEL), DWORD{ERROR_SUCCESS});
    EXPECT_LT(NowMs() - begin, 2000);
    EXPECT_EQ(ReadWholeFile(kept), "kept");
    const auto left = std::distance(fs::directory_iterator(jobs), {});
    EXPECT_LT(left, 2100) << "what exceeds the double share is removed";
    EXPECT_EQ(other.Ask(std::to_string(next)), "taken");
    EXPECT_NE(Start(printer, "behind all numbers that are taken"), 0U) << GetLastError();
}

TEST(SpoolerJobs, WhatIsNoJobIsPassedOver) {
    const HANDLE printer = NewPrinter();
    const DWORD job = Print(printer, "letter");
    const std::string good = ReadWholeFile(JobFile(job)), jobs = PrivateDirectory() + "/state/jobs/";
    std::string unterminated = good, otherMark = good;
    unterminated.replace(32, 1024, 1024, 'x');
    otherMark[0] ^= 1;
    DWORD number = 100;
    for (const std::string& bytes : {std::string(), good.substr(0, good.size() - 1), unterminated, otherMark})
        ReplaceFile(JobFile(number++), bytes);
    for (const Plant plant : kPlants)
        EXPECT_TRUE(PlantInPlace(JobFile(number++), plant, JobFile(job)));
    ReplaceFile(jobs + "0007", good);
    ReplaceFile(jobs + "last", "\xff\xff\xff\xff");
    EXPECT_EQ(JobsOf(printer), Line(job, 0, "letter"));
    EXPECT_EQ(Control(printer, 102, JOB_CONTROL_CANCEL), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_NE(Print(printer, "next"), job) << "numbers begin again behind the highest";
    // A second name of the file that counts them, which everybody may write, does not stop the count.
    ASSERT_EQ(link((jobs + "last").c_str(), (PrivateDirectory() + "/second").c_str()), 0);
    const DWORD anew = Print(printer, "anew");
    EXPECT_EQ(Control(printer, anew, JOB_CONTROL_CANCEL), DWORD{ERROR_SUCCESS});
    EXPECT_GT(Print(printer, "after it"), anew);
}
