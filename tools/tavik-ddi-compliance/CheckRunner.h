// Runs checks in child processes, a few at a time, each with a time limit: a
// module that crashes, aborts or hangs takes down one child, never the checker.
#pragma once

#include <string>
#include <vector>

#include "ComplianceCheck.h"

namespace compliance {

struct CheckReport {
  const Check* check = nullptr;
  Outcome outcome;
  long long moduleType = -1;  // what type() answered in this child, -1 if it was not asked
};

// Runs `checks` on the module at `path`, at most `parallel` at once, each killed
// after `timeoutSeconds`. Reports come back in the order of `checks`.
std::vector<CheckReport> RunChecks(const std::vector<const Check*>& checks, const std::string& path,
                                   double timeoutSeconds, int parallel);

}  // namespace compliance
