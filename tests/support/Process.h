// Runs a program as a user or a script runs it: its exit status and what it printed.
#pragma once

#include <string>
#include <vector>

namespace tavik_test {

struct ProcessResult {
  int exitStatus = -1;  // -1 unless the program ended by itself within the timeout
  std::string out, err;
};

// argv[0] is the program's path. env holds "NAME=value" entries, put before the inherited ones: getenv finds them
// first (the dynamic loader takes the last LD_ value, so pass none of those).
ProcessResult RunProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
                         int timeoutSec = 60);

}  // namespace tavik_test
