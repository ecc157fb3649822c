// A simulated camera behind a device node. No kernel object answers a camera's request codes or raises POLLPRI on
// demand, so the executable that links this file exports ioctl and poll: on a simulated camera's node, poll waits
// (for real) on an eventfd that Push() signals, reported as POLLPRI, and TAVIK_IOC_GET_NOTIFICATIONS returns the
// pushed records. Everything else goes to the real calls.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace tavik_test {

class SimCamera {
 public:
  // Simulates the camera behind an existing node; at most 8 per process.
  static SimCamera* Attach(const std::string& nodePath);

  // One batch: the next request returns exactly these types (none: a count of 0). Wakes the waiting poll.
  void Push(const std::vector<uint32_t>& types);
  void FailRequests(int err, int n) { requestErr = err, requestFailures = n; }  // the next n requests fail
  // The next n polls fail with err; with err 0 they report POLLERR on the device instead.
  void FailPolls(int err, int n) { pollErr = err, pollFailures = n; }
  // When set, answers every request in place of the batches, filling the tavik_notif_list as a device would.
  int (*answer)(void* list) = nullptr;

  std::atomic<int> polls{0};     // polls that waited on this camera or failed
  // The host's side of the last request: capacity, count, and the first record's size and version.
  std::atomic<int> capacity{-1}, countBefore{-1}, recordSize{-1}, recordVersion{-1};

  // Internal to the interposers.
  unsigned long dev = 0, ino = 0;
  int eventFd = -1;
  std::mutex mutex;
  std::deque<std::vector<uint32_t>> batches;
  std::atomic<int> requestErr{0}, requestFailures{0}, pollErr{0}, pollFailures{0};
};

}  // namespace tavik_test
