// Thread counts read from /proc/self/task, for leak checks around thread starts
// and joins. Header-only, so every test program can use it.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <dirent.h>
#include <string>
#include <thread>

namespace tavik_test {

// Threads listed for the process right now.
inline size_t ListedThreads() {
  DIR* d = opendir("/proc/self/task");
  if (d == nullptr) return 0;
  size_t n = 0;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') ++n;
  closedir(d);
  return n;
}

// A joined thread can stay listed for a moment: the kernel wakes the joiner
// before it removes the exiting task. Waits until the task is gone.
inline void WaitUntilTaskGone(pid_t tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid);
  for (int i = 0; i < 2000 && access(path.c_str(), F_OK) == 0; ++i) usleep(1000);
}

// The thread count for a baseline or a check. Some runtimes (ThreadSanitizer)
// start a helper thread of their own with a process's first thread, so one
// thread is started, joined and waited for first, once per process (forked
// children too), before anything is counted.
inline size_t CountThreadsSettled() {
  static pid_t warmedUp = 0;
  if (warmedUp != getpid()) {
    pid_t tid = 0;
    std::thread([&tid] { tid = static_cast<pid_t>(syscall(SYS_gettid)); }).join();
    WaitUntilTaskGone(tid);
    warmedUp = getpid();
  }
  return ListedThreads();
}

// The count once it equals expected, or after two seconds, so that a thread
// that was just joined does not count and one that really stays still does.
inline size_t SettledThreadCount(size_t expected) {
  size_t count = CountThreadsSettled();
  for (int i = 0; i < 2000 && count != expected; ++i) {
    usleep(1000);
    count = ListedThreads();
  }
  return count;
}

}  // namespace tavik_test
