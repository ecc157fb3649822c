// The module on its own: its exports, its configuration, the cameras' state rules,
// request codes, reads and writes, and the last-error buffer rules.
#include <dlfcn.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "EmulatorHarness.h"

using namespace emu;

namespace {

// Loads and initialises the module with the given environment, hands its cameras
// to the body, then uninitialises and unloads it.
void WithModule(const std::function<void(Module&)>& body) {
  Module m;
  if (!m.Load()) return;
  ASSERT_TRUE(m.Init());
  body(m);
  m.Uninit();
  m.Unload();
}

// Captures what the module prints on standard error during fn.
std::string CaptureStderr(const std::function<void()>& fn) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  fflush(stderr);
  const int saved = dup(2);
  dup2(fds[1], 2);
  close(fds[1]);
  fn();
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  fcntl(fds[0], F_SETFL, O_NONBLOCK);
  std::string out;
  char buf[512];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  return out;
}

uint64_t MonotonicUs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

}  // namespace

TEST(EmulatorModule, ExportsOnlyTheThreeEntryPointsAndServesVirtual) {
  RunInChild([] {
    Module m;
    ASSERT_TRUE(m.Load());
    EXPECT_EQ(m.type(), TAVIK_DRIVER_TYPE_VIRTUAL);
    // Internals and the standard library's instances stay inside the module.
    EXPECT_EQ(dlsym(m.handle, "_ZN13tavik_virtual13VirtualCamera4OpenEv"), nullptr);
    EXPECT_EQ(dlsym(m.handle, "_virtual_dev_open"), nullptr);
    void* sym = dlsym(m.handle, "init");
    Dl_info info{};
    ASSERT_NE(dladdr(sym, &info), 0);
    EXPECT_NE(strstr(info.dli_fname, "tavik_virtual.x86_64.umd"), nullptr);
    m.Unload();
  });
}

TEST(EmulatorModule, DefaultIsOneCompleteCameraOwnedByTheDriver) {
  RunInChild([] {
    unsetenv("TAVIK_VIRTUAL_CAMERAS");
    WithModule([](Module& m) {
      auto devs = m.Devices();
      ASSERT_EQ(devs.size(), 1u);
      tavik_driver_device* d = devs[0];
      EXPECT_EQ(d->driver, &m.driver);
      EXPECT_STREQ(d->name, "tavikSW_0");
      EXPECT_STREQ(d->file_path, "virtual:tavikSW_0");
      EXPECT_TRUE(d->open && d->close && d->read && d->write && d->ioctl && d->last_error_msg &&
                  d->start_notif_thread && d->stop_notif_thread);
      EXPECT_NE(d->private_, nullptr);
      EXPECT_EQ(d->device_word, 0u);
    });
  });
}

TEST(EmulatorModule, CameraCountFromEnvironmentWithFallbackForBadValues) {
  RunInChild([] {
    setenv("TAVIK_VIRTUAL_CAMERAS", "16", 1);
    std::string err = CaptureStderr([] {
      WithModule([](Module& m) {
        auto devs = m.Devices();
        ASSERT_EQ(devs.size(), 16u);
        EXPECT_STREQ(devs[15]->name, "tavikSW_15");
      });
    });
    EXPECT_EQ(err, "");
    for (const char* bad : {"0", "17", "abc", "-1", " 3", "3 ", "+2", "99999999999999999999999"}) {
      setenv("TAVIK_VIRTUAL_CAMERAS", bad, 1);
      err = CaptureStderr([] { WithModule([](Module& m) { EXPECT_EQ(m.Devices().size(), 1u); }); });
      EXPECT_EQ(err, std::string("tavik_virtual: TAVIK_VIRTUAL_CAMERAS='") + bad +
                         "' is not a number from 1 to 16, using 1\n");
    }
    setenv("TAVIK_VIRTUAL_CAMERAS", "", 1);
    err = CaptureStderr([] { WithModule([](Module& m) { EXPECT_EQ(m.Devices().size(), 1u); }); });
    EXPECT_EQ(err, "") << "an empty value means unset";
  });
}

TEST(EmulatorModule, FrameRateFromEnvironmentAndItsFallback) {
  RunInChild([] {
    setenv("TAVIK_VIRTUAL_FPS", "10001", 1);
    std::string err = CaptureStderr([] { WithModule([](Module&) {}); });
    EXPECT_EQ(err, "tavik_virtual: TAVIK_VIRTUAL_FPS='10001' is not a number from 1 to 10000, using 10\n");
    // The configured rate is the one an acquisition with fps 0 runs at: 5 frames
    // at 200 fps take 25 ms, at the default 10 fps they would take 500 ms.
    setenv("TAVIK_VIRTUAL_FPS", "200", 1);
    WithModule([](Module& m) {
      tavik_driver_device* d = m.Devices()[0];
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      const uint64_t t0 = MonotonicUs();
      ASSERT_EQ(SetActive(d, 0, 5), KZ_ERR_NONE);
      EXPECT_TRUE(WaitFor([&] { return Status(d).status == EXP_ST_COLLECT_DONE_I; }, 2000));
      EXPECT_LT(MonotonicUs() - t0, 400000u);
      EXPECT_EQ(Status(d).frame_count, 5u);
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
    });
  });
}

TEST(EmulatorModule, OpenCloseStateRulesAndTexts) {
  RunInChild([] {
    WithModule([](Module& m) {
      tavik_driver_device* d = m.Devices()[0];
      uns8 buf[16];
      uns16 n = 77;
      uns32 v = 0;
      // Closed: every I/O is a state error with the kernel devices' text.
      EXPECT_EQ(d->read(d, buf, sizeof buf, &n), KZ_ERR_STATE_INVALID);
      EXPECT_EQ(LastErrorOf(d), "Invalid file handle");
      EXPECT_EQ(n, 77) << "a failed read leaves the count alone";
      EXPECT_EQ(d->write(d, buf, sizeof buf, &n), KZ_ERR_STATE_INVALID);
      EXPECT_EQ(LastErrorOf(d), "Invalid file handle");
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_GET_DRIVER_API_VERSION, &v), KZ_ERR_STATE_INVALID);
      EXPECT_EQ(LastErrorOf(d), "Invalid file handle");
      EXPECT_EQ(d->close(d), KZ_ERR_STATE_INVALID);
      EXPECT_EQ(LastErrorOf(d), "Device already closed");

      EXPECT_EQ(d->open(d), KZ_ERR_NONE);
      EXPECT_EQ(d->open(d), KZ_ERR_STATE_INVALID);
      EXPECT_EQ(LastErrorOf(d), "Device already open");
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_GET_DRIVER_API_VERSION, &v), KZ_ERR_NONE)
          << "the failed second open kept the camera open";
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
      EXPECT_EQ(d->close(d), KZ_ERR_STATE_INVALID);
      EXPECT_EQ(d->open(d), KZ_ERR_NONE) << "a closed camera opens again";
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
    });
  });
}

TEST(EmulatorModule, ForeignOrNullDeviceIsRefused) {
  RunInChild([] {
    WithModule([](Module& m) {
      tavik_driver_device* d = m.Devices()[0];
      tavik_driver_device fake{};
      memcpy(&fake, d, sizeof fake);
      int dummy = 0;
      fake.private_ = reinterpret_cast<tavik_driver_device_private*>(&dummy);
      EXPECT_EQ(d->open(&fake), KZ_ERR_DEVICE_HANDLE_INVALID);
      EXPECT_EQ(LastErrorOf(d), "Device 'tavikSW_0' does not belong to the camera emulator");
      EXPECT_EQ(d->open(nullptr), KZ_ERR_DEVICE_HANDLE_INVALID);
      EXPECT_EQ(LastErrorOf(d), "Device is null");
    });
  });
}

TEST(EmulatorModule, LastErrorBufferRulesAndPerThreadText) {
  RunInChild([] {
    WithModule([](Module& m) {
      tavik_driver_device* d = m.Devices()[0];
      ASSERT_EQ(d->close(d), KZ_ERR_STATE_INVALID);  // "Device already closed", 21 chars
      char buf[32];
      memset(buf, 'x', sizeof buf);
      EXPECT_EQ(d->last_error_msg(d, nullptr, 0), 22u);
      EXPECT_EQ(d->last_error_msg(d, buf, 0), 22u);
      EXPECT_EQ(buf[0], 'x') << "size 0 copies nothing";
      EXPECT_EQ(d->last_error_msg(d, buf, 4), 22u);
      EXPECT_EQ(std::string(buf, 4), std::string("Dev\0", 4));
      EXPECT_EQ(buf[4], 'x') << "nothing written past the given size";
      EXPECT_EQ(d->last_error_msg(d, buf, 1), 22u);
      EXPECT_EQ(buf[0], '\0');
      EXPECT_EQ(d->last_error_msg(d, buf, sizeof buf), 22u);
      EXPECT_STREQ(buf, "Device already closed");
      // Another thread has its own (empty) text and does not disturb this one.
      uns32 other = 0;
      std::thread([&] {
        other = d->last_error_msg(d, nullptr, 0);
        d->open(d);
        d->open(d);  // sets "Device already open" on that thread only
      }).join();
      EXPECT_EQ(other, 1u);
      EXPECT_EQ(LastErrorOf(d), "Device already closed");
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
    });
  });
}

TEST(EmulatorModule, RequestCodesItAnswers) {
  RunInChild([] {
    WithModule([](Module& m) {
      tavik_driver_device* d = m.Devices()[0];
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      uns32 api = 0;
      uns16 ver = 0, caps = 0;
      uint64_t stamp = 0;
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_GET_DRIVER_API_VERSION, &api), KZ_ERR_NONE);
      EXPECT_EQ(api, 0x00010000u);
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_GET_DRIVER_VERSION, &ver), KZ_ERR_NONE);
      EXPECT_EQ(ver, 0x0100u);
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_GET_DRIVER_CAPABILITIES, &caps), KZ_ERR_NONE);
      EXPECT_EQ(caps, 0x0004u);
      const uint64_t before = MonotonicUs();
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_GET_CURRENT_TIME_STAMP, &stamp), KZ_ERR_NONE);
      const uint64_t after = MonotonicUs();
      EXPECT_GE(stamp, before);
      EXPECT_LE(stamp, after);
      const auto idle = Status(d);
      EXPECT_EQ(idle.frame_count, 0u);
      EXPECT_EQ(idle.status, EXP_ST_NO_DATA_I);
      EXPECT_EQ(idle.frames_dropped, 0u);
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr), KZ_ERR_NONE) << "abort when idle";
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
    });
  });
}

TEST(EmulatorModule, RequestCodesItRefuses) {
  RunInChild([] {
    WithModule([](Module& m) {
      tavik_driver_device* d = m.Devices()[0];
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      uint64_t arg[8] = {};
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_GET_IRQS, arg), KZ_ERR_DDI_DEVICE_IOCTL_FAILED);
      EXPECT_EQ(LastErrorOf(d), "Request 0x80083d15 is not supported by camera 'tavikSW_0'");
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_GET_NOTIFICATIONS, arg), KZ_ERR_DDI_DEVICE_IOCTL_FAILED);
      EXPECT_EQ(d->ioctl(d, 0x12345678u, nullptr), KZ_ERR_DDI_DEVICE_IOCTL_FAILED);
      EXPECT_EQ(LastErrorOf(d), "Request 0x12345678 is not supported by camera 'tavikSW_0'");
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_ACQ_GET_STATUS, nullptr), KZ_ERR_DDI_DEVICE_IOCTL_FAILED);
      EXPECT_EQ(LastErrorOf(d), "Null argument for request 0x80103d0b");
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_ACQ_SET_ACTIVE, nullptr), KZ_ERR_DDI_DEVICE_IOCTL_FAILED);
      EXPECT_EQ(LastErrorOf(d), "Null argument for request 0x40203d0a");

      tavik_virtual_acq_setup setup{};
      setup.reserved[23] = 1;
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_ACQ_SET_ACTIVE, &setup), KZ_ERR_DDI_DEVICE_IOCTL_FAILED);
      EXPECT_EQ(LastErrorOf(d), "Reserved bytes of the acquisition setup must be zero");
      EXPECT_EQ(SetActive(d, 10001), KZ_ERR_DDI_DEVICE_IOCTL_FAILED);
      EXPECT_EQ(LastErrorOf(d), "Frame rate 10001 is outside 1 to 10000");
      EXPECT_EQ(Status(d).status, EXP_ST_NO_DATA_I) << "refused setups start nothing";

      ASSERT_EQ(SetActive(d, 1000), KZ_ERR_NONE);
      EXPECT_EQ(SetActive(d, 1000), KZ_ERR_STATE_INVALID);
      EXPECT_EQ(LastErrorOf(d), "Acquisition already active");
      EXPECT_EQ(d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr), KZ_ERR_NONE);
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
    });
  });
}

TEST(EmulatorModule, ReadReturnsTheLatestWholeFrameAndWriteDiscards) {
  RunInChild([] {
    WithModule([](Module& m) {
      tavik_driver_device* d = m.Devices()[0];
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      static uns8 buf[TAVIK_VIRTUAL_FRAME_BYTES + 100];
      uns16 n = 99;
      EXPECT_EQ(d->read(d, buf, sizeof buf, &n), KZ_ERR_NONE);
      EXPECT_EQ(n, 0) << "no frame before the first acquisition";
      EXPECT_EQ(d->read(d, nullptr, 8, &n), KZ_ERR_DDI_DEVICE_READ_FAILED);
      EXPECT_EQ(LastErrorOf(d), "Null data buffer for 8 bytes");
      EXPECT_EQ(d->read(d, nullptr, 0, &n), KZ_ERR_NONE);

      ASSERT_EQ(SetActive(d, 500, 3), KZ_ERR_NONE);
      ASSERT_TRUE(WaitFor([&] { return Status(d).status == EXP_ST_COLLECT_DONE_I; }, 2000));
      EXPECT_EQ(d->read(d, buf, sizeof buf, &n), KZ_ERR_NONE);
      ASSERT_EQ(n, TAVIK_VIRTUAL_FRAME_BYTES) << "a larger buffer gets exactly one frame";
      uint64_t seen = 0;
      EXPECT_EQ(CheckFrame(buf, n, 3, &seen), FrameCheck::Match) << "frame " << seen;
      tavik_virtual_frame_header h;
      memcpy(&h, buf, sizeof h);
      EXPECT_EQ(h.camera_index, 0u);
      // A short read gets the start of the frame, from offset 0 every time.
      uns8 small[8];
      EXPECT_EQ(d->read(d, small, sizeof small, &n), KZ_ERR_NONE);
      EXPECT_EQ(n, 8);
      EXPECT_EQ(memcmp(small, buf, 8), 0);
      EXPECT_EQ(d->read(d, small, sizeof small, nullptr), KZ_ERR_NONE) << "count pointer optional";

      EXPECT_EQ(d->write(d, buf, 100, &n), KZ_ERR_NONE);
      EXPECT_EQ(n, 100);
      EXPECT_EQ(d->write(d, nullptr, 1, &n), KZ_ERR_DDI_DEVICE_WRITE_FAILED);
      EXPECT_EQ(LastErrorOf(d), "Null data buffer for 1 bytes");
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);

      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      EXPECT_EQ(d->read(d, buf, sizeof buf, &n), KZ_ERR_NONE);
      EXPECT_EQ(n, 0) << "a reopened camera starts without a frame";
      EXPECT_EQ(Status(d).frame_count, 0u);
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
    });
  });
}

TEST(EmulatorModule, ReadsNeverTearWhileTheClockRunsFast) {
  RunInChild([] {
    WithModule([](Module& m) {
      tavik_driver_device* d = m.Devices()[0];
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      ASSERT_EQ(SetActive(d, 10000), KZ_ERR_NONE);
      static uns8 buf[TAVIK_VIRTUAL_FRAME_BYTES];
      uint64_t last = 0, reads = 0, torn = 0, backwards = 0;
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
      while (std::chrono::steady_clock::now() < end) {
        uns16 n = 0;
        ASSERT_EQ(d->read(d, buf, sizeof buf, &n), KZ_ERR_NONE);
        if (n == 0) continue;
        uint64_t seen = 0;
        if (CheckFrame(buf, n, 0, &seen) == FrameCheck::Torn) ++torn;
        if (seen < last) ++backwards;
        last = seen;
        ++reads;
      }
      EXPECT_EQ(torn, 0u) << "of " << reads << " reads";
      EXPECT_EQ(backwards, 0u);
      EXPECT_GT(last, 100u) << "the clock did run";
      EXPECT_EQ(d->close(d), KZ_ERR_NONE) << "close aborts the running acquisition";
    });
  });
}
