// A simulated camera behind a device node. No kernel object answers a camera's
// request codes or raises POLLPRI on demand, so the executable that links this
// file defines and exports ioctl and poll: for a descriptor opened on a
// simulated camera's node, poll waits (for real) on an eventfd that Push()
// signals, reporting it as POLLPRI, and TAVIK_IOC_GET_NOTIFICATIONS returns the
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

  // One batch: the next notification request returns exactly these types
  // (an empty batch answers with a count of 0). Wakes the waiting poll.
  void Push(const std::vector<uint32_t>& types);
  void FailRequests(int err, int n) { requestErr = err, requestFailures = n; }  // the next n requests fail
  // The next n polls fail with err; with err 0 they report POLLERR on the device instead.
  void FailPolls(int err, int n) { pollErr = err, pollFailures = n; }
  // When set, answers every request in place of the batches: fills the list (a
  // tavik_notif_list) as a device would and returns the request's result.
  int (*answer)(void* list) = nullptr;

  std::atomic<int> polls{0};     // polls that waited on this camera or failed
  // The host's side of the last request: capacity, count as the host left it,
  // and the first record's size and version.
  std::atomic<int> capacity{-1}, countBefore{-1}, recordSize{-1}, recordVersion{-1};

  // Internal to the interposers.
  unsigned long dev = 0, ino = 0;
  int eventFd = -1;
  std::mutex mutex;
  std::deque<std::vector<uint32_t>> batches;
  std::atomic<int> requestErr{0}, requestFailures{0}, pollErr{0}, pollFailures{0};
};

}  // namespace tavik_test
