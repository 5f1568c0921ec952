// The interface of the desktop module: a library of its own that shows notifications on the user's desktop, loaded by
// the agent when it is there. No state.
#pragma once

#include <cstdint>
#include <string>

namespace desktop {

enum class Urgency : uint8_t { Low, Normal, Critical };

struct Notification {
    std::string title{}; // UTF-8 without control characters, as the body
    std::string body{};
    Urgency urgency = Urgency::Normal;
    uint32_t replaces = 0; // the number of one that is shown; 0: none
};

struct Module {
    uint32_t size; // of this record: a module of another build is not used
    // The number of the notification; 0: nobody shows any now. Both calls end within some seconds.
    uint32_t (*show)(const Notification& notification);
    void (*close)(uint32_t number);
};

// Exported by the module.
using ModuleEntry = const Module* (*)();
inline constexpr char kModuleEntry[] = "OrielDesktopModule";
inline constexpr char kModuleName[] = "oriel_desktop";

} // namespace desktop
