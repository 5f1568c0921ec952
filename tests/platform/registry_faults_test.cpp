// The registry when its writer ends or the power fails at any of its system calls, and when it changes between any two
// of a reader's.
#include "base/timings.h"
#include "kit.h"
#include "memory_kit.h"
#include "private_machine.h"
#include "system_calls.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr size_t kSize = 10000; // of each value: some pages

std::string Registry() {
    return PrivateDirectory() + "/state/registry";
}

// Two values of the same digits, in one change.
LSTATUS WritePair(char digit) {
    const std::string text(kSize, digit);
    return Import("REGEDIT4\n[HKLM\\Pair]\n\"a\"=\"" + text + "\"\n\"b\"=\"" + text + "\"\n");
}

// Their digit; '0' when there are none yet, '?' for anything that was never written, '!' for ERROR_BUSY.
char ReadPair() {
    HKEY key = nullptr;
    const LSTATUS status = RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Pair", 0, KEY_READ, &key);
    if (status != ERROR_SUCCESS) return status == ERROR_FILE_NOT_FOUND ? '0' : status == ERROR_BUSY ? '!' : '?';
    const std::string value = GetValue(key, "b").data, whole = Export(key);
    RegCloseKey(key);
    const size_t a = whole.find("\"a\"=\""), b = whole.find("\"b\"=\"");
    if (a == whole.npos || b == whole.npos || value.empty()) return '?';
    const std::string text(kSize, whole[a + 5]), before(kSize, value[0]);
    if (whole.substr(a + 5, kSize) != text || whole.substr(b + 5, kSize) != text || value != before + '\0') return '?';
    return text[0] >= value[0] ? text[0] : '?'; // the value was read first
}

using Files = std::map<std::string, std::string>; // name -> content

// What may be on the disk when the power fails: names and contents are what they were when they were last made durable,
// or what they are now, or of each some pages.
class Disk {
public:
    Disk() { Sync(Registry()); }

    void Look() {
        m_now.clear();
        for (const auto& entry : fs::directory_iterator(Registry())) {
            if (!entry.is_regular_file()) continue;
            m_now[entry.path().filename()] = InodeOf(entry.path());
            m_contents[InodeOf(entry.path())] = ReadWholeFile(entry.path());
        }
    }
    void Sync(const std::string& path) {
        Look();
        if (fs::is_directory(path)) {
            m_names = m_now;
            if (m_durable.empty()) m_durable = m_contents;
        } else {
            m_durable[InodeOf(path)] = ReadWholeFile(path);
        }
    }
    void AddStates(std::set<Files>* states) {
        Look();
        for (const auto* names : {&m_names, &m_now}) {
            std::vector<Files> found(1);
            for (const auto& [name, inode] : *names) {
                std::vector<Files> more;
                for (const Files& files : found)
                    for (const std::string& content : ContentsOf(inode)) {
                        more.push_back(files);
                        more.back()[name] = content;
                    }
                found = std::move(more);
            }
            states->insert(found.begin(), found.end());
        }
    }

private:
    static ino_t InodeOf(const std::string& path) {
        struct stat status {};
        stat(path.c_str(), &status);
        return status.st_ino;
    }
    std::set<std::string> ContentsOf(ino_t inode) {
        const std::string &durable = m_durable[inode], &now = m_contents[inode];
        std::string mixed = durable;
        mixed.resize(std::max(durable.size(), now.size()));
        for (size_t at = 4096; at < now.size(); at += 8192)
            mixed.replace(at, 4096, now.substr(at, 4096));
        return {durable, now, mixed};
    }

    std::map<std::string, ino_t> m_names, m_now;
    std::map<ino_t, std::string> m_durable, m_contents;
};

// As after a restart of the system: other files, of another run.
void Restart(Files files) {
    for (const auto& entry : fs::directory_iterator(Registry()))
        if (entry.is_regular_file()) fs::remove(entry.path());
    for (auto& [name, content] : files) {
        if (name == "HKLM.seq" && content.size() == 40) content[8] ^= 1;
        ReplaceFile(Registry() + "/" + name, content);
    }
}

// Changes the pair from one digit to the next under the eyes of a disk, and fails the power everywhere.
void FailThePower(char before) {
    const char after = static_cast<char>(before + 1);
    Disk disk;
    std::set<Files> states;
    const int result = RunInSteps([&] { return WritePair(after) == ERROR_SUCCESS ? 0 : 1; },
                                  [&](const SystemCall& call) {
                                      if (call.done && call.Syncs())
                                          disk.Sync(fs::read_symlink("/proc/" + std::to_string(call.process) + "/fd/" +
                                                                     std::to_string(call.arguments[0])));
                                      else if (call.Changes() || call.Syncs())
                                          disk.AddStates(&states);
                                      return true;
                                  });
    ASSERT_EQ(result, 0);
    EXPECT_GT(states.size(), 20U);
    std::set<Files> last;
    disk.AddStates(&last);
    for (const Files& files : states) {
        Restart(files);
        // Another user, who may not put anything right, reads no mixture either.
        const char other = RunsAsRoot() ? static_cast<char>(RunForked([] {
            oriel::g_timings.registryBusy = 1;
            return BecomeNobody() ? ReadPair() : 0;
        }))
                                        : '!';
        EXPECT_TRUE(other == '!' || other == before || other == after) << other;
        const char found = ReadPair();
        ASSERT_TRUE(found == before || found == after) << found;
        // A store that is deleted takes its journal along.
        Restart(files);
        fs::remove(Registry() + "/HKLM.sqlite");
        EXPECT_EQ(WritePair('9'), ERROR_SUCCESS);
        EXPECT_EQ(ReadPair(), '9');
    }
    // What was told to be done stays.
    for (const Files& files : last) {
        Restart(files);
        EXPECT_EQ(ReadPair(), after);
    }
}

} // namespace

TEST(RegistryFaults, APowerCutLeavesTheOldOrTheNewState) {
    // The first change of all makes the folders; here they are there.
    ASSERT_EQ(WritePair('0'), ERROR_SUCCESS);
    fs::remove(Registry() + "/HKLM.sqlite");
    FailThePower('0');
    ASSERT_EQ(WritePair('1'), ERROR_SUCCESS);
    FailThePower('1');
}

TEST(RegistryFaults, AWriterKilledAnywhereLeavesTheOldOrTheNewState) {
    ASSERT_EQ(WritePair('1'), ERROR_SUCCESS);
    int result = 1;
    for (int at = 1; result != 0; ++at) {
        ASSERT_EQ(ReadPair(), '1');
        result = RunInSteps([] { return WritePair('2') == ERROR_SUCCESS ? 0 : 1; },
                            [&](const SystemCall& call) { return call.number != at || call.done; });
        ASSERT_TRUE(result == 0 || result == 128 + 9) << result;
        const char found = ReadPair(); // by one who read before, and has pages in its cache
        ASSERT_TRUE(found == '1' || found == '2') << found << " at " << at;
        ASSERT_EQ(RunForked(ReadPair), found) << at;
        ASSERT_EQ(WritePair('1'), ERROR_SUCCESS) << at;
    }
}

TEST(RegistryFaults, AChangeBetweenAnyTwoCallsOfAReaderIsWholeToIt) {
    // At first with nothing in its cache, then with what it read before. The call tells the two apart.
    const auto readTwice = [] {
        const char first = ReadPair();
        getppid();
        const char second = ReadPair();
        return first != '?' && second >= first ? second : 0;
    };
    bool within = true;
    for (int at = 1; within; ++at) {
        ASSERT_EQ(WritePair('1'), ERROR_SUCCESS);
        within = false;
        bool first = true, duringFirst = false;
        const int result = RunInSteps(readTwice, [&](const SystemCall& call) {
            if (call.call == SYS_getppid) first = false;
            if (call.number != at || call.done) return true;
            within = true;
            duringFirst = first;
            // Two changes, so that the second one uses the pages that the first one freed.
            EXPECT_TRUE(WritePair('2') == ERROR_SUCCESS && WritePair('3') == ERROR_SUCCESS);
            return true;
        });
        ASSERT_TRUE(result == '3' || (!duringFirst && (result == '1' || result == '2'))) << result << " at " << at;
    }
}
