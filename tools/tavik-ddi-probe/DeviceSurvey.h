// Reads the Ddi record that init filled, the way the core reads it: only the
// first cam_count cameras, every device through its own operation table.
#pragma once

#include <string>

#include <tavik/tavik_ddi.h>

#include "ProbeReport.h"

namespace probe {

// The module file name of the camera emulator that ships with the kit.
constexpr const char* kEmulatorModuleName = "tavik_virtual.x86_64.umd";

// Fills report.cameras and report.drivers from the record.
void SurveyDevices(const Ddi& ddi, ProbeReport& report);

// Opens and closes every listed camera once and records both results.
// Returns false when any call failed.
bool CheckOpenClose(const Ddi& ddi, ProbeReport& report);

// The device's own last-error text, through its last_error_msg operation.
std::string DeviceLastError(tavik_driver_device* device);

// Runs nothing; packs a code and, for a failure, the device's last-error text.
CallOutcome Outcome(const std::string& call, tavik_driver_device* device, int16 code);

}  // namespace probe
