// The variable in which a printer side tells how its device stands with the printer: where the values come from, and
// how old they are. It is no status variable, so no catalogue has it; the printer side makes it. When a printer side is
// gone without a word, the service writes it. No state.
#pragma once

#include "product/variable_names.h"

#include <stddef.h>
#include <stdint.h>

inline constexpr char kDeviceVariable[] = "DeviceState";

// 280 bytes, little-endian. Texts are in the ANSI code page, with a NUL.
struct DeviceRecord {
    uint32_t version;        // kDeviceRecordVersion
    uint32_t up;             // 1: the printer answers
    uint32_t answersEveryMs; // the longest time between two answers; 0: values do not age
    uint32_t process;        // of the printer side
    uint64_t answeredAt;     // the last answer, as a FILETIME (UTC); 0: none yet
    char device[128];        // what is asked: "ipp://printer/ipp/print"
    char trouble[128];       // why it does not answer; empty while it does
};
static_assert(sizeof(DeviceRecord) == 280 && offsetof(DeviceRecord, up) == 4 &&
              offsetof(DeviceRecord, answersEveryMs) == 8 && offsetof(DeviceRecord, process) == 12 &&
              offsetof(DeviceRecord, answeredAt) == 16 && offsetof(DeviceRecord, device) == 24 &&
              offsetof(DeviceRecord, trouble) == 152);

inline constexpr uint32_t kDeviceRecordVersion = 1;
// The trouble of a device that no printer side asks any more.
inline constexpr char kPrinterSideEnded[] = "the printer side has ended";

// Whoever watches one of these follows the printer: its printer side asks it more often, and the service tells the
// printer side when the first one begins and when the last one ends.
inline constexpr const char* kFollowedVariables[] = {names::kPrinterStatus,   names::kPrinterStatus2,
                                                     names::kErrPaperJam,     names::kPrintingStatus,
                                                     names::kPrintingJobInfo, kDeviceVariable};
