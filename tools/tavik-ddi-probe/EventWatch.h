// Starts notifications on every camera, collects the events that the drivers'
// threads deliver, and shows them on the probe's main thread until the time is
// up or a stop signal arrives; then takes everything down in the order the
// core must use (abort, stop, close).
#pragma once

#include <signal.h>

#include <cstdio>

#include <tavik/tavik_ddi.h>

#include "ProbeReport.h"

namespace probe {

class EventWatch {
 public:
  // `stopSignals` must be blocked in every thread (block them before the
  // library is loaded so its threads inherit the mask); the watch polls for
  // them. `live`, when not null, gets one line per event as it arrives.
  // Returns false when any camera call failed.
  static bool Run(const Ddi& ddi, double seconds, const sigset_t& stopSignals, std::FILE* live,
                  ProbeReport& report);
};

}  // namespace probe
