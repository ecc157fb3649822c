// Why a module in the folder of TAVIK_UMD_PATH did not end up in a driver slot,
// and which modules gave the camera list devices it had to leave out. The
// library says so only in its log; the probe says it without one.
#pragma once

#include <string>

#include <tavik/tavik_ddi.h>

#include "ProbeReport.h"

namespace probe {

// Fills report.skippedModules for the folder (the modules named like
// tavik_*.x86_64.umd that hold no slot, each with its reason) and the
// incompatible device counts of report.drivers. Call it between init and uninit.
void SurveyModules(const std::string& folder, const Ddi& ddi, ProbeReport& report);

}  // namespace probe
