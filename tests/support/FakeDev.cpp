#include "FakeDev.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include "ChildProcess.h"

namespace tavik_test {

bool TryEnterPrivateDev(std::string* why) {
  const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
  bool root = geteuid() == 0;
  const char* step = "unshare";
  bool ok = unshare(root ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) == 0;
  if (ok && !root) {
    // Map the caller to root of the new user namespace so that it may mount.
    step = "id maps";
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
    WriteFile("/proc/self/gid_map", "0 " + gid + " 1");
  }
  if (ok && (step = "private /", mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)) ok = false;
  if (ok && (step = "tmpfs on /dev", mount("tavik-test-dev", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0)) ok = false;
  if (!ok) *why = std::string(step) + ": " + std::strerror(errno);
  return ok;
}

void EnterPrivateDev() {
  std::string why;
  if (!TryEnterPrivateDev(&why)) SkipChild("private /dev unavailable: " + why);
}

void MakeFifo(const std::string& name) {
  ASSERT_EQ(mkfifo(DevPath(name).c_str(), 0666), 0) << name << ": " << std::strerror(errno);
}

}  // namespace tavik_test
