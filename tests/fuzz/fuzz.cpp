#include "fuzz.h"

#include <filesystem>

const std::string& PrivateMachine() {
    static const std::string directory = [] {
        std::string path = "/dev/shm/oriel-fuzz-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) std::abort();
        for (const auto& [folder, variable] : {std::pair{"/state", "ORIEL_STATE_DIR"}, {"/run", "ORIEL_RUNTIME_DIR"}}) {
            std::filesystem::create_directory(path + folder);
            setenv(variable, (path + folder).c_str(), 1);
        }
        static std::string owned;
        owned = path;
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(owned, ignored);
        });
        return path;
    }();
    return directory;
}
