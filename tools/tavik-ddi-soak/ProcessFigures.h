// What a process holds, read from /proc: the measure of growth over a long run,
// shared with the tests' leak checks.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdio>

namespace tavik_soak {

struct ProcessFigures {
  size_t fds, threads, rssKb;
};

inline size_t CountEntries(const char* folder) {
  size_t n = 0;
  if (DIR* dir = opendir(folder)) {
    while (const dirent* e = readdir(dir)) n += e->d_name[0] != '.';
    closedir(dir);
  }
  return n;
}

inline ProcessFigures Measure() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  // The directory stream itself holds one descriptor while the count is taken.
  return {CountEntries("/proc/self/fd") - 1, CountEntries("/proc/self/task"),
          static_cast<size_t>(resident * sysconf(_SC_PAGESIZE) / 1024)};
}

}  // namespace tavik_soak
