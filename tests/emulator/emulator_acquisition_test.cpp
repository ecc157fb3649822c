// Long acquisitions, many cameras and start/stop/abort churn, all through the
// shipped library as the core drives the emulated cameras.
#include <random>
#include <thread>

#include "EmulatorHarness.h"

using namespace emu;

namespace {

// Waits until every frame the clock emitted has been delivered as a pair.
bool Drained(tavik_driver_device* d, unsigned index) {
  return WaitFor(
      [&] { return g_recorders[index].eofs.load() == Status(d).frame_count; }, 3000);
}

}  // namespace

TEST(EmulatorAcquisition, TenSecondsAtOneHundredFpsLoseNothing) {
  RunInChild(
      [] {
        unsetenv("TAVIK_VIRTUAL_CAMERAS");
        const size_t fds = CountOpenFds();
        const size_t threads = CountThreads();
        {
          CameraSource src;
          ASSERT_TRUE(src.Open(1));
          tavik_driver_device* d = src.cameras[0];
          Recorder& r = g_recorders[0];
          r.Reset(true);
          ASSERT_EQ(d->open(d), KZ_ERR_NONE);
          ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
          ASSERT_EQ(SetActive(d, 100), KZ_ERR_NONE);
          std::this_thread::sleep_for(std::chrono::seconds(10));
          ASSERT_EQ(d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr), KZ_ERR_NONE);
          ASSERT_TRUE(Drained(d, 0));
          const auto st = Status(d);
          ASSERT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
          ASSERT_EQ(d->close(d), KZ_ERR_NONE);

          EXPECT_GE(st.frame_count, 990u);
          EXPECT_LE(st.frame_count, 1010u);
          EXPECT_EQ(st.frames_dropped, 0u);
          ASSERT_EQ(r.events.size(), 2 * st.frame_count);
          EXPECT_EQ(CheckPairs(r.events, 1), "");
          size_t mismatched = 0;
          for (const Event& e : r.events)
            if (e.frame != FrameCheck::Match) ++mismatched;
          EXPECT_EQ(mismatched, 0u) << "frames read on EOF that were not that frame";
          src.Close();
        }
        EXPECT_EQ(CountOpenFds(), fds);
        EXPECT_EQ(SettledThreadCount(threads), threads);
      },
      90);
}

TEST(EmulatorAcquisition, SixteenCamerasAtOnceEachInOrder) {
  RunInChild(
      [] {
        setenv("TAVIK_VIRTUAL_CAMERAS", "16", 1);
        const size_t threads = CountThreads();
        CameraSource src;
        ASSERT_TRUE(src.Open(16));
        for (size_t i = 0; i < 16; ++i) {
          tavik_driver_device* d = src.cameras[i];
          g_recorders[i].Reset(true);
          ASSERT_EQ(d->open(d), KZ_ERR_NONE);
          ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
        }
        for (tavik_driver_device* d : src.cameras) ASSERT_EQ(SetActive(d, 100), KZ_ERR_NONE);
        std::this_thread::sleep_for(std::chrono::seconds(3));
        for (tavik_driver_device* d : src.cameras)
          ASSERT_EQ(d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr), KZ_ERR_NONE);
        for (size_t i = 0; i < 16; ++i) {
          tavik_driver_device* d = src.cameras[i];
          ASSERT_TRUE(Drained(d, static_cast<unsigned>(i)));
          const auto st = Status(d);
          ASSERT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
          ASSERT_EQ(d->close(d), KZ_ERR_NONE);
          const Recorder& r = g_recorders[i];
          EXPECT_GE(st.frame_count, 290u) << "camera " << i;
          EXPECT_EQ(st.frames_dropped, 0u) << "camera " << i;
          EXPECT_EQ(CheckPairs(r.events, 1), "") << "camera " << i;
          for (const Event& e : r.events) {
            ASSERT_EQ(e.payload.camera_index, i) << "a record went to the wrong camera";
            ASSERT_EQ(e.frame, FrameCheck::Match) << "camera " << i << " frame "
                                                  << e.payload.frame_number;
          }
        }
        src.Close();
        EXPECT_EQ(SettledThreadCount(threads), threads);
      },
      90);
}

TEST(EmulatorAcquisition, StartStopAndAbortChurnUnderLoad) {
  RunInChild(
      [] {
        setenv("TAVIK_VIRTUAL_CAMERAS", "16", 1);
        const size_t fds = CountOpenFds();
        const size_t threads = CountThreads();
        {
          CameraSource src;
          ASSERT_TRUE(src.Open(16));
          for (tavik_driver_device* d : src.cameras) ASSERT_EQ(d->open(d), KZ_ERR_NONE);
          std::mt19937 rng(12345);
          for (int round = 0; round < 40; ++round) {
            for (size_t i = 0; i < 16; ++i) {
              g_recorders[i].Reset(true);
              tavik_driver_device* d = src.cameras[i];
              // Orders vary per camera: notifications before or after the clock.
              if (rng() % 2) {
                ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
                ASSERT_EQ(SetActive(d, 1000), KZ_ERR_NONE);
              } else {
                ASSERT_EQ(SetActive(d, 1000), KZ_ERR_NONE);
                ASSERT_EQ(d->start_notif_thread(d, RecordingCallback), KZ_ERR_NONE);
              }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 8));
            for (size_t i = 0; i < 16; ++i) {
              tavik_driver_device* d = src.cameras[i];
              switch (rng() % 3) {
                case 0:  // abort, then stop
                  ASSERT_EQ(d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr), KZ_ERR_NONE);
                  ASSERT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
                  break;
                case 1:  // stop while frames still come, then abort
                  ASSERT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
                  ASSERT_EQ(d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr), KZ_ERR_NONE);
                  break;
                default:  // close and reopen ends the acquisition too
                  ASSERT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
                  ASSERT_EQ(d->close(d), KZ_ERR_NONE);
                  ASSERT_EQ(d->open(d), KZ_ERR_NONE);
                  break;
              }
              // Whatever arrived in this session is whole pairs in rising order (frames
              // before a late start are not queued; a BOF whose EOF was cut off by the
              // stop may end it).
              std::vector<Event> ev = g_recorders[i].events;
              if (ev.size() % 2 == 1) ev.pop_back();
              ASSERT_EQ(CheckPairs(ev, 1, true), "") << "round " << round << " camera " << i;
            }
          }
          for (tavik_driver_device* d : src.cameras) ASSERT_EQ(d->close(d), KZ_ERR_NONE);
          src.Close();
        }
        EXPECT_EQ(SettledThreadCount(threads), threads);
        EXPECT_EQ(CountOpenFds(), fds);
      },
      120);
}
