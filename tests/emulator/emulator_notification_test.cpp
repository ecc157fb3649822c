// The cameras' notification threads: records, start/stop rules, promptness,
// overflow accounting and callbacks that call back into their camera.
#include <cstring>
#include <thread>

#include "EmulatorHarness.h"

using namespace emu;

namespace {

void WithCamera(const std::function<void(tavik_driver_device*)>& body) {
  Module m;
  if (!m.Load()) return;
  ASSERT_TRUE(m.Init());
  tavik_driver_device* d = m.Devices().at(0);
  ASSERT_EQ(d->open(d), KZ_ERR_NONE);
  body(d);
  m.Uninit();
  m.Unload();
}

int64_t MsSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t)
      .count();
}

}  // namespace

TEST(EmulatorNotifications, LimitedAcquisitionDeliversWellFormedPairsThenComplete) {
  RunInChild([] {
    WithCamera([](tavik_driver_device* d) {
      Recorder& r = g_recorders[0];
      r.Reset(true);
      ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
      ASSERT_EQ(SetActive(d, 200, 5), KZ_ERR_NONE);
      ASSERT_TRUE(WaitFor([&] { return r.delivered.load() == 11; }, 3000)) << r.delivered;
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      ASSERT_EQ(r.events.size(), 11u);
      EXPECT_EQ(CheckPairs(r.events, 1), "");
      EXPECT_EQ(r.events.back().type, NOTIFICATION_COMPLETE);
      // Nominal stamps: one period (5000 us at 200 fps) apart, exactly.
      for (size_t i = 2; i < 10; i += 2)
        EXPECT_EQ(r.events[i].payload.time_stamp_us - r.events[i - 2].payload.time_stamp_us, 5000u);
      for (const Event& e : r.events) {
        EXPECT_EQ(e.payload.camera_index, 0u);
        EXPECT_EQ(e.payload.reserved, 0u);
        EXPECT_EQ(e.frame, FrameCheck::Match);
      }
      const auto st = Status(d);
      EXPECT_EQ(st.frame_count, 5u);
      EXPECT_EQ(st.status, EXP_ST_COLLECT_DONE_I);
      EXPECT_EQ(st.frames_dropped, 0u);
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
    });
  });
}

TEST(EmulatorNotifications, StartAndStopRules) {
  RunInChild([] {
    WithCamera([](tavik_driver_device* d) {
      Recorder& r = g_recorders[0];
      r.Reset(false);
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE) << "stop without start";
      EXPECT_EQ(d->start_notif_thread(d, nullptr), KZ_ERR_NULL_POINTER);
      EXPECT_EQ(LastErrorOf(d), "Callback function is null");
      const size_t threads = CountThreads();
      ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
      EXPECT_EQ(SettledThreadCount(threads + 1), threads + 1);
      EXPECT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_STATE_INVALID);
      EXPECT_EQ(LastErrorOf(d), "Notification thread already running");
      EXPECT_EQ(SettledThreadCount(threads + 1), threads + 1) << "a refused start makes no thread";
      // The first thread still delivers after the refused start.
      ASSERT_EQ(SetActive(d, 1000, 3), KZ_ERR_NONE);
      EXPECT_TRUE(WaitFor([&] { return r.delivered.load() == 7; }, 3000));
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE) << "second stop";
      EXPECT_EQ(SettledThreadCount(threads), threads);
      // Stop then start again works, on a fresh queue.
      r.Reset(false);
      ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
      ASSERT_EQ(SetActive(d, 1000, 2), KZ_ERR_NONE);
      EXPECT_TRUE(WaitFor([&] { return r.delivered.load() == 5; }, 3000));
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      EXPECT_EQ(CheckPairs(r.events, 1), "");
    });
  });
}

TEST(EmulatorNotifications, NothingIsDeliveredWithoutAnAcquisitionAndIdleCostsNoCpu) {
  RunInChild([] {
    WithCamera([](tavik_driver_device* d) {
      Recorder& r = g_recorders[0];
      r.Reset(false);
      ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
      const clock_t cpu0 = clock();
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      const double cpuMs = 1000.0 * static_cast<double>(clock() - cpu0) / CLOCKS_PER_SEC;
      EXPECT_LT(cpuMs, 30.0) << "an idle notification thread must block, not spin";
      EXPECT_EQ(r.delivered.load(), 0u);
      const auto t = std::chrono::steady_clock::now();
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      EXPECT_LT(MsSince(t), 100) << "stop of an idle thread is prompt";
    });
  });
}

TEST(EmulatorNotifications, StopIsPromptWithASlowCallbackAndAFullQueue) {
  RunInChild([] {
    WithCamera([](tavik_driver_device* d) {
      Recorder& r = g_recorders[0];
      r.Reset(false);
      r.sleepUsPerCallback = 20000;  // 20 ms per record against a 1 ms frame period
      ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
      ASSERT_EQ(SetActive(d, 1000), KZ_ERR_NONE);
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      const auto t = std::chrono::steady_clock::now();
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      EXPECT_LT(MsSince(t), 200) << "stop waits for one callback, not for the queue";
      const auto st = Status(d);
      EXPECT_GT(st.frames_dropped, 0u) << "an overflowing queue counts what it drops";
      // Delivered pairs stay whole and in order, with gaps where pairs were dropped.
      EXPECT_EQ(CheckPairs(r.events, 1, true), "");
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr), KZ_ERR_NONE);
    });
  });
}

TEST(EmulatorNotifications, CallbackMayCallIntoItsCameraButNotStopItsOwnThread) {
  RunInChild([] {
    WithCamera([](tavik_driver_device* d) {
      Recorder& r = g_recorders[0];
      r.Reset(true);
      std::atomic<int16> stopRc{-1};
      std::atomic<int16> abortRc{-1};
      std::string stopText;
      r.hook = [&](tavik_driver_device* dev, const tavik_notif* n) {
        tavik_virtual_notif_payload p;
        memcpy(&p, n->payload, sizeof p);
        if (n->type == NOTIFICATION_EOF && p.frame_number == 3) {
          stopRc = dev->stop_notif_thread(dev);
          stopText = LastErrorOf(dev);
          abortRc = dev->ioctl(dev, TAVIK_IOC_ACQ_ABORT, nullptr);  // joins the clock
        }
      };
      ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
      ASSERT_EQ(SetActive(d, 500), KZ_ERR_NONE);
      ASSERT_TRUE(WaitFor([&] { return abortRc.load() != -1; }, 3000));
      EXPECT_EQ(stopRc.load(), KZ_ERR_STATE_INVALID);
      EXPECT_EQ(abortRc.load(), KZ_ERR_NONE);
      EXPECT_TRUE(WaitFor([&] { return Status(d).status == EXP_ST_COLLECT_DONE_I; }, 1000));
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      EXPECT_EQ(stopText, "Cannot stop the notification thread from its own callback");
      EXPECT_EQ(CheckPairs(r.events, 1), "");
    });
  });
}

TEST(EmulatorNotifications, CloseEndsTheFramesButNotTheThread) {
  RunInChild([] {
    WithCamera([](tavik_driver_device* d) {
      Recorder& r = g_recorders[0];
      r.Reset(false);
      ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
      ASSERT_EQ(SetActive(d, 1000), KZ_ERR_NONE);
      ASSERT_TRUE(WaitFor([&] { return r.delivered.load() >= 20; }, 3000));
      ASSERT_EQ(d->close(d), KZ_ERR_NONE);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      const uint64_t settled = r.delivered.load();
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      EXPECT_EQ(r.delivered.load(), settled) << "no frames after close";
      // The thread is still there: a reopened camera delivers through it again.
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      ASSERT_EQ(SetActive(d, 1000, 2), KZ_ERR_NONE);
      EXPECT_TRUE(WaitFor([&] { return r.delivered.load() == settled + 5; }, 3000));
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
    });
  });
}

TEST(EmulatorNotifications, UninitStopsEverythingTheCoreLeftRunning) {
  RunInChild([] {
    setenv("TAVIK_VIRTUAL_CAMERAS", "16", 1);
    const size_t fds = CountOpenFds();
    const size_t threads = CountThreads();
    for (int cycle = 0; cycle < 5; ++cycle) {
      Module m;
      ASSERT_TRUE(m.Load());
      ASSERT_TRUE(m.Init());
      const auto devs = m.Devices();
      for (size_t i = 0; i < devs.size(); ++i) {
        tavik_driver_device* d = devs[i];
        g_recorders[i].Reset(false);
        ASSERT_EQ(d->open(d), KZ_ERR_NONE);
        ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
        ASSERT_EQ(SetActive(d, 1000), KZ_ERR_NONE);
      }
      EXPECT_EQ(SettledThreadCount(threads + 32), threads + 32) << "one clock and one notifier per camera";
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      m.Uninit();  // no stop, no abort, no close: uninit must do it all
      EXPECT_EQ(SettledThreadCount(threads), threads);
      m.Unload();
    }
    EXPECT_EQ(SettledThreadCount(threads), threads);
    EXPECT_EQ(CountOpenFds(), fds);
  });
}
