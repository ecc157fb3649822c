// A reader that receives every EOF of every emulated camera and reads that frame,
// as a core's acquisition loop would. Reports the frame rate the reader sustains
// and the share of frames it missed (dropped from a full queue, or overtaken by a
// later frame before the read). The baseline is a plain pread() of one frame's
// bytes from a file in the same run, the cheapest way a kernel hands out 8 KiB.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <tavik/tavik.h>

#include "tavik_virtual.h"

namespace {

struct Counters {
  std::atomic<uint64_t> eofs{0};
  std::atomic<uint64_t> matched{0};
};
Counters g_counters[TAVIK_VIRTUAL_MAX_CAMERAS];

int16 OnNotification(tavik_driver_device* device, tavik_notif* notif) {
  if (notif->type != NOTIFICATION_EOF) return KZ_ERR_NONE;
  tavik_virtual_notif_payload p;
  memcpy(&p, notif->payload, sizeof p);
  static thread_local uns8 frame[TAVIK_VIRTUAL_FRAME_BYTES];
  uns16 got = 0;
  if (device->read(device, frame, sizeof frame, &got) != KZ_ERR_NONE) return KZ_ERR_NONE;
  tavik_virtual_frame_header h;
  memcpy(&h, frame, sizeof h);
  Counters& c = g_counters[p.camera_index % TAVIK_VIRTUAL_MAX_CAMERAS];
  c.eofs.fetch_add(1, std::memory_order_relaxed);
  if (got == TAVIK_VIRTUAL_FRAME_BYTES && h.frame_number == p.frame_number)
    c.matched.fetch_add(1, std::memory_order_relaxed);
  return KZ_ERR_NONE;
}

// The library loaded afresh with the wanted number of emulated cameras.
struct Session {
  void* lib = nullptr;
  tavik_ddi_init_fn init = nullptr;
  tavik_ddi_uninit_fn uninit = nullptr;
  Ddi ddi{};
  std::vector<tavik_driver_device*> cams;

  bool Open(unsigned cameras, std::string* why) {
    setenv("TAVIK_UMD_PATH", TAVIK_EMU_MODULE_DIR, 1);
    setenv("TAVIK_VIRTUAL_CAMERAS", std::to_string(cameras).c_str(), 1);
    unsetenv("TAVIK_DDI_LOG_FILE");  // measure the untraced path
    lib = dlopen(TAVIK_EMU_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) return *why = dlerror(), false;
    init = reinterpret_cast<tavik_ddi_init_fn>(dlvsym(lib, "tavik_ddi_init", "TAVIK_DDI_3.0"));
    uninit =
        reinterpret_cast<tavik_ddi_uninit_fn>(dlvsym(lib, "tavik_ddi_uninit", "TAVIK_DDI_3.0"));
    if (init == nullptr || uninit == nullptr) return *why = "no entry points", false;
    if (init(&ddi) != KZ_ERR_NONE) return *why = "tavik_ddi_init failed", false;
    for (unsigned i = 0; i < ddi.cam_count; ++i)
      if (ddi.devices[i]->driver->type() == TAVIK_DRIVER_TYPE_VIRTUAL) cams.push_back(ddi.devices[i]);
    if (cams.size() != cameras) return *why = "emulated cameras not found", false;
    for (auto* d : cams) d->open(d);
    return true;
  }
  ~Session() {
    for (auto* d : cams) d->close(d);
    if (init != nullptr) uninit(&ddi);
    if (lib != nullptr) dlclose(lib);
  }
};

// Args: cameras, frames per second. One iteration is a 2-second acquisition.
void BM_EmulatorReader(benchmark::State& state) {
  const unsigned cameras = static_cast<unsigned>(state.range(0));
  const unsigned fps = static_cast<unsigned>(state.range(1));
  Session s;
  std::string why;
  if (!s.Open(cameras, &why)) {
    state.SkipWithError(why.c_str());
    return;
  }
  uint64_t emitted = 0, matched = 0, eofs = 0, dropped = 0;
  double seconds = 0;
  for (auto _ : state) {
    for (auto& c : g_counters) c.eofs = 0, c.matched = 0;
    for (auto* d : s.cams) d->start_notif_thread(d, OnNotification);
    const auto t0 = std::chrono::steady_clock::now();
    tavik_virtual_acq_setup setup{};
    setup.fps = fps;
    for (auto* d : s.cams) d->ioctl(d, TAVIK_IOC_ACQ_SET_ACTIVE, &setup);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    for (auto* d : s.cams) d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr);
    // Let the reader finish what was queued before the abort.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (auto* d : s.cams) d->stop_notif_thread(d);
    const double dt = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    state.SetIterationTime(dt);
    seconds += dt - 0.1;
    for (size_t i = 0; i < s.cams.size(); ++i) {
      tavik_virtual_acq_status st{};
      s.cams[i]->ioctl(s.cams[i], TAVIK_IOC_ACQ_GET_STATUS, &st);
      emitted += st.frame_count;
      dropped += st.frames_dropped;
      eofs += g_counters[i].eofs;
      matched += g_counters[i].matched;
    }
  }
  state.counters["emitted"] = static_cast<double>(emitted);
  state.counters["eofs"] = static_cast<double>(eofs);
  state.counters["read_ok"] = static_cast<double>(matched);
  state.counters["dropped"] = static_cast<double>(dropped);
  state.counters["missed_pct"] =
      emitted ? 100.0 * static_cast<double>(emitted - matched) / static_cast<double>(emitted) : 0;
  state.counters["reader_fps"] = static_cast<double>(matched) / seconds;
  state.counters["per_cam_fps"] = static_cast<double>(matched) / seconds / cameras;
}
BENCHMARK(BM_EmulatorReader)
    ->ArgNames({"cams", "fps"})
    ->Args({1, 100})->Args({1, 500})->Args({1, 1000})->Args({1, 10000})
    ->Args({16, 100})->Args({16, 500})->Args({16, 1000})->Args({16, 10000})
    ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The cost of one frame read, against the raw system call on 8 KiB of a file.
void BM_RawPreadFrame(benchmark::State& state) {
  char path[] = "/tmp/tavik_emu_bench_XXXXXX";
  const int fd = mkstemp(path);
  std::vector<uns8> buf(TAVIK_VIRTUAL_FRAME_BYTES, 0x5a);
  if (fd < 0 || write(fd, buf.data(), buf.size()) != static_cast<ssize_t>(buf.size())) {
    state.SkipWithError("cannot prepare the file");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(pread(fd, buf.data(), buf.size(), 0));
    benchmark::ClobberMemory();
  }
  close(fd);
  unlink(path);
}
BENCHMARK(BM_RawPreadFrame);

void BM_DeviceReadFrame(benchmark::State& state) {
  Session s;
  std::string why;
  if (!s.Open(1, &why)) {
    state.SkipWithError(why.c_str());
    return;
  }
  tavik_driver_device* d = s.cams[0];
  tavik_virtual_acq_setup setup{};
  setup.fps = 1000;
  setup.frame_limit = 1;  // one frame, then the clock stops: read an idle camera
  d->ioctl(d, TAVIK_IOC_ACQ_SET_ACTIVE, &setup);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  std::vector<uns8> buf(TAVIK_VIRTUAL_FRAME_BYTES);
  for (auto _ : state) {
    uns16 got = 0;
    benchmark::DoNotOptimize(d->read(d, buf.data(), static_cast<uns16>(buf.size()), &got));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_DeviceReadFrame);

}  // namespace

BENCHMARK_MAIN();
