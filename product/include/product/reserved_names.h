// The names of object_names.h, as rules for whoever makes objects by name: which kind each has, who may make it, and
// what users may do who did not. So another user can neither make a name of the product an object of a wrong kind or of
// closed rights, nor publish values, nor keep a program of the product from running. Names that match no row are free.
//
// Windows has no such rules: there, the rights are those that the objects are made with.
//
// No state.
#pragma once

namespace product {

enum class ReservedKind { ManualEvent = 1, AutoEvent = 2, Mutex = 3, Section = 4 };
enum class ForOthers { Nothing, Read, All }; // Read: wait for the event, read the section

struct ReservedName {
    const char* pattern; // a base name, in which * stands for any text
    ReservedKind kind;
    ForOthers others = ForOthers::All;
    bool ownerMakes = false; // only the user who runs the product, and root
};

// The first row that a name matches counts.
inline constexpr ReservedName kReservedNames[] = {
    {.pattern = "TVOR:*:Updated", .kind = ReservedKind::ManualEvent},
    {.pattern = "TVOR:*:Changed", .kind = ReservedKind::ManualEvent},
    {.pattern = "TVOR:*:Nsr:Initialize", .kind = ReservedKind::ManualEvent},
    {.pattern = "TVOR:*:Values:*", .kind = ReservedKind::Section, .others = ForOthers::Read, .ownerMakes = true},
    {.pattern = "TVORSDB:Life:*", .kind = ReservedKind::Section, .others = ForOthers::Read, .ownerMakes = true},
    {.pattern = "TVORSDB:Started", .kind = ReservedKind::ManualEvent, .others = ForOthers::Read, .ownerMakes = true},
    {.pattern = "TVORSQD_DB*:Initialized", .kind = ReservedKind::ManualEvent, .ownerMakes = true},
    {.pattern = "TVORSQD:Mutex:DabaBase", .kind = ReservedKind::Mutex},
    {.pattern = "TVORSQD:ReqMutex:*", .kind = ReservedKind::Mutex},
    {.pattern = "TVORSQD:Opened:*", .kind = ReservedKind::ManualEvent},
    {.pattern = "TVORSQD:Owner:*", .kind = ReservedKind::ManualEvent},
    {.pattern = "TVORSQD:TerminateManager", .kind = ReservedKind::ManualEvent},
    {.pattern = "TVORSQD:SharedCounters", .kind = ReservedKind::Section},
    {.pattern = "TVORSQD:DesktopAgent", .kind = ReservedKind::Mutex},
    {.pattern = "TVORSQD:PrinterSide:*", .kind = ReservedKind::Mutex, .others = ForOthers::Nothing, .ownerMakes = true},
    {.pattern = "TVORSQD:StopPrinterSide:*",
     .kind = ReservedKind::ManualEvent,
     .others = ForOthers::Nothing,
     .ownerMakes = true},
    {.pattern = "TVORSQD:HostedPrinters:*",
     .kind = ReservedKind::Section,
     .others = ForOthers::Nothing,
     .ownerMakes = true},
    {.pattern = "TVORSQD:PrintersChanged",
     .kind = ReservedKind::AutoEvent,
     .others = ForOthers::Nothing,
     .ownerMakes = true},
    {.pattern = "TVORPWD:INITIALIZED",
     .kind = ReservedKind::ManualEvent,
     .others = ForOthers::Read,
     .ownerMakes = true},
    {.pattern = "TVORPWDMutex", .kind = ReservedKind::Mutex, .others = ForOthers::Nothing, .ownerMakes = true},
};

} // namespace product
