#include "holdings.h"

#include <filesystem>
#include <oriel_directories.h>
#include <string>
#include <windows.h>

Holdings HeldNow() {
    const auto entries = [](const std::string& path) {
        std::error_code error;
        return std::distance(std::filesystem::directory_iterator(path, error), {});
    };
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    Holdings held = {.threads = entries("/proc/self/task"),
                     .handles = static_cast<long>(handles),
                     .descriptors = entries("/proc/self/fd")};
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(OrielRuntimeDirectory() + std::string("/objects"), error))
        held.objects += entry.path().filename().string().find("TVOR:") != std::string::npos;
    return held;
}
