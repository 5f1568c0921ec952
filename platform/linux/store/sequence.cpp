// The file of a store's number: its record, and how it is read and written. State: the identity of this run of the
// system, read once.
#include "store/sequence.h"

#include "store/files.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <winerror.h>

namespace oriel {
namespace {

constexpr uint64_t kMark = 0x716573'6c6569726f; // "orielseq"

using BootId = std::array<unsigned char, 16>;

struct SequenceRecord {
    uint64_t mark;
    BootId boot; // the run of the system in which it was written; zeros when that is unknown
    uint64_t number;
    uint64_t inverse; // of the number: a record that is half written does not fit
};
static_assert(sizeof(SequenceRecord) == 40 && offsetof(SequenceRecord, number) == 24);

// From the text "xxxxxxxx-xxxx-..."; zeros when it cannot be read.
BootId ReadBootId() {
    BootId id{};
    char text[36];
    const Descriptor file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen() || read(file.Get(), text, sizeof text) != sizeof text) return id;
    size_t digit = 0;
    for (const char c : text) {
        if (c == '-' || digit == 2 * id.size()) continue;
        const auto value = static_cast<unsigned char>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
        id[digit / 2] = static_cast<unsigned char>(id[digit / 2] << 4 | (value & 15));
        ++digit;
    }
    return id;
}

const BootId& ThisBoot() {
    static const BootId id = ReadBootId();
    return id;
}

// Not used before, also when the record with the last one is lost.
uint64_t NewNumber() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return (static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec)) & ~uint64_t{1};
}

// False for what is no record.
bool ReadRecord(int file, SequenceRecord* record) {
    // A record may be written at this moment.
    for (int tries = 0; tries < 3; ++tries) {
        if (pread(file, record, sizeof *record, 0) != sizeof *record) return false;
        if (record->mark == kMark && record->inverse == ~record->number) return true;
    }
    return false;
}

} // namespace

SequenceState Sequence::Read() {
    struct stat status {};
    if (!m_file.IsOpen() || fstat(m_file.Get(), &status) != 0 || status.st_nlink != 1) {
        m_file.Close();
        if (OpenFile(m_path, O_RDONLY, 0, &m_file) != ERROR_SUCCESS) m_file.Close();
    }
    SequenceRecord record;
    // What was read of the store before stays before.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (!m_file.IsOpen() || !ReadRecord(m_file.Get(), &record)) return {};
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return {record.number, record.boot == ThisBoot() && record.boot != BootId{}};
}

DWORD Sequence::OpenToWrite(mode_t mode) {
    const DWORD error = OpenFile(m_path, O_RDWR | O_CREAT, mode, &m_file);
    SequenceRecord record;
    if (error != ERROR_SUCCESS || ReadRecord(m_file.Get(), &record)) return error;
    if (ftruncate(m_file.Get(), sizeof record) != 0) return FileError(errno);
    return Write(NewNumber());
}

DWORD Sequence::Write(uint64_t number) {
    const SequenceRecord record{kMark, ThisBoot(), number, ~number};
    std::atomic_thread_fence(std::memory_order_seq_cst);
    errno = 0;
    if (pwrite(m_file.Get(), &record, sizeof record, 0) != sizeof record) return FileError(errno);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return ERROR_SUCCESS;
}

} // namespace oriel
