#include "FakeDev.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

#include "ChildProcess.h"

namespace tavik_test {
namespace {

bool WriteText(const char* path, const std::string& text) {
  int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

std::string Errno(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

bool TryEnterPrivateDev(std::string* why) {
  uid_t uid = geteuid();
  gid_t gid = getegid();
  if (uid == 0) {
    if (unshare(CLONE_NEWNS) != 0) {
      *why = Errno("unshare(CLONE_NEWNS) not allowed");
      return false;
    }
  } else {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
      *why = Errno("unshare(CLONE_NEWUSER|CLONE_NEWNS) not allowed");
      return false;
    }
    // Map the caller to root of the new user namespace so that it may mount.
    if (!WriteText("/proc/self/setgroups", "deny") ||
        !WriteText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !WriteText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
      *why = Errno("cannot map ids in the new user namespace");
      return false;
    }
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    *why = Errno("cannot make / private");
    return false;
  }
  if (mount("tavik-test-dev", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
    *why = Errno("cannot mount a tmpfs on /dev");
    return false;
  }
  return true;
}

void EnterPrivateDev() {
  std::string why;
  if (!TryEnterPrivateDev(&why)) SkipChild("private /dev unavailable: " + why);
}

std::string DevPath(const std::string& name) { return "/dev/" + name; }

void MakeFifo(const std::string& name) {
  ASSERT_EQ(mkfifo(DevPath(name).c_str(), 0666), 0) << Errno(("mkfifo " + name).c_str());
}

void MakeFile(const std::string& name, const std::string& content) {
  std::ofstream out(DevPath(name), std::ios::binary);
  out << content;
  ASSERT_TRUE(out.good()) << "cannot write /dev/" << name;
}

void MakeDanglingSymlink(const std::string& name) {
  ASSERT_EQ(symlink("/nonexistent/tavik-camera", DevPath(name).c_str()), 0) << Errno(("symlink " + name).c_str());
}

void RemoveNode(const std::string& name) {
  ASSERT_EQ(unlink(DevPath(name).c_str()), 0) << Errno(("unlink " + name).c_str());
}

}  // namespace tavik_test
