// Runs the built tavik-ddi-probe as a separate process, the way a user or a
// script runs it, optionally inside a private mount namespace whose /dev holds
// only the nodes the case asks for.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace probe_test {

struct ProbeSetup {
  std::vector<std::string> args;                            // after the program name
  std::vector<std::pair<std::string, std::string>> env;     // set in the child
  bool privateDev = false;    // empty tmpfs on /dev, then the nodes below
  std::vector<std::string> fifos;  // names under /dev
  std::vector<std::string> dirs;   // names under /dev
  int timeoutSec = 60;
  int interruptAfterMs = -1;  // send SIGINT this long after the start, if >= 0
};

struct ProbeResult {
  pid_t pid = -1;
  int exitStatus = -1;  // -1 unless the probe exited normally
  int signal = 0;       // the signal that ended it, if any
  bool timedOut = false;
  bool skipped = false;  // the private /dev could not be set up
  std::string skipReason;
  std::string out;
  std::string err;
};

ProbeResult RunProbe(const ProbeSetup& setup);

// A fresh scratch folder under the system's temporary folder; removed by RemoveTree.
std::string MakeScratchDir();
void RemoveTree(const std::string& path);
std::string ReadFile(const std::string& path);
std::vector<std::string> SplitLines(const std::string& text);

}  // namespace probe_test
