#include "base/litter.h"

#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oriel {
namespace {

constexpr size_t kMostAtOnce = 20000;
constexpr const char* kBin = ".departed-";

Descriptor OpenFolder(int parent, const std::string& name) {
    return Descriptor(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Removes one level of each directory at a time, and moves its directories up: they may be nested as deep as one likes,
// and nobody else can exchange what lies on the way.
void Empty(const Descriptor& bin) {
    size_t done = 0;
    while (done < kMostAtOnce) {
        const std::vector<std::string> names = NamesIn(bin.Get());
        if (names.empty()) return;
        for (const std::string& name : names) {
            const Descriptor directory = OpenFolder(bin.Get(), name);
            for (const std::string& inside : NamesIn(directory.Get())) {
                const std::string fresh = std::to_string(++done);
                if (unlinkat(directory.Get(), inside.c_str(), 0) != 0)
                    renameat2(directory.Get(), inside.c_str(), bin.Get(), fresh.c_str(), RENAME_NOREPLACE);
            }
            ++done;
            unlinkat(bin.Get(), name.c_str(), directory.IsOpen() ? AT_REMOVEDIR : 0);
        }
    }
}

} // namespace

std::vector<std::string> NamesIn(int folder) {
    std::vector<std::string> names;
    Descriptor listing = OpenFolder(folder, ".");
    const std::unique_ptr<DIR, int (*)(DIR*)> opened(fdopendir(listing.Get()), closedir);
    if (opened == nullptr) return names;
    listing.Release();
    while (const dirent* entry = names.size() < kMostAtOnce ? readdir(opened.get()) : nullptr)
        if (const std::string name = entry->d_name; name != "." && name != "..") names.push_back(name);
    return names;
}

void RemoveLitter(int folder, const std::string& name) {
    if (unlinkat(folder, name.c_str(), 0) == 0 || unlinkat(folder, name.c_str(), AT_REMOVEDIR) == 0) return;
    uint64_t random = 0;
    if (geteuid() != 0 || getrandom(&random, sizeof random, GRND_NONBLOCK) != ssize_t{sizeof random}) return;
    // A folder that root alone may enter.
    const std::string fresh = kBin + std::to_string(random);
    if (mkdirat(folder, fresh.c_str(), S_IRWXU) != 0) return;
    const Descriptor bin = OpenFolder(folder, fresh);
    if (bin.IsOpen() && renameat(folder, name.c_str(), bin.Get(), "0") == 0) Empty(bin);
    unlinkat(folder, fresh.c_str(), AT_REMOVEDIR);
}

bool IsHalfRemoved(const std::string& name) {
    return name.starts_with(kBin);
}

} // namespace oriel
