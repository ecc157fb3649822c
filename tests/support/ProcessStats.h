// What a process holds, read from /proc: the measure of leaks.
#pragma once

#include <sys/syscall.h>

#include <string>
#include <thread>

#include "../../tools/tavik-ddi-soak/ProcessFigures.h"

namespace tavik_test {

using tavik_soak::CountEntries;
inline size_t CountOpenFds() { return tavik_soak::Measure().fds; }

// ThreadSanitizer starts a helper with a process's first thread, so one thread is started and joined first, once per
// process, and its task waited for: the kernel wakes a joiner before it removes the exiting task.
inline size_t CountThreads() {
  static pid_t warmedUp = 0;
  if (warmedUp != getpid()) {
    pid_t tid = 0;
    std::thread([&tid] { tid = static_cast<pid_t>(syscall(SYS_gettid)); }).join();
    const std::string task = "/proc/self/task/" + std::to_string(tid);
    for (int i = 0; i < 2000 && access(task.c_str(), F_OK) == 0; ++i) usleep(1000);
    warmedUp = getpid();
  }
  return CountEntries("/proc/self/task");
}

// The count once it equals expected, or after two seconds: a thread just joined does not count.
inline size_t SettledThreadCount(size_t expected) {
  size_t count = CountThreads();
  for (int i = 0; i < 2000 && count != expected; ++i, count = CountEntries("/proc/self/task")) usleep(1000);
  return count;
}

}  // namespace tavik_test
