// Test harness for the camera emulator: forked children, the module and the
// shipped library loaded as the core loads them, a recording callback that reads
// the frame on every EOF, and process resource counts.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <tavik/tavik.h>

#include "tavik_virtual.h"

namespace emu {

// Runs body in a forked child and fails the case when the child fails, crashes or
// outlives timeoutSec. A child that calls SkipChild() skips the case.
void RunInChild(const std::function<void()>& body, int timeoutSec = 120);
[[noreturn]] void SkipChild(const std::string& reason);

size_t CountOpenFds();
size_t CountThreads();
// CountThreads once it equals expected, or after two seconds: a joined thread
// can stay listed for a moment, as the kernel wakes the joiner before it
// removes the exiting task.
size_t SettledThreadCount(size_t expected);

// The module opened on its own, as the library's user-mode loader opens it.
class Module {
 public:
  ~Module();
  bool Load();  // dlopen + the three entry points; failures are test failures
  bool Init();  // calls init on a zeroed driver record
  void Uninit();
  void Unload();  // dlclose
  std::vector<tavik_driver_device*> Devices() const;
  void* handle = nullptr;
  tavik_driver driver{};
  tavik_driver_init_fn init = nullptr;
  tavik_driver_uninit_fn uninit = nullptr;
  tavik_driver_type_fn type = nullptr;
  bool initialised = false;
};

// The shipped library, resolved with dlvsym as the core resolves it.
class Library {
 public:
  ~Library();
  // False when the library cannot be opened or does not have its entry points yet.
  bool Load(std::string* why);
  int16 Init();
  int16 Uninit();
  void Unload();
  std::vector<tavik_driver_device*> Devices() const;
  void* handle = nullptr;
  Ddi ddi{};
  tavik_ddi_init_fn init = nullptr;
  tavik_ddi_uninit_fn uninit = nullptr;
  tavik_ddi_get_last_error_message_fn lastError = nullptr;
  bool initialised = false;
};

// The emulated cameras as the core reaches them: through the shipped library,
// which finds the module in TAVIK_UMD_PATH.
class CameraSource {
 public:
  bool Open(unsigned expectedCameras);  // sets TAVIK_UMD_PATH, loads and inits the library
  void Close();
  std::vector<tavik_driver_device*> cameras;

 private:
  Library library_;
};

enum class FrameCheck { Match, NoData, Overtaken, Torn };
FrameCheck CheckFrame(const uns8* data, size_t bytes, uint64_t expectedNumber,
                      uint64_t* seenNumber);

struct Event {
  uns16 size;
  uns16 version;
  uns32 type;
  tavik_virtual_notif_payload payload;
  FrameCheck frame;  // for EOF with read-on-EOF; Match otherwise
};

// One recorder per camera index. Written only by that camera's notification
// thread; read by the test after stop (the join orders the accesses).
struct Recorder {
  std::vector<Event> events;
  std::atomic<uint64_t> delivered{0};
  std::atomic<uint64_t> eofs{0};
  bool readOnEof = false;
  std::atomic<int> sleepUsPerCallback{0};
  std::function<void(tavik_driver_device*, const tavik_notif*)> hook;  // optional
  void Reset(bool read);
};
extern Recorder g_recorders[TAVIK_VIRTUAL_MAX_CAMERAS];
int16 RecordingCallback(tavik_driver_device* device, tavik_notif* notif);

// Empty when events are BOF/EOF pairs for consecutive frames from firstFrame on
// (optionally followed by COMPLETE); otherwise the first deviation.
std::string CheckPairs(const std::vector<Event>& events, uint64_t firstFrame,
                       bool allowGaps = false);

// Waits until pred holds or timeoutMs passes; returns pred().
bool WaitFor(const std::function<bool()>& pred, int timeoutMs);

std::string LastErrorOf(tavik_driver_device* device);
int16 SetActive(tavik_driver_device* device, uns32 fps, uns32 frameLimit = 0);
tavik_virtual_acq_status Status(tavik_driver_device* device);

}  // namespace emu
