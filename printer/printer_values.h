// What a network printer tells, as values of status variables: the same for every protocol. docs/devices.md has the
// table. No state.
#pragma once

#include "device.h"
#include "reading.h"

// A value for each variable that such a device has; those that the printer does not tell are not known. identity: the
// last one that was read; null: none yet, and its variables are left out. jobs: also those of its own jobs.
std::vector<DeviceValue> ValuesOf(const devices::Reading& reading, const devices::Identity* identity, bool jobs,
                                  const std::string& origin);

// "PrinterStatus" while the printer does not answer.
DeviceValue NoAnswerValue(const std::string& origin);

// Whether such a device has the variable.
bool IsDeviceVariable(const std::string& variable);
