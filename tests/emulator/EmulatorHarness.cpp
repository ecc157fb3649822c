#include "EmulatorHarness.h"

#include "support/ThreadCount.h"

#include <dirent.h>
#include <dlfcn.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace emu {

namespace {
constexpr int kSkipExit = 77;
}  // namespace

void SkipChild(const std::string& reason) {
  fprintf(stderr, "[  SKIPPED ] %s\n", reason.c_str());
  fflush(stderr);
  _exit(kSkipExit);
}

void RunInChild(const std::function<void()>& body, int timeoutSec) {
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  ASSERT_NE(pid, -1) << "fork: " << strerror(errno);
  if (pid == 0) {
    // ThreadSanitizer starts a helper thread at the first thread creation; start
    // it now, so that the cases' thread-count baselines already include it.
    std::thread([] {}).join();
    body();
    fflush(stdout);
    // exit(), not _exit(): sanitizers run their leak check at exit.
    exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSec);
  int status = 0;
  for (;;) {
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) break;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      FAIL() << "child did not finish within " << timeoutSec << " s (hang?)";
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipExit) GTEST_SKIP() << "skipped in child";
  ASSERT_TRUE(WIFEXITED(status)) << "child died with signal " << WTERMSIG(status);
  ASSERT_EQ(WEXITSTATUS(status), 0) << "child failed (its output is above)";
}

static size_t CountDir(const char* path) {
  size_t n = 0;
  DIR* d = opendir(path);
  if (d == nullptr) return 0;
  while (dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) ++n;
  }
  closedir(d);
  return n - (strcmp(path, "/proc/self/fd") == 0 ? 1 : 0);  // the DIR's own descriptor
}

size_t CountOpenFds() { return CountDir("/proc/self/fd"); }
size_t CountThreads() { return tavik_test::CountThreadsSettled(); }
size_t SettledThreadCount(size_t expected) { return tavik_test::SettledThreadCount(expected); }

// ---------------------------------------------------------------- Module

Module::~Module() {
  Uninit();
  Unload();
}

bool Module::Load() {
  handle = dlopen(TAVIK_EMU_MODULE_PATH, RTLD_LAZY);
  EXPECT_NE(handle, nullptr) << dlerror();
  if (handle == nullptr) return false;
  init = reinterpret_cast<tavik_driver_init_fn>(dlsym(handle, "init"));
  uninit = reinterpret_cast<tavik_driver_uninit_fn>(dlsym(handle, "uninit"));
  type = reinterpret_cast<tavik_driver_type_fn>(dlsym(handle, "type"));
  EXPECT_NE(init, nullptr);
  EXPECT_NE(uninit, nullptr);
  EXPECT_NE(type, nullptr);
  return init != nullptr && uninit != nullptr && type != nullptr;
}

bool Module::Init() {
  memset(&driver, 0, sizeof driver);
  driver.handle = handle;
  driver.mode = TAVIK_DRIVER_MODE_USER;
  driver.init = init;
  driver.uninit = uninit;
  driver.type = type;
  initialised = init(&driver) == QX_OK;
  return initialised;
}

void Module::Uninit() {
  if (!initialised) return;
  uninit(&driver);
  initialised = false;
}

void Module::Unload() {
  if (handle == nullptr) return;
  EXPECT_EQ(dlclose(handle), 0) << dlerror();
  handle = nullptr;
}

static std::vector<tavik_driver_device*> ListOf(tavik_driver_device** list) {
  std::vector<tavik_driver_device*> out;
  for (tavik_driver_device** p = list; p != nullptr && *p != nullptr; ++p) out.push_back(*p);
  return out;
}

std::vector<tavik_driver_device*> Module::Devices() const { return ListOf(driver.device_list); }

// ---------------------------------------------------------------- Library

Library::~Library() {
  Uninit();
  Unload();
}

bool Library::Load(std::string* why) {
  handle = dlopen(TAVIK_EMU_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    *why = std::string("cannot load the library: ") + dlerror();
    return false;
  }
  init = reinterpret_cast<tavik_ddi_init_fn>(dlvsym(handle, "tavik_ddi_init", "TAVIK_DDI_3.0"));
  uninit =
      reinterpret_cast<tavik_ddi_uninit_fn>(dlvsym(handle, "tavik_ddi_uninit", "TAVIK_DDI_3.0"));
  lastError = reinterpret_cast<tavik_ddi_get_last_error_message_fn>(
      dlvsym(handle, "tavik_ddi_get_last_error_message", "TAVIK_DDI_3.0"));
  if (init == nullptr || uninit == nullptr || lastError == nullptr) {
    *why = "the library does not export its entry points yet";
    Unload();
    return false;
  }
  return true;
}

int16 Library::Init() {
  memset(&ddi, 0, sizeof ddi);
  const int16 rc = init(&ddi);
  initialised = rc == KZ_ERR_NONE;
  return rc;
}

int16 Library::Uninit() {
  if (!initialised) return KZ_ERR_NONE;
  initialised = false;
  return uninit(&ddi);
}

void Library::Unload() {
  if (handle == nullptr) return;
  EXPECT_EQ(dlclose(handle), 0) << dlerror();
  handle = nullptr;
}

std::vector<tavik_driver_device*> Library::Devices() const {
  std::vector<tavik_driver_device*> out;
  for (unsigned i = 0; i < ddi.cam_count && i < TAVIK_DDI_MAX_CAMERAS; ++i)
    out.push_back(ddi.devices[i]);
  return out;
}

// ---------------------------------------------------------------- CameraSource

bool CameraSource::Open(unsigned expectedCameras) {
  // Always through the shipped library, as the core reaches the cameras: a
  // library that cannot be loaded is a failure here, never a reason to drive
  // the module some other way.
  setenv("TAVIK_UMD_PATH", TAVIK_EMU_MODULE_DIR, 1);
  std::string why;
  if (!library_.Load(&why)) {
    ADD_FAILURE() << "cannot load the library: " << why;
    return false;
  }
  EXPECT_EQ(library_.Init(), KZ_ERR_NONE);
  for (tavik_driver_device* d : library_.Devices()) {
    if (d->driver != nullptr && d->driver->type != nullptr &&
        d->driver->type() == TAVIK_DRIVER_TYPE_VIRTUAL)
      cameras.push_back(d);
  }
  EXPECT_EQ(cameras.size(), expectedCameras);
  return cameras.size() == expectedCameras;
}

void CameraSource::Close() {
  cameras.clear();
  EXPECT_EQ(library_.Uninit(), KZ_ERR_NONE);
  library_.Unload();
}

// ---------------------------------------------------------------- frames and events

FrameCheck CheckFrame(const uns8* data, size_t bytes, uint64_t expectedNumber,
                      uint64_t* seenNumber) {
  if (bytes == 0) return FrameCheck::NoData;
  if (bytes != TAVIK_VIRTUAL_FRAME_BYTES) return FrameCheck::Torn;
  tavik_virtual_frame_header h;
  memcpy(&h, data, sizeof h);
  if (seenNumber != nullptr) *seenNumber = h.frame_number;
  if (h.check != ~h.frame_number || h.frame_bytes != TAVIK_VIRTUAL_FRAME_BYTES)
    return FrameCheck::Torn;
  for (uns32 j = 0; j < TAVIK_VIRTUAL_FRAME_WORDS; ++j) {
    uns16 px;
    memcpy(&px, data + sizeof h + 2 * j, sizeof px);
    // Written out rather than via the header's helper, so a wrong helper is caught.
    if (px != static_cast<uns16>(h.frame_number * 7u + j)) return FrameCheck::Torn;
  }
  return h.frame_number == expectedNumber ? FrameCheck::Match : FrameCheck::Overtaken;
}

Recorder g_recorders[TAVIK_VIRTUAL_MAX_CAMERAS];

void Recorder::Reset(bool read) {
  events.clear();
  events.reserve(1 << 14);
  delivered = 0;
  eofs = 0;
  readOnEof = read;
  sleepUsPerCallback = 0;
  hook = nullptr;
}

int16 RecordingCallback(tavik_driver_device* device, tavik_notif* notif) {
  Event e;
  e.size = notif->size;
  e.version = notif->version;
  e.type = notif->type;
  memcpy(&e.payload, notif->payload, sizeof e.payload);
  e.frame = FrameCheck::Match;
  if (e.payload.camera_index >= TAVIK_VIRTUAL_MAX_CAMERAS) {
    ADD_FAILURE() << "camera index " << e.payload.camera_index << " out of range";
    return KZ_ERR_INDEX_OUT_OF_RANGE;
  }
  Recorder& r = g_recorders[e.payload.camera_index];
  if (e.type == NOTIFICATION_EOF && r.readOnEof) {
    static thread_local uns8 buf[TAVIK_VIRTUAL_FRAME_BYTES];
    uns16 got = 0;
    const int16 rc = device->read(device, buf, sizeof buf, &got);
    e.frame = rc == KZ_ERR_NONE ? CheckFrame(buf, got, e.payload.frame_number, nullptr)
                                : FrameCheck::NoData;
  }
  if (r.hook) r.hook(device, notif);
  r.events.push_back(e);
  if (e.type == NOTIFICATION_EOF) r.eofs.fetch_add(1);
  r.delivered.fetch_add(1);
  if (int us = r.sleepUsPerCallback.load()) std::this_thread::sleep_for(std::chrono::microseconds(us));
  return KZ_ERR_NONE;
}

static const char* TypeName(uns32 t) {
  switch (t) {
    case NOTIFICATION_BOF: return "BOF";
    case NOTIFICATION_EOF: return "EOF";
    case NOTIFICATION_COMPLETE: return "COMPLETE";
    default: return "other";
  }
}

std::string CheckPairs(const std::vector<Event>& events, uint64_t firstFrame, bool allowGaps) {
  uint64_t expected = firstFrame;
  for (size_t i = 0; i < events.size(); ++i) {
    const Event& e = events[i];
    const std::string at = "event " + std::to_string(i) + " (" + TypeName(e.type) + " " +
                           std::to_string(e.payload.frame_number) + "): ";
    if (e.size != 32 || e.version != 1) return at + "malformed record";
    if (e.type == NOTIFICATION_COMPLETE) {
      if (i + 1 != events.size()) return at + "COMPLETE is not last";
      if (e.payload.frame_number != expected - 1) return at + "COMPLETE names the wrong frame";
      continue;
    }
    const bool bof = i % 2 == 0;
    if (e.type != (bof ? NOTIFICATION_BOF : NOTIFICATION_EOF)) return at + "pair order broken";
    if (bof) {
      if (allowGaps ? e.payload.frame_number < expected : e.payload.frame_number != expected)
        return at + "expected frame " + std::to_string(expected);
      expected = e.payload.frame_number;
    } else {
      if (e.payload.frame_number != expected) return at + "EOF does not match its BOF";
      ++expected;
    }
  }
  return "";
}

bool WaitFor(const std::function<bool()>& pred, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > deadline) return pred();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::string LastErrorOf(tavik_driver_device* device) {
  const uns32 need = device->last_error_msg(device, nullptr, 0);
  std::string s(need, '\0');
  device->last_error_msg(device, s.data(), need);
  s.resize(need > 0 ? need - 1 : 0);
  return s;
}

int16 SetActive(tavik_driver_device* device, uns32 fps, uns32 frameLimit) {
  tavik_virtual_acq_setup setup{};
  setup.fps = fps;
  setup.frame_limit = frameLimit;
  return device->ioctl(device, TAVIK_IOC_ACQ_SET_ACTIVE, &setup);
}

tavik_virtual_acq_status Status(tavik_driver_device* device) {
  tavik_virtual_acq_status s{};
  EXPECT_EQ(device->ioctl(device, TAVIK_IOC_ACQ_GET_STATUS, &s), KZ_ERR_NONE);
  return s;
}

}  // namespace emu
