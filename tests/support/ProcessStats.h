// What a process holds, read from /proc: the measure of leaks across cycles.
#pragma once

#include <cstddef>

namespace tavik_test {

size_t CountOpenFds();   // entries of /proc/self/fd
size_t CountThreads();   // entries of /proc/self/task
size_t ResidentKb();     // VmRSS of /proc/self/status

}  // namespace tavik_test
