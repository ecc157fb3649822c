// What a process holds, read from /proc: the measure of leaks across cycles.
#pragma once

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>

namespace tavik_test {

inline size_t ListedEntries(const char* folder) {
  size_t n = 0;
  if (DIR* d = opendir(folder)) {
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
  }
  return n;
}

inline size_t CountOpenFds() { return ListedEntries("/proc/self/fd") - 1; }  // less the listing's own

// Some runtimes (ThreadSanitizer) start a helper thread with a process's first
// thread, so one thread is started and joined first, once per process (forked
// children too), and its task waited for: the kernel wakes a joiner before it
// removes the exiting task.
inline size_t CountThreadsSettled() {
  static pid_t warmedUp = 0;
  if (warmedUp != getpid()) {
    pid_t tid = 0;
    std::thread([&tid] { tid = static_cast<pid_t>(syscall(SYS_gettid)); }).join();
    const std::string task = "/proc/self/task/" + std::to_string(tid);
    for (int i = 0; i < 2000 && access(task.c_str(), F_OK) == 0; ++i) usleep(1000);
    warmedUp = getpid();
  }
  return ListedEntries("/proc/self/task");
}
inline size_t CountThreads() { return CountThreadsSettled(); }

// The count once it equals expected, or after two seconds, so that a thread
// that was just joined does not count and one that really stays still does.
inline size_t SettledThreadCount(size_t expected) {
  size_t count = CountThreadsSettled();
  for (int i = 0; i < 2000 && count != expected; ++i, count = ListedEntries("/proc/self/task")) usleep(1000);
  return count;
}

}  // namespace tavik_test
