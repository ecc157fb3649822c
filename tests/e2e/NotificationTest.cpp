// The notification thread against a simulated camera: the test executable
// answers poll and TAVIK_IOC_GET_NOTIFICATIONS for the camera's FIFO node (see
// SimCamera), so the library's real thread blocks in a real poll and delivers
// what the "driver" pushed.
#include <sys/resource.h>
#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "E2eCommon.h"
#include "ProcessStats.h"
#include "SimCamera.h"

namespace tavik_test {
namespace {

struct Delivery {
  tavik_driver_device* device;
  uint32_t type;
  unsigned long tid;
  uns8 payload0;
};

// What the callback saw; the callback runs on the library's notification thread.
struct Recorder {
  std::mutex mutex;
  std::condition_variable cond;
  std::vector<Delivery> got;
  std::atomic<int> failFirst{0};  // this many first calls return an error

  bool WaitFor(size_t n, int ms = 5000) {
    std::unique_lock<std::mutex> lock(mutex);
    return cond.wait_for(lock, std::chrono::milliseconds(ms), [&] { return got.size() >= n; });
  }
  std::vector<Delivery> Got() {
    std::lock_guard<std::mutex> lock(mutex);
    return got;
  }
};
Recorder g_rec;

int16 Callback(tavik_driver_device* device, tavik_notif* n) {
  {
    std::lock_guard<std::mutex> lock(g_rec.mutex);
    g_rec.got.push_back({device, n->type, ThreadId(), n->payload[0]});
  }
  g_rec.cond.notify_all();
  if (g_rec.failFirst.load() > 0) {
    g_rec.failFirst.fetch_sub(1);
    return KZ_ERR_DATA_INVALID;
  }
  return KZ_ERR_NONE;
}

// Waits until the camera has answered n requests.
bool WaitRequests(SimCamera* cam, int n, int ms = 5000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (cam->Requests() < n)
    if (std::chrono::steady_clock::now() > end) return false;
    else std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return true;
}

bool WaitPolls(SimCamera* cam, int n, int ms = 5000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (cam->PolledWaits() < n)
    if (std::chrono::steady_clock::now() > end) return false;
    else std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return true;
}

class Notifications : public ChildTest {
 protected:
  // A FIFO camera "tavikSW_0" simulated and opened; body gets it started or not.
  bool WithCamera(const std::function<void(Session&, tavik_driver_device*, SimCamera*)>& body) {
    return RunInChild([&](ChildContext& ctx) {
      EnterPrivateDev();
      MakeFifo("tavikSW_0");
      SimCamera* cam = SimCamera::Attach("/dev/tavikSW_0");
      ASSERT_NE(cam, nullptr);
      ctx.EnableLog();
      Session s;
      TAVIK_INIT_SESSION(s);
      ASSERT_EQ(s.ddi.cam_count, 1);
      tavik_driver_device* d = s.ddi.devices[0];
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      body(s, d, cam);
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
      TAVIK_UNINIT_SESSION(s);
    });
  }
  LogFile Log() const { return LogFile::Read(ctx_.LogPath()); }
};

TEST_F(Notifications, RecordsArriveInOrderOnTheNotificationThread) {
  if (!WithCamera([&](Session&, tavik_driver_device* d, SimCamera* cam) {
        ASSERT_EQ(d->start_notif_thread(d, Callback), KZ_ERR_NONE);
        cam->Push({NOTIFICATION_BOF, NOTIFICATION_EOF, NOTIFICATION_BOF_EOF});
        ASSERT_TRUE(g_rec.WaitFor(3));
        // An unknown code is delivered as removal of the device.
        cam->Push({0x00000100u});
        ASSERT_TRUE(g_rec.WaitFor(4));
        // A count of 0 calls nothing, and the thread keeps waiting.
        int before = cam->Requests();
        cam->Push({});
        ASSERT_TRUE(WaitRequests(cam, before + 1));
        cam->Push({NOTIFICATION_ACK_FLUSH, NOTIFICATION_COMPLETE});
        ASSERT_TRUE(g_rec.WaitFor(6));
        EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);

        std::vector<Delivery> got = g_rec.Got();
        ASSERT_EQ(got.size(), 6u);
        const uint32_t expected[] = {NOTIFICATION_BOF, NOTIFICATION_EOF, NOTIFICATION_BOF_EOF,
                                     NOTIFICATION_DEVICE_REMOVAL, NOTIFICATION_ACK_FLUSH, NOTIFICATION_COMPLETE};
        const uns8 index[] = {0, 1, 2, 0, 0, 1};
        for (size_t i = 0; i < got.size(); ++i) {
          EXPECT_EQ(got[i].type, expected[i]) << "record " << i;
          EXPECT_EQ(got[i].device, d);
          EXPECT_EQ(got[i].payload0, index[i]) << "the callback must get a pointer into the list, record " << i;
          EXPECT_NE(got[i].tid, ThreadId()) << "the callback must run on the notification thread";
          EXPECT_EQ(got[i].tid, got[0].tid);
        }
        // The host's side of the protocol.
        EXPECT_EQ(cam->CapacitySeen(), 50);
        EXPECT_EQ(cam->FirstRecordSize(), 32);
        EXPECT_EQ(cam->FirstRecordVersion(), 1);
        EXPECT_EQ(cam->CountBeforeLastRequest(), 0) << "count must be reset to 0 before every request";
        FILE* f = std::fopen((std::string(getenv("TAVIK_DDI_LOG_FILE")) + ".tid").c_str(), "w");
        std::fprintf(f, "%lu", got[0].tid);
        std::fclose(f);
      }))
    return;
  LogFile log = Log();
  EXPECT_TRUE(TraceIsBalanced(log));
  unsigned long cbTid = std::stoul(ReadFile(ctx_.LogPath() + ".tid"));
  LogCursor c(log);
  EXPECT_TRUE(c.Next('T', "tavik_driver_kernel_dev_start_notif_thread", Re(std::string("ENTER \\(device=") + kPtr + "\\)"), 0));
  EXPECT_TRUE(c.Next('D', "tavik_driver_kernel_dev_start_notif_thread", "Called start_notif_thread for device 'tavikSW_0'", 1));
  EXPECT_TRUE(c.Next('T', "tavik_driver_kernel_dev_start_notif_thread", Re(std::string("RETURN \\(KZ_ERR_NONE\\) ") + kMicros), 0));
  const LogLine* started = log.Find('D', "_kernel_notif_thread", ">>> 'tavikSW_0': Notification thread started");
  ASSERT_NE(started, nullptr) << log.Dump();
  EXPECT_EQ(started->tid, cbTid) << "callbacks must run on the thread that logs for the notification thread";
  EXPECT_EQ(started->depth, 1u);
  LogCursor t(log);
  for (const char* name : {"NOTIFICATION_BOF", "NOTIFICATION_EOF", "NOTIFICATION_BOF_EOF", "NOTIFICATION_DEVICE_REMOVAL",
                           "NOTIFICATION_ACK_FLUSH", "NOTIFICATION_COMPLETE"})
    EXPECT_TRUE(t.Next('D', "_kernel_notif_thread", std::string(">>> 'tavikSW_0': ") + name, 1));
  EXPECT_TRUE(t.Next('D', "tavik_driver_kernel_dev_stop_notif_thread", "Called stop_notif_thread for device 'tavikSW_0'", 1));
  EXPECT_TRUE(t.Next('D', "_kernel_notif_thread", ">>> 'tavikSW_0': Notification thread stopped", 1));
  EXPECT_TRUE(t.Next('T', "tavik_driver_kernel_dev_stop_notif_thread", Re(std::string("RETURN \\(KZ_ERR_NONE\\) ") + kMicros), 0));
}

TEST_F(Notifications, FailingCallbackOnTheFirstOfThreeStillGetsTheOthers) {
  if (!WithCamera([&](Session&, tavik_driver_device* d, SimCamera* cam) {
        g_rec.failFirst = 1;
        ASSERT_EQ(d->start_notif_thread(d, Callback), KZ_ERR_NONE);
        cam->Push({NOTIFICATION_BOF, NOTIFICATION_EOF, NOTIFICATION_BUS_RESET});
        ASSERT_TRUE(g_rec.WaitFor(3));
        EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
        std::vector<Delivery> got = g_rec.Got();
        ASSERT_EQ(got.size(), 3u);
        EXPECT_EQ(got[1].type, static_cast<uint32_t>(NOTIFICATION_EOF));
        EXPECT_EQ(got[2].type, static_cast<uint32_t>(NOTIFICATION_BUS_RESET));
      }))
    return;
  LogFile log = Log();
  EXPECT_EQ(log.Count('E', "_kernel_notif_thread",
                      ">>> 'tavikSW_0': Invoking callback function for NOTIFICATION_BOF(4) failed with error KZ_ERR_DATA_INVALID(168)"),
            1u)
      << log.Dump();
  EXPECT_EQ(log.Count('E', "_kernel_notif_thread", Re(".*Invoking callback.*")), 1u);
}

TEST_F(Notifications, FailedRequestIsLoggedAndTheThreadGoesOn) {
  if (!WithCamera([&](Session&, tavik_driver_device* d, SimCamera* cam) {
        ASSERT_EQ(d->start_notif_thread(d, Callback), KZ_ERR_NONE);
        cam->FailRequests(EIO, 1);
        cam->Push({NOTIFICATION_BOF});
        ASSERT_TRUE(WaitRequests(cam, 1));
        cam->Push({NOTIFICATION_EOF});
        ASSERT_TRUE(g_rec.WaitFor(1));
        EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
        std::vector<Delivery> got = g_rec.Got();
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].type, static_cast<uint32_t>(NOTIFICATION_EOF));
      }))
    return;
  LogFile log = Log();
  EXPECT_EQ(log.Count('E', "_kernel_notif_thread", ">>> 'tavikSW_0': Can't get notification list, error 5 (Input/output error)"), 1u)
      << log.Dump();
}

TEST_F(Notifications, PollErrorsAreRetriedEintrLoggedEagainSilent) {
  if (!WithCamera([&](Session&, tavik_driver_device* d, SimCamera* cam) {
        // EAGAIN is retried at once without a word; EINTR is an error like any other.
        cam->FailPolls(EAGAIN, 3);
        ASSERT_EQ(d->start_notif_thread(d, Callback), KZ_ERR_NONE);
        ASSERT_TRUE(WaitPolls(cam, 4));
        // The waiting poll wakes for the first record; the next two polls fail.
        cam->FailPolls(EINTR, 2);
        cam->Push({NOTIFICATION_BOF});
        ASSERT_TRUE(g_rec.WaitFor(1));
        cam->Push({NOTIFICATION_EOF});
        ASSERT_TRUE(g_rec.WaitFor(2)) << "the thread must go on after poll errors";
        EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
        ASSERT_EQ(g_rec.Got().size(), 2u);
      }))
    return;
  LogFile log = Log();
  EXPECT_TRUE(TraceIsBalanced(log));
  EXPECT_EQ(log.Count('E', "_kernel_notif_thread", ">>> 'tavikSW_0': Poll error 4 (Interrupted system call)"), 2u)
      << log.Dump();
  EXPECT_EQ(log.Count('E', "_kernel_notif_thread", Re(">>> 'tavikSW_0': Poll error 11 .*")), 0u);
}

TEST_F(Notifications, StopWakesAThreadBlockedInPoll) {
  WithCamera([&](Session&, tavik_driver_device* d, SimCamera* cam) {
    size_t threads = CountThreads();
    ASSERT_EQ(d->start_notif_thread(d, Callback), KZ_ERR_NONE);
    ASSERT_TRUE(WaitPolls(cam, 1)) << "the thread never waited";
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
    auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), 2000);
    EXPECT_EQ(SettledThreadCount(threads), threads) << "the notification thread must be joined by stop";
    EXPECT_EQ(cam->Requests(), 0);
    EXPECT_TRUE(g_rec.Got().empty());
  });
}

TEST_F(Notifications, StopWithoutStartAndStartStopStartOnOneOpenDevice) {
  WithCamera([&](Session&, tavik_driver_device* d, SimCamera* cam) {
    EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
    size_t fds = CountOpenFds();
    size_t threads = CountThreads();
    for (int round = 0; round < 2; ++round) {
      ASSERT_EQ(d->start_notif_thread(d, Callback), KZ_ERR_NONE);
      EXPECT_EQ(CountOpenFds(), fds + 2) << "the abort pipe";
      cam->Push({NOTIFICATION_SYS_SUSPEND});
      ASSERT_TRUE(g_rec.WaitFor(static_cast<size_t>(round + 1)));
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      EXPECT_EQ(CountOpenFds(), fds) << "round " << round;
      EXPECT_EQ(SettledThreadCount(threads), threads) << "round " << round;
    }
    EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE) << "a second stop";
  });
}

// Run without a log: while every descriptor is taken, nothing else in the
// process may need one (a sanitizer runtime probing memory through a pipe on
// the log's worker thread would misreport).
TEST_F(Notifications, PipeFailureLeavesNothingBehind) {
  RunInChild([&](ChildContext&) {
    EnterPrivateDev();
    MakeFifo("tavikSW_0");
    Session s;
    TAVIK_INIT_SESSION(s);
    tavik_driver_device* d = s.ddi.devices[0];
    ASSERT_EQ(d->open(d), KZ_ERR_NONE);
    size_t fds = CountOpenFds();
    // Fill every descriptor below a lowered limit, so pipe() gets EMFILE.
    struct rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    int highest = 0;
    for (int fd = 0; fd < 4096; ++fd)
      if (fcntl(fd, F_GETFD) != -1) highest = fd;
    struct rlimit low = old;
    low.rlim_cur = static_cast<rlim_t>(highest + 1);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> fillers;
    for (int fd; (fd = dup(0)) >= 0;) fillers.push_back(fd);
    int16 rc = d->start_notif_thread(d, Callback);
    std::string text = s.lib.LastError();
    for (int fd : fillers) close(fd);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(rc, KZ_ERR_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(text, "Cannot create abort pipe for notification thread, error 24 (Too many open files)");
    EXPECT_EQ(CountOpenFds(), fds);
    // The pipe descriptors were left at -1: a stop must close nothing of ours.
    int a = dup(0), b = dup(0);
    EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
    EXPECT_NE(fcntl(a, F_GETFD), -1) << "stop closed a descriptor it did not own";
    EXPECT_NE(fcntl(b, F_GETFD), -1) << "stop closed a descriptor it did not own";
    close(a);
    close(b);
    // And the device starts cleanly afterwards.
    ASSERT_EQ(d->start_notif_thread(d, Callback), KZ_ERR_NONE);
    EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
    EXPECT_EQ(d->close(d), KZ_ERR_NONE);
    TAVIK_UNINIT_SESSION(s);
  });
}

}  // namespace
}  // namespace tavik_test
