#include "ProcessStats.h"
#include "ThreadCount.h"

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

namespace tavik_test {
namespace {

size_t CountEntries(const char* path) {
  DIR* d = opendir(path);
  if (d == nullptr) return 0;
  size_t n = 0;
  while (struct dirent* e = readdir(d))
    if (e->d_name[0] != '.') ++n;
  closedir(d);
  return n - (std::strcmp(path, "/proc/self/fd") == 0 ? 1 : 0);  // the DIR's own descriptor
}

}  // namespace

size_t CountOpenFds() { return CountEntries("/proc/self/fd"); }
size_t CountThreads() { return CountThreadsSettled(); }

size_t ResidentKb() {
  FILE* f = std::fopen("/proc/self/status", "r");
  if (f == nullptr) return 0;
  char line[256];
  size_t kb = 0;
  while (std::fgets(line, sizeof line, f) != nullptr)
    if (std::sscanf(line, "VmRSS: %zu kB", &kb) == 1) break;
  std::fclose(f);
  return kb;
}

}  // namespace tavik_test
