// The notification thread beside the rest of a process: a program the core starts while it runs, and a camera that
// reports an error on every poll (unplugged).
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <climits>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "E2e.h"
#include "SimCamera.h"

extern char** environ;

namespace tavik_test {
namespace {

class NotificationThread : public ChildTest {};

int16 Ignore(tavik_driver_device*, tavik_notif*) { return KZ_ERR_NONE; }

// A private /dev with one simulated camera, the log at level E.
SimCamera* EnterWithCamera(ChildContext& ctx) {
  EnterPrivateDev();
  ctx.EnableLog("error");
  MakeFifo("tavikSW_0");
  return SimCamera::Attach("/dev/tavikSW_0");
}

// What the descriptors of a process point at ("pipe:[4711]", "/dev/tavikSW_0"), by number.
std::map<int, std::string> FdTargets(const std::string& proc) {
  std::map<int, std::string> targets;
  for (const auto& e : std::filesystem::directory_iterator(proc + "/fd"))
    targets[std::stoi(e.path().filename())] = ReadLink(e.path());
  return targets;
}

// The core starts a program (one that runs for 30 s) while a camera's notifications run: with exec, the program must
// hold none of the library's descriptors; without exec, it holds them all. Either way stop must not wait for it.
TEST_F(NotificationThread, StopReturnsWhileAProcessTheCoreStartedRuns) {
  for (const bool exec : {true, false}) {
    SCOPED_TRACE(exec ? "fork and exec" : "fork alone");
    RunInChild([exec](ChildContext& ctx) {
      SimCamera* cam = EnterWithCamera(ctx);
      ASSERT_NE(cam, nullptr);
      const std::map<int, std::string> before = FdTargets("/proc/self");
      TAVIK_LOAD(lib);
      Ddi ddi{};
      ASSERT_EQ(lib->init(&ddi), KZ_ERR_NONE);
      tavik_driver_device* d = ddi.devices[0];
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      ASSERT_EQ(d->start_notif_thread(d, Ignore), KZ_ERR_NONE);
      while (cam->polls < 1) usleep(200);
      std::set<std::string> ours;  // the log file, the device node and the wake-up pipe
      for (const auto& [fd, target] : FdTargets("/proc/self"))
        if (before.count(fd) == 0) ours.insert(target);
      ASSERT_GE(ours.size(), 3u);

      pid_t child = 0;
      char* argv[] = {const_cast<char*>("sleep"), const_cast<char*>("30"), nullptr};
      if (exec) {
        ASSERT_EQ(posix_spawnp(&child, "sleep", nullptr, nullptr, argv, environ), 0);  // returns once it has exec'd
        for (const auto& [fd, target] : FdTargets("/proc/" + std::to_string(child)))
          EXPECT_EQ(ours.count(target), 0u) << "the program inherited descriptor " << fd << ": " << target;
      } else if ((child = fork()) == 0) {
        alarm(30);  // ends it also when a hang ends this child first
        for (;;) pause();
      }
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "stop waited for the process to end";
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
      EXPECT_EQ(lib->uninit(&ddi), KZ_ERR_NONE);
    }, 20);
  }
}

// An unplugged camera reports POLLERR on every poll. Each pass still logs "Device error", but the passes are paced
// by a pause of 10 ms: no more of them than 10 ms fit into the time the thread ran.
TEST_F(NotificationThread, DeviceInErrorIsLoggedOnEveryPassAndPaced) {
  RunInChild([](ChildContext& ctx) {
    SimCamera* cam = EnterWithCamera(ctx);
    ASSERT_NE(cam, nullptr);
    cam->FailPolls(0, INT_MAX);
    int passes = 0;
    long long elapsedUs = 0;
    {
      TAVIK_LOAD(lib);
      Ddi ddi{};
      ASSERT_EQ(lib->init(&ddi), KZ_ERR_NONE);
      tavik_driver_device* d = ddi.devices[0];
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      const auto t0 = std::chrono::steady_clock::now();
      ASSERT_EQ(d->start_notif_thread(d, Ignore), KZ_ERR_NONE);
      usleep(300000);
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      elapsedUs = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0).count();
      passes = cam->polls;
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
      EXPECT_EQ(lib->uninit(&ddi), KZ_ERR_NONE);
    }  // unloaded: the log is complete
    std::istringstream log(ReadFile(ctx.LogPath()));
    const std::string error = ": >>> 'tavikSW_0': Device error";
    int lines = 0;
    for (std::string line; std::getline(log, line);)
      lines += line.size() > error.size() && line.compare(line.size() - error.size(), error.size(), error) == 0;
    EXPECT_GE(passes, 2);
    EXPECT_EQ(lines, passes) << "every pass logs the error once";
    EXPECT_LE(passes, elapsedUs / 10000 + 1) << "in " << elapsedUs << " us";
  });
}

}  // namespace
}  // namespace tavik_test
