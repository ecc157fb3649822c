// What a process holds, read from /proc: the measure of leaks across cycles.
#pragma once

#include <cstdio>

#include "ThreadCount.h"

namespace tavik_test {

inline size_t CountOpenFds() { return ListedEntries("/proc/self/fd") - 1; }  // less the listing's own
inline size_t CountThreads() { return CountThreadsSettled(); }
inline size_t ResidentKb() {
  size_t kb = 0;
  if (FILE* f = std::fopen("/proc/self/status", "r")) {
    char line[256];
    while (std::fgets(line, sizeof line, f) != nullptr && std::sscanf(line, "VmRSS: %zu kB", &kb) != 1) {
    }
    std::fclose(f);
  }
  return kb;
}

}  // namespace tavik_test
