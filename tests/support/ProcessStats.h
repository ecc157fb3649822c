// What a process holds, read from /proc: the measure of leaks across cycles.
#pragma once

#include <cstddef>

#include "ThreadCount.h"

namespace tavik_test {

size_t CountOpenFds();   // entries of /proc/self/fd
size_t CountThreads();   // entries of /proc/self/task, see ThreadCount.h
size_t ResidentKb();     // VmRSS of /proc/self/status

}  // namespace tavik_test
