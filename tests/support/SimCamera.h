// A simulated camera behind a device node. No kernel object answers a camera's
// request codes or raises POLLPRI on demand, so the executable that links this
// file defines and exports ioctl and poll: for a descriptor opened on a
// simulated camera's node, poll waits (for real) on an eventfd that Push()
// signals, reporting it as POLLPRI, and TAVIK_IOC_GET_NOTIFICATIONS returns the
// pushed records. Everything else goes to the real calls.
#pragma once

#include <cstdint>
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
  // The next n notification requests fail with err.
  void FailRequests(int err, int n);
  // The next n polls that wait on this camera fail at once with err.
  void FailPolls(int err, int n);

  int Requests() const;           // notification requests answered or failed
  int PolledWaits() const;        // poll calls that waited on this camera
  int CapacitySeen() const;       // capacity field of the last request's list
  int CountBeforeLastRequest() const;  // count field as the host left it
  int FirstRecordSize() const;    // first record's size field at the first request
  int FirstRecordVersion() const;

  int eventFd() const { return eventFd_; }

 private:
  friend struct SimCameraAccess;
  SimCamera() = default;
  unsigned long dev_ = 0;
  unsigned long ino_ = 0;
  int eventFd_ = -1;
};

}  // namespace tavik_test
