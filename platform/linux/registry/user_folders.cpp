#include "registry/user_folders.h"

#include "base/directories.h"
#include "base/litter.h"

#include <algorithm>
#include <ctime>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace oriel {
namespace {

constexpr time_t kNewSeconds = 4; // another process of the user may be about to choose between two

// "1000" or "1000-01dc5e3a7b9c0000", as root.cpp makes them.
bool IsNameOf(const std::string& name, uid_t user) {
    const std::string own = std::to_string(user);
    if (!name.starts_with(own)) return false;
    constexpr size_t kSuffix = 17;
    return name.size() == own.size() || (name.size() == own.size() + kSuffix && name[own.size()] == '-' &&
                                         name.find_first_not_of("0123456789abcdef", own.size() + 1) == name.npos);
}

} // namespace

void TidyUserFolders() {
    if (geteuid() != 0 || StateDirectory().empty()) return;
    const std::string path = StateDirectory() + "/registry/users";
    const Descriptor users(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    std::vector<std::string> names = NamesIn(users.Get());
    std::sort(names.begin(), names.end());
    std::set<uid_t> seen; // of each user the first in order stays, which the registry chooses: "1000", "1000-..."
    for (const std::string& name : names) {
        struct stat status {};
        if (fstatat(users.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
        const bool isUsers = S_ISDIR(status.st_mode) && IsNameOf(name, status.st_uid);
        const bool isUsed = isUsers && seen.insert(status.st_uid).second;
        if (isUsed || (isUsers && time(nullptr) - status.st_ctime <= kNewSeconds)) continue;
        RemoveLitter(users.Get(), name);
    }
}

} // namespace oriel
