// The files of jobs: layout, permissions, creation and removal. State: the files.
#include "spooler/job_files.h"

#include "base/call.h"
#include "base/directories.h"
#include "security/accounts.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <winspool.h>

namespace oriel {
namespace {

constexpr const char* kFolder = "jobs";
// The last number given. Everybody may write it; a wrong value only makes numbers repeat.
constexpr const char* kLastNumberFile = "last";
constexpr std::string_view kDataSuffix = ".data";
constexpr DWORD kHighestJob = 0x7FFFFFFF;
constexpr size_t kMostJobs = 10000;
constexpr uint32_t kMark = 0x626a724f; // "Orjb"

// A job's head file. Each word is written whole and by one side only, so changing it needs no lock.
struct JobHead {
    uint32_t mark;
    uint32_t complete; // 1: EndDocPrinter was called
    uint32_t paused;   // 1
    uint32_t deleting; // 1: cancelled while spooling
    int64_t printer;
    int64_t submittedMs;
    char document[1024]; // terminated texts in the ANSI code page
    char datatype[64];
    char machine[64];
};
static_assert(sizeof(JobHead) == 1184 && offsetof(JobHead, printer) == 16 && offsetof(JobHead, document) == 32);

constexpr uint32_t kSet = 1;
constexpr uint32_t kUnset = 0;

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

// Null when the folder does not exist: nobody has spooled yet.
Folder OpenJobsFolder() {
    const std::string& state = StateDirectory();
    if (state.empty()) return nullptr;
    Descriptor folder(open((state + "/" + kFolder).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    DIR* opened = folder.IsOpen() ? fdopendir(folder.Get()) : nullptr;
    if (opened != nullptr) folder.Release();
    return Folder(opened);
}

// 0 when the name is not that of a head.
DWORD NumberOf(const char* name) {
    DWORD number = 0;
    const char* end = name + std::strlen(name);
    const auto [last, error] = std::from_chars(name, end, number);
    return error == std::errc() && last == end && *name != '0' && number <= kHighestJob ? number : 0;
}

std::string HeadName(DWORD job) {
    return std::to_string(job);
}
std::string DataName(DWORD job) {
    return std::to_string(job).append(kDataSuffix);
}

void RemoveFiles(int folder, DWORD job) {
    unlinkat(folder, HeadName(job).c_str(), 0);
    unlinkat(folder, DataName(job).c_str(), 0);
}

template <size_t size>
bool IsTerminated(const char (&text)[size]) {
    return strnlen(text, size) < size;
}

struct HeadRead {
    JobHead head;
    uid_t owner = 0;
    bool spooling = false; // the head is locked
    bool living = false;   // false: its process died, or it was cancelled
};

// False when the file is not a job.
bool ReadHead(int file, HeadRead* read) {
    struct stat status {};
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1) return false;
    if (pread(file, &read->head, sizeof read->head, 0) != sizeof read->head) return false;
    const JobHead& head = read->head;
    if (head.mark != kMark || !IsTerminated(head.document) || !IsTerminated(head.datatype) ||
        !IsTerminated(head.machine))
        return false;
    read->owner = status.st_uid;
    read->spooling = head.complete != kSet && flock(file, LOCK_SH | LOCK_NB) != 0;
    read->living = head.complete == kSet ? head.deleting != kSet : read->spooling;
    return true;
}

Descriptor OpenHead(int folder, DWORD job, int mode) {
    return Descriptor(openat(folder, HeadName(job).c_str(), mode | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

bool WriteWord(int file, size_t offset, uint32_t value) {
    return pwrite(file, &value, sizeof value, static_cast<off_t>(offset)) == sizeof value;
}

// All numbers with a head.
std::vector<DWORD> JobNumbers(DIR* folder) {
    std::vector<DWORD> numbers;
    while (const dirent* entry = readdir(folder))
        if (const DWORD number = NumberOf(entry->d_name); number != 0) numbers.push_back(number);
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

Job JobOf(DWORD number, const HeadRead& read) {
    Job job;
    job.id = number;
    if (read.head.paused == kSet) job.status |= JOB_STATUS_PAUSED;
    if (read.head.deleting == kSet) job.status |= JOB_STATUS_DELETING;
    if (read.spooling) job.status |= JOB_STATUS_SPOOLING;
    job.submittedMs = read.head.submittedMs;
    job.machine = read.head.machine;
    job.document = read.head.document;
    job.datatype = read.head.datatype;
    job.user = NameOfUser(read.owner);
    if (job.user.empty()) job.user = std::to_string(read.owner);
    return job;
}

DWORD FileError() {
    if (errno == ENOSPC || errno == EDQUOT || errno == EFBIG) return ERROR_DISK_FULL;
    return SystemError(errno);
}

// Removes jobs of this user's processes that died while spooling. Other users' processes do that for theirs.
void SweepDeadJobs(int folder, const std::vector<DWORD>& numbers) {
    for (const DWORD number : numbers) {
        const Descriptor file = OpenHead(folder, number, O_RDONLY);
        HeadRead read;
        if (file.IsOpen() && ReadHead(file.Get(), &read) && read.owner == geteuid() && !read.living)
            RemoveFiles(folder, number);
    }
}

DWORD LastNumber(int folder, Descriptor* file) {
    // Without O_CREAT, which the kernel refuses for another user's file in such a folder.
    *file = Descriptor(openat(folder, kLastNumberFile, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file->IsOpen()) {
        *file = Descriptor(openat(folder, kLastNumberFile, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (file->IsOpen()) fchmod(file->Get(), 0666);
    }
    DWORD last = 0;
    if (!file->IsOpen() || pread(file->Get(), &last, sizeof last, 0) != sizeof last) return 0;
    return std::min(last, kHighestJob);
}

// A number without a file. The data file is created first and claims the number.
DWORD ClaimNumber(int folder, DWORD last, SpooledDocument* document) {
    for (size_t tries = 0; tries <= kMostJobs; ++tries) {
        const DWORD number = last < kHighestJob ? last + 1 : 1;
        last = number;
        constexpr int kNew = O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC;
        Descriptor data(openat(folder, DataName(number).c_str(), kNew, 0600));
        if (!data.IsOpen() && errno == EEXIST) continue;
        if (!data.IsOpen()) return FileError();
        Descriptor head(openat(folder, HeadName(number).c_str(), kNew, 0644));
        if (!head.IsOpen()) {
            const int error = errno;
            unlinkat(folder, DataName(number).c_str(), 0);
            if (error == EEXIST) continue;
            return errno = error, FileError();
        }
        document->head = std::move(head);
        document->data = std::move(data);
        document->job = number;
        return ERROR_SUCCESS;
    }
    return ERROR_NOT_ENOUGH_QUOTA;
}

JobHead HeadOf(int64_t printer, const DocumentTexts& texts) {
    JobHead head{.mark = kMark, .printer = printer};
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    head.submittedMs = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    std::memcpy(head.document, texts.name.data(), texts.name.size());
    std::memcpy(head.datatype, texts.datatype.data(), texts.datatype.size());
    if (gethostname(head.machine, sizeof head.machine - 1) != 0) head.machine[0] = '\0';
    return head;
}

bool IsCancelled(const SpooledDocument& document) {
    struct stat status {};
    uint32_t deleting = kUnset;
    return fstat(document.head.Get(), &status) != 0 || status.st_nlink == 0 ||
           pread(document.head.Get(), &deleting, sizeof deleting, offsetof(JobHead, deleting)) != sizeof deleting ||
           deleting == kSet;
}

} // namespace

DWORD MakeJobsFolder() {
    return StateFolder(kFolder).empty() ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
}

DWORD ListJobFiles(int64_t printer, std::vector<Job>* jobs) {
    const Folder folder = OpenJobsFolder();
    if (folder == nullptr) return ERROR_SUCCESS;
    for (const DWORD number : JobNumbers(folder.get())) {
        const Descriptor file = OpenHead(dirfd(folder.get()), number, O_RDONLY);
        HeadRead read;
        if (!file.IsOpen() || !ReadHead(file.Get(), &read) || !read.living || read.head.printer != printer) continue;
        if (jobs->size() == kMostJobs) break;
        jobs->push_back(JobOf(number, read));
    }
    return ERROR_SUCCESS;
}

DWORD ChangeJobFile(int64_t printer, DWORD job, JobCommand command) {
    const Folder opened = OpenJobsFolder();
    if (opened == nullptr || job == 0) return ERROR_INVALID_PARAMETER;
    const int folder = dirfd(opened.get());
    HeadRead read;
    {
        const Descriptor file = OpenHead(folder, job, O_RDONLY);
        if (!file.IsOpen() || !ReadHead(file.Get(), &read) || !read.living || read.head.printer != printer)
            return ERROR_INVALID_PARAMETER;
    }
    const Descriptor file = OpenHead(folder, job, O_RDWR);
    // Another user's file, or one that is gone by now.
    if (!file.IsOpen()) return errno == ENOENT ? ERROR_INVALID_PARAMETER : FileError();
    if (command == JobCommand::Cancel && !read.spooling) {
        // Others may not remove a head even when its user lets them write it.
        if (unlinkat(folder, HeadName(job).c_str(), 0) != 0) return FileError();
        unlinkat(folder, DataName(job).c_str(), 0);
        return ERROR_SUCCESS;
    }
    const bool done = command == JobCommand::Cancel ? WriteWord(file.Get(), offsetof(JobHead, deleting), kSet)
                                                    : WriteWord(file.Get(), offsetof(JobHead, paused),
                                                                command == JobCommand::Pause ? kSet : kUnset);
    return done ? ERROR_SUCCESS : FileError();
}

DWORD OpenJobDocument(int64_t printer, DWORD job, Descriptor* document) {
    const Folder opened = OpenJobsFolder();
    if (opened == nullptr || job == 0) return ERROR_INVALID_PARAMETER;
    const int folder = dirfd(opened.get());
    const Descriptor head = OpenHead(folder, job, O_RDONLY);
    HeadRead read;
    if (!head.IsOpen() || !ReadHead(head.Get(), &read) || !read.living || read.head.complete != kSet ||
        read.head.printer != printer)
        return ERROR_INVALID_PARAMETER;
    Descriptor data(openat(folder, DataName(job).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!data.IsOpen()) return errno == ENOENT ? ERROR_INVALID_PARAMETER : FileError();
    // Root reads files of other users, who may have put a link to a foreign file in place of the document.
    struct stat status {};
    if (fstat(data.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1 ||
        status.st_uid != read.owner)
        return ERROR_ACCESS_DENIED;
    *document = std::move(data);
    return ERROR_SUCCESS;
}

void RemoveJobsOf(int64_t printer) {
    const Folder folder = OpenJobsFolder();
    if (folder == nullptr) return;
    for (const DWORD number : JobNumbers(folder.get())) {
        const Descriptor file = OpenHead(dirfd(folder.get()), number, O_RDONLY);
        HeadRead read;
        if (file.IsOpen() && ReadHead(file.Get(), &read) && read.head.printer == printer)
            RemoveFiles(dirfd(folder.get()), number);
    }
}

DWORD StartDocument(int64_t printer, const DocumentTexts& texts, SpooledDocument* document) {
    if (texts.name.size() >= sizeof JobHead::document || texts.datatype.size() >= sizeof JobHead::datatype)
        return ERROR_INVALID_PARAMETER;
    if (const DWORD error = MakeJobsFolder(); error != ERROR_SUCCESS) return error;
    const Folder opened = OpenJobsFolder();
    if (opened == nullptr) return FileError();
    const int folder = dirfd(opened.get());
    const std::vector<DWORD> numbers = JobNumbers(opened.get());
    SweepDeadJobs(folder, numbers);
    if (numbers.size() >= kMostJobs) return ERROR_NOT_ENOUGH_QUOTA;
    Descriptor lastFile;
    DWORD last = LastNumber(folder, &lastFile);
    if (!numbers.empty()) last = std::max(last, numbers.back());
    if (const DWORD error = ClaimNumber(folder, last, document); error != ERROR_SUCCESS) return error;
    const JobHead head = HeadOf(printer, texts);
    // Nobody else locks an empty head.
    if (flock(document->head.Get(), LOCK_EX | LOCK_NB) != 0 || fchmod(document->head.Get(), 0644) != 0 ||
        pwrite(document->head.Get(), &head, sizeof head, 0) != sizeof head) {
        const DWORD error = FileError();
        DropDocument(*document);
        return error;
    }
    if (lastFile.IsOpen()) WriteWord(lastFile.Get(), 0, document->job);
    return ERROR_SUCCESS;
}

DWORD AppendToDocument(const SpooledDocument& document, const void* bytes, DWORD size, DWORD* written) {
    if (IsCancelled(document)) return ERROR_PRINT_CANCELLED;
    while (*written < size) {
        const ssize_t count = write(document.data.Get(), static_cast<const BYTE*>(bytes) + *written, size - *written);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EFAULT) return ERROR_NOACCESS;
        if (count <= 0) return FileError();
        *written += static_cast<DWORD>(count);
    }
    return ERROR_SUCCESS;
}

DWORD EndDocument(SpooledDocument& document) {
    const bool cancelled = IsCancelled(document);
    // A job that is cancelled right after this check is complete and deleting, which is as good as removed.
    if (cancelled || !WriteWord(document.head.Get(), offsetof(JobHead, complete), kSet)) {
        const DWORD error = cancelled ? ERROR_PRINT_CANCELLED : FileError();
        DropDocument(document);
        return error;
    }
    document = SpooledDocument();
    return ERROR_SUCCESS;
}

void DropDocument(SpooledDocument& document) {
    if (document.job == 0) return;
    if (const Folder folder = OpenJobsFolder(); folder != nullptr) {
        // The number may belong to another job by now, if this one was removed.
        struct stat own {};
        if (fstat(document.head.Get(), &own) == 0 && own.st_nlink != 0) RemoveFiles(dirfd(folder.get()), document.job);
    }
    document = SpooledDocument();
}

} // namespace oriel
