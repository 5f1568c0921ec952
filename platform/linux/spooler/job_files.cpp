// The files of jobs: layout, permissions, shares of users, creation and removal. State: the files; when this process
// last removed what others left.
#include "spooler/job_files.h"

#include "base/call.h"
#include "base/directories.h"
#include "base/litter.h"
#include "security/accounts.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <memory>
#include <sys/random.h>
#include <sys/stat.h>
#include <winspool.h>

namespace oriel {
namespace {

constexpr const char* kFolder = "jobs";
// The last number given. Everybody may write it; a wrong value only makes numbers repeat.
constexpr std::string_view kLastNumberFile = "last";
constexpr std::string_view kDataSuffix = ".data";
constexpr DWORD kHighestJob = 0x7FFFFFFF;
// What a user may have in the spool: jobs, and bytes of documents. Who goes around these calls can have more, as in any
// folder for all. It does not count, and what exceeds the double is removed by root.
constexpr size_t kJobsOfUser = 1000;
constexpr int64_t kBytesOfUser = int64_t{4} << 30;
// After this time without a change, what nobody finishes is removed, and a job whose user does not exist any more.
// Beginning a job takes microseconds; who was stopped meanwhile gets an error. Accounts may be out of reach for a
// while, so jobs wait long.
constexpr int64_t kUnfinishedSeconds = 4;
constexpr int64_t kDepartedSeconds = 7 * 86400;
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

bool IsMineOrRoots(uid_t owner) {
    return owner == geteuid() || owner == 0;
}

// Null when the folder does not exist: nobody has spooled yet.
Folder OpenJobsFolder() {
    const std::string& state = StateDirectory();
    if (state.empty()) return nullptr;
    Descriptor folder(open((state + "/" + kFolder).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    // Who owns the folder decides what is in it.
    const bool isOurs = folder.IsOpen() && fstat(folder.Get(), &status) == 0 && IsMineOrRoots(status.st_uid);
    DIR* opened = isOurs ? fdopendir(folder.Get()) : nullptr;
    if (opened != nullptr) folder.Release();
    return Folder(opened);
}

// 0 when the name is not that of a head.
DWORD NumberOf(std::string_view name) {
    DWORD number = 0;
    const char* end = name.data() + name.size();
    const auto [last, error] = std::from_chars(name.data(), end, number);
    return error == std::errc() && last == end && name[0] != '0' && number <= kHighestJob ? number : 0;
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

// A lock for writing, which only those can take who may write the file. To ask for it takes none.
bool LockHead(int file) {
    struct flock lock {
        .l_type = F_WRLCK, .l_whence = SEEK_SET
    };
    return fcntl(file, F_OFD_SETLK, &lock) == 0;
}
bool IsHeadLocked(int file) {
    struct flock lock {
        .l_type = F_RDLCK, .l_whence = SEEK_SET
    };
    return fcntl(file, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
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
    read->spooling = head.complete != kSet && IsHeadLocked(file);
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

struct Share {
    size_t jobs = 0;
    int64_t bytes = 0;
    bool Exceeds(int64_t times) const {
        return jobs > kJobsOfUser * static_cast<size_t>(times) || bytes > kBytesOfUser * times;
    }
};

// Of each user, while the jobs are walked through by number.
using Shares = std::map<uid_t, Share>;

bool LookAt(int folder, const std::string& name, struct stat* status) {
    return fstatat(folder, name.c_str(), status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool MayRemove(const struct stat& status) {
    return geteuid() == 0 || status.st_uid == geteuid();
}

bool IsOlder(const struct stat& status, int64_t seconds) {
    // A time in the future is wrong, and so nobody's.
    return std::abs(static_cast<int64_t>(time(nullptr)) - status.st_mtime) > seconds;
}

// Whether a job may go: its process died, its user is gone, or its user has too many. What is no job goes when nobody
// is about to make one of it.
bool IsLeft(int folder, DWORD number, const struct stat& status, const Share& share) {
    const Descriptor file = OpenHead(folder, number, O_RDONLY);
    HeadRead read;
    if (!file.IsOpen() || !ReadHead(file.Get(), &read)) return IsOlder(status, kUnfinishedSeconds);
    if (!read.living) return true;
    if (geteuid() != 0 || read.owner == 0) return false;
    return share.Exceeds(2) || (IsOlder(status, kDepartedSeconds) && NameOfUser(read.owner).empty());
}

// Removes what is left of jobs: root that of everybody, others theirs. Returns the share that this user has then.
Share Sweep(DIR* folder, std::vector<DWORD>* numbers) {
    const int directory = dirfd(folder);
    Shares shares;
    rewinddir(folder);
    std::vector<std::string> others;
    while (const dirent* entry = readdir(folder)) {
        const std::string_view name = entry->d_name;
        if (const DWORD number = NumberOf(name); number != 0)
            numbers->push_back(number);
        else if (name != "." && name != ".." && name != kLastNumberFile)
            others.emplace_back(name);
    }
    std::sort(numbers->begin(), numbers->end());
    std::erase_if(*numbers, [&](DWORD number) {
        struct stat head {};
        struct stat data {};
        if (!LookAt(directory, HeadName(number), &head)) return true;
        Share& share = shares[head.st_uid];
        Share with = share;
        ++with.jobs;
        if (LookAt(directory, DataName(number), &data) && data.st_uid == head.st_uid) with.bytes += data.st_size;
        const bool isLeft = MayRemove(head) && IsLeft(directory, number, head, with);
        if (isLeft) {
            RemoveLitter(directory, HeadName(number));
            RemoveLitter(directory, DataName(number));
        } else {
            share = with;
        }
        return isLeft;
    });
    for (const std::string& name : others) {
        struct stat status {};
        if (!LookAt(directory, name, &status) || !MayRemove(status)) continue;
        const bool isData = name.ends_with(kDataSuffix);
        const DWORD number = isData ? NumberOf(name.substr(0, name.size() - kDataSuffix.size())) : 0;
        if (number != 0 && !IsOlder(status, kUnfinishedSeconds)) continue;
        const bool isRoots =
            status.st_uid == 0 && (status.st_mode & S_IWOTH) == 0; // not a second name of the last number
        // A document without a head; and what has no business here, unless root put it there.
        if (number != 0 ? !std::binary_search(numbers->begin(), numbers->end(), number)
                        : !isRoots || IsHalfRemoved(name))
            RemoveLitter(directory, name);
    }
    return shares[geteuid()];
}

// Root's printer sides look at the jobs all the time.
void SweepForAll(DIR* folder) {
    static std::atomic<time_t> last = 0;
    constexpr time_t kPauseSeconds = 10;
    const time_t now = time(nullptr);
    if (geteuid() != 0 || now - last.exchange(now) < kPauseSeconds) return;
    std::vector<DWORD> numbers;
    Sweep(folder, &numbers);
    rewinddir(folder);
}

DWORD LastNumber(int folder, Descriptor* file) {
    // Without O_CREAT, which the kernel refuses for another user's file in such a folder.
    const char* name = kLastNumberFile.data();
    // Everybody may write the file, and so may give it a second name, somewhere else. Then it is made anew.
    struct stat linked {};
    if (LookAt(folder, std::string(kLastNumberFile), &linked) && S_ISREG(linked.st_mode) && linked.st_nlink > 1 &&
        MayRemove(linked))
        unlinkat(folder, name, 0);
    *file = Descriptor(openat(folder, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file->IsOpen()) {
        *file = Descriptor(openat(folder, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (file->IsOpen()) fchmod(file->Get(), 0666);
    }
    // Whoever made it may have made it a second name of a file that only we may write.
    struct stat status {};
    if (!file->IsOpen() || fstat(file->Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1) {
        file->Close();
        return 0;
    }
    DWORD last = 0;
    if (pread(file->Get(), &last, sizeof last, 0) != sizeof last) return 0;
    return std::min(last, kHighestJob);
}

// A number without a file. The data file is created first and claims the number.
DWORD ClaimNumber(int folder, DWORD last, SpooledDocument* document) {
    // Somebody may have taken the numbers that come next, but nobody can take all.
    constexpr int kInOrder = 16;
    for (int tries = 0; tries < 2 * kInOrder; ++tries) {
        DWORD number = last < kHighestJob ? last + 1 : 1;
        if (tries >= kInOrder && getrandom(&number, sizeof number, GRND_NONBLOCK) == sizeof number)
            number = 1 + number % kHighestJob;
        last = number;
        constexpr int kNew = O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC;
        Descriptor data(openat(folder, DataName(number).c_str(), kNew, 0600));
        if (!data.IsOpen() && errno == EEXIST) continue;
        if (!data.IsOpen()) return FileError();
        Descriptor head(openat(folder, HeadName(number).c_str(), kNew, 0600));
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

void TidyJobs() {
    std::vector<DWORD> numbers;
    if (const Folder folder = OpenJobsFolder(); folder != nullptr) Sweep(folder.get(), &numbers);
}

DWORD ListJobFiles(int64_t printer, std::vector<Job>* jobs) {
    const Folder folder = OpenJobsFolder();
    if (folder == nullptr) return ERROR_SUCCESS;
    SweepForAll(folder.get());
    Shares shares;
    for (const DWORD number : JobNumbers(folder.get())) {
        struct stat status {};
        // Whoever has too many costs no more than this.
        if (!LookAt(dirfd(folder.get()), HeadName(number), &status) || ++shares[status.st_uid].jobs > kJobsOfUser)
            continue;
        const Descriptor file = OpenHead(dirfd(folder.get()), number, O_RDONLY);
        HeadRead read;
        if (!file.IsOpen() || !ReadHead(file.Get(), &read) || !read.living || read.head.printer != printer) continue;
        jobs->push_back(JobOf(number, read));
    }
    return ERROR_SUCCESS;
}

DWORD ChangeJobFile(int64_t printer, DWORD job, JobCommand command) {
    const Folder opened = OpenJobsFolder();
    if (opened == nullptr || job == 0) return ERROR_INVALID_PARAMETER;
    const int folder = dirfd(opened.get());
    const auto isJob = [&](const Descriptor& file, HeadRead* read) {
        return file.IsOpen() && ReadHead(file.Get(), read) && read->living && read->head.printer == printer;
    };
    HeadRead read;
    if (!isJob(OpenHead(folder, job, O_RDONLY), &read)) return ERROR_INVALID_PARAMETER;
    // Also when its user lets others write the file.
    if (geteuid() != 0 && read.owner != geteuid()) return ERROR_ACCESS_DENIED;
    const Descriptor file = OpenHead(folder, job, O_RDWR);
    if (!file.IsOpen()) return errno == ENOENT ? ERROR_INVALID_PARAMETER : FileError();
    // Its user may have put something else in its place by now.
    if (!isJob(file, &read)) return ERROR_INVALID_PARAMETER;
    if (command == JobCommand::Cancel && !read.spooling) {
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
    std::vector<DWORD> numbers;
    Share share = Sweep(opened.get(), &numbers);
    ++share.jobs;
    if (share.Exceeds(1)) return ERROR_NOT_ENOUGH_QUOTA;
    Descriptor lastFile;
    DWORD last = LastNumber(folder, &lastFile);
    if (!numbers.empty()) last = std::max(last, numbers.back());
    if (const DWORD error = ClaimNumber(folder, last, document); error != ERROR_SUCCESS) return error;
    document->room = static_cast<uint64_t>(kBytesOfUser - share.bytes);
    const JobHead head = HeadOf(printer, texts);
    // Others see the head once it is locked.
    if (!LockHead(document->head.Get()) || fchmod(document->head.Get(), 0644) != 0 ||
        pwrite(document->head.Get(), &head, sizeof head, 0) != sizeof head) {
        const DWORD error = FileError();
        DropDocument(*document);
        return error;
    }
    if (lastFile.IsOpen()) WriteWord(lastFile.Get(), 0, document->job);
    return ERROR_SUCCESS;
}

DWORD AppendToDocument(SpooledDocument& document, const void* bytes, DWORD size, DWORD* written) {
    if (IsCancelled(document)) return ERROR_PRINT_CANCELLED;
    if (size > document.room) return ERROR_NOT_ENOUGH_QUOTA;
    while (*written < size) {
        const ssize_t count = write(document.data.Get(), static_cast<const BYTE*>(bytes) + *written, size - *written);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EFAULT) return ERROR_NOACCESS;
        if (count <= 0) return FileError();
        *written += static_cast<DWORD>(count);
        document.room -= static_cast<uint64_t>(count);
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
