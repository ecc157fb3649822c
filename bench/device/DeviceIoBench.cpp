// Device I/O and notifications through the shipped library against the raw
// system calls on the same node, in one run.
//
// The program enters a private mount namespace with its own /dev and loads
// three copies of libtavikDDI (each copy is a separate instance that reads
// the log variables at its own load): one without a log, one logging at Info,
// one at Trace. Nodes: tavikSW_0 is the kernel's zero device (reads fill,
// writes vanish: no draining in the timed loop), tavikSW_1 a FIFO that also
// plays a simulated camera for notifications.
//
//   bench_device_io [--benchmark_repetitions=N ...]
// prints Google Benchmark's table, then the ratios of the medians.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <tavik/tavik.h>

#include "ChildProcess.h"
#include "DdiLibrary.h"
#include "FakeDev.h"
#include "SimCamera.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const char kZeroNode[] = "/dev/tavikSW_0";
const char kCameraNode[] = "/dev/tavikSW_1";

// One loaded copy of the library with its camera list.
struct Instance {
  const char* label = "";
  void* handle = nullptr;
  tavik_ddi_init_fn init = nullptr;
  tavik_ddi_uninit_fn uninit = nullptr;
  Ddi ddi{};
  tavik_driver_device* zero = nullptr;
  tavik_driver_device* camera = nullptr;
};

Instance g_inst[3];  // 0 no log, 1 Info, 2 Trace
tavik_test::SimCamera* g_cam = nullptr;
std::string g_tmp;

// At Trace every operation queues three to six entries, far more than the file
// sink writes in the same time; a loop without pauses would soon run the queue
// over its overload threshold and time the cheap dropping path instead (see
// RunPaired). The program counts the overload reports in the Trace log at the
// end: no entry may have been dropped.

std::string LogPath(const char* label) { return g_tmp + "/" + label + ".log"; }

// Lines of the Trace log read so far, and where reading stopped.
struct TraceLog {
  int fd = -1;
  uint64_t lines = 0;
};
TraceLog g_traceLog;

void CountNewTraceLines() {
  if (g_traceLog.fd < 0) g_traceLog.fd = open(LogPath("trace").c_str(), O_RDONLY | O_CLOEXEC);
  static char buf[1 << 16];
  for (;;) {
    const ssize_t n = read(g_traceLog.fd, buf, sizeof buf);
    if (n <= 0) return;
    for (ssize_t i = 0; i < n; ++i) g_traceLog.lines += buf[i] == '\n';
  }
}

// Waits until the log holds `expected` lines; false after 60 s (the worker fell
// behind for good, or dropped lines).
bool WaitForTraceLines(uint64_t expected) {
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  for (;;) {
    CountNewTraceLines();
    if (g_traceLog.lines >= expected) return true;
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

// Library and raw calls are timed in the same iteration, block after block: a
// block of raw calls, then a block of the same calls through the library, so that
// a change of the machine's load between runs hits both sides alike. The counters
// carry the ratio of the sums (wall and thread CPU time). At Trace every call
// writes `linesPerOp` lines; after each pair of blocks the timing waits, outside
// both blocks, until all of them are in the file, so that the next raw block never
// runs beside the worker and the queue stays far below its overload threshold.
// An iteration's time is that of its library block (kBlock calls); the counters
// give the times of one call.
constexpr int kBlock = 256;

double ThreadCpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

template <class Raw, class Lib>
void RunPaired(benchmark::State& state, uint64_t linesPerOp, Raw raw, Lib lib) {
  const bool trace = state.range(0) == 2;
  CountNewTraceLines();
  uint64_t expected = g_traceLog.lines;
  double rawWall = 0, libWall = 0, rawCpu = 0, libCpu = 0;
  const auto timed = [](auto& op, double& wall, double& cpu) {
    const double c0 = ThreadCpuSeconds();
    const auto t0 = Clock::now();
    for (int i = 0; i < kBlock; ++i) op();
    const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    wall += seconds;
    cpu += ThreadCpuSeconds() - c0;
    return seconds;
  };
  for (auto _ : state) {
    timed(raw, rawWall, rawCpu);
    state.SetIterationTime(timed(lib, libWall, libCpu));
    if (trace) {
      expected += kBlock * linesPerOp;
      if (!WaitForTraceLines(expected)) {
        state.SkipWithError("the Trace log fell behind or dropped lines");
        break;
      }
    }
  }
  const double calls = static_cast<double>(state.iterations()) * kBlock;
  state.counters["raw_ns"] = rawWall * 1e9 / calls;
  state.counters["lib_ns"] = libWall * 1e9 / calls;
  state.counters["x_raw"] = rawWall > 0 ? libWall / rawWall : 0;
  state.counters["x_raw_cpu"] = rawCpu > 0 ? libCpu / rawCpu : 0;
}

bool LoadInstance(Instance& in, const char* label, const char* level) {
  in.label = label;
  std::string copy = g_tmp + "/libtavikDDI-" + label + ".so";
  fs::copy_file(TAVIK_TEST_LIBRARY_PATH, copy, fs::copy_options::overwrite_existing);
  if (level == nullptr) {
    unsetenv("TAVIK_DDI_LOG_FILE");
  } else {
    setenv("TAVIK_DDI_LOG_FILE", LogPath(label).c_str(), 1);
    setenv("TAVIK_DDI_LOG_LEVEL", level, 1);
  }
  in.handle = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (in.handle == nullptr) {
    std::fprintf(stderr, "dlopen %s: %s\n", copy.c_str(), dlerror());
    return false;
  }
  in.init = reinterpret_cast<tavik_ddi_init_fn>(dlvsym(in.handle, "tavik_ddi_init", TAVIK_DDI_VERSION_NODE));
  in.uninit = reinterpret_cast<tavik_ddi_uninit_fn>(dlvsym(in.handle, "tavik_ddi_uninit", TAVIK_DDI_VERSION_NODE));
  if (in.init == nullptr || in.uninit == nullptr || in.init(&in.ddi) != KZ_ERR_NONE || in.ddi.cam_count != 2) {
    std::fprintf(stderr, "%s: init failed or found %u cameras\n", label, in.ddi.cam_count);
    return false;
  }
  in.zero = in.ddi.devices[0];
  in.camera = in.ddi.devices[1];
  return true;
}

// ---- open + close, read, write, request code ------------------------------

void BM_OpenClose(benchmark::State& state) {
  tavik_driver_device* d = g_inst[state.range(0)].zero;
  RunPaired(
      state, 6,
      [] {
        int fd = open(kZeroNode, O_RDWR);
        benchmark::DoNotOptimize(fd);
        close(fd);
      },
      [&] {
        if (d->open(d) != KZ_ERR_NONE && !state.error_occurred()) {
          char text[256] = "";
          d->last_error_msg(d, text, sizeof text);
          state.SkipWithError((std::string("open: ") + text).c_str());
        }
        d->close(d);
      });
}

// Reads and writes of `size` bytes; at Trace the dump of a read is one copy on
// the caller's side.
template <size_t size>
void BM_Read(benchmark::State& state) {
  tavik_driver_device* d = g_inst[state.range(0)].zero;
  const int fd = open(kZeroNode, O_RDWR);
  d->open(d);
  static uns8 buf[size];
  uns16 n = 0;
  RunPaired(
      state, 3, [&] { benchmark::DoNotOptimize(read(fd, buf, size)); },
      [&] { benchmark::DoNotOptimize(d->read(d, buf, size, &n)); });
  d->close(d);
  close(fd);
}

void BM_Write(benchmark::State& state) {
  tavik_driver_device* d = g_inst[state.range(0)].zero;
  const int fd = open(kZeroNode, O_RDWR);
  d->open(d);
  uns8 buf[64] = {1, 2, 3};
  uns16 n = 0;
  RunPaired(
      state, 3, [&] { benchmark::DoNotOptimize(write(fd, buf, sizeof buf)); },
      [&] { benchmark::DoNotOptimize(d->write(d, buf, sizeof buf, &n)); });
  d->close(d);
  close(fd);
}

// The floor of any library: a bare function one call level deep, reached through
// a pointer as the operation table is, that makes the same system call and checks
// its result. After a system call the processor's return predictions are gone, so
// even this level costs something, and not the same for every call.
template <class Buffer, ssize_t (*Call)(int, Buffer, size_t)>
__attribute__((noinline)) int16 OneLevel(int fd, Buffer data, uns16 size, uns16* done) {
  const ssize_t result = Call(fd, data, size);
  if (result == -1) return -1;
  if (done) *done = static_cast<uns16>(result);
  return KZ_ERR_NONE;
}

template <class Buffer, ssize_t (*Call)(int, Buffer, size_t)>
void BM_OneLevel(benchmark::State& state) {
  int16 (*volatile level)(int, Buffer, uns16, uns16*) = OneLevel<Buffer, Call>;
  const int fd = open(kZeroNode, O_RDWR);
  static uns8 buf[64] = {1, 2, 3};
  uns16 n = 0;
  RunPaired(
      state, 0, [&] { benchmark::DoNotOptimize(Call(fd, buf, sizeof buf)); },
      [&] { benchmark::DoNotOptimize(level(fd, buf, sizeof buf, &n)); });
  close(fd);
}

// A request code the node answers (FIONREAD on the FIFO).
void BM_Ioctl(benchmark::State& state) {
  tavik_driver_device* d = g_inst[state.range(0)].camera;
  const int fd = open(kCameraNode, O_RDWR);
  d->open(d);
  int pending = 0;
  RunPaired(
      state, 3, [&] { benchmark::DoNotOptimize(ioctl(fd, FIONREAD, &pending)); },
      [&] { benchmark::DoNotOptimize(d->ioctl(d, FIONREAD, &pending)); });
  d->close(d);
  close(fd);
}

// ---- notification latency: Push() to the callback -----------------------

std::atomic<int64_t> g_deliveredAt{0};

int64_t Now() { return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count(); }

int16 OnNotification(tavik_driver_device*, tavik_notif*) {
  g_deliveredAt.store(Now(), std::memory_order_release);
  return KZ_ERR_NONE;
}

// Pushes one event per iteration and waits for its callback; reports the
// median and 99th percentile in microseconds as counters.
void MeasureLatency(benchmark::State& state) {
  std::vector<double> us;
  us.reserve(4096);
  for (auto _ : state) {
    g_deliveredAt.store(0);
    int64_t t0 = Now();
    g_cam->Push({NOTIFICATION_EOF});
    int64_t t1;
    while ((t1 = g_deliveredAt.load(std::memory_order_acquire)) == 0) {
    }
    double sample = static_cast<double>(t1 - t0) / 1000.0;
    us.push_back(sample);
    state.SetIterationTime(sample / 1e6);
  }
  std::sort(us.begin(), us.end());
  if (!us.empty()) {
    state.counters["p50_us"] = us[us.size() / 2];
    state.counters["p99_us"] = us[std::min(us.size() - 1, us.size() * 99 / 100)];
  }
}

void BM_Raw_NotifyLatency(benchmark::State& state) {
  // The plain loop a driver-less reader would write: poll for POLLPRI, fetch
  // the list with the request code, hand each record to the callback.
  int fd = open(kCameraNode, O_RDWR);
  int stopPipe[2];
  if (pipe(stopPipe) != 0) state.SkipWithError("pipe");
  tavik_notif_list* list = static_cast<tavik_notif_list*>(calloc(1, sizeof(tavik_notif_list)));
  list->capacity = TAVIK_NOTIF_LIST_CAPACITY;
  std::thread reader([&] {
    struct pollfd p[2] = {{fd, POLLPRI, 0}, {stopPipe[0], POLLIN, 0}};
    for (;;) {
      if (poll(p, 2, -1) < 0) continue;
      if (p[1].revents) break;
      if (p[0].revents & POLLPRI) {
        list->count = 0;
        if (ioctl(fd, TAVIK_IOC_GET_NOTIFICATIONS, list) == 0)
          for (unsigned i = 0; i < list->count; ++i) OnNotification(nullptr, &list->notifications[i]);
      }
    }
  });
  MeasureLatency(state);
  close(stopPipe[1]);
  reader.join();
  close(stopPipe[0]);
  free(list);
  close(fd);
}

void BM_Ddi_NotifyLatency(benchmark::State& state) {
  tavik_driver_device* d = g_inst[state.range(0)].camera;
  d->open(d);
  if (d->start_notif_thread(d, OnNotification) != KZ_ERR_NONE) state.SkipWithError("start");
  MeasureLatency(state);
  d->stop_notif_thread(d);
  d->close(d);
}

// ---- a camera in error: what its notification thread costs ----------------

// Every poll on the camera reports POLLERR, as an unplugged camera's node does.
// An iteration is one second of wall time with the thread running; the counter
// is the process's CPU time in it (the thread and the log worker that writes
// its lines) in percent of one core. The floor is the plain loop that pauses
// 10 ms after each error, as the library does.
double ProcessCpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

template <class Start, class Stop>
void MeasureDeviceInError(benchmark::State& state, Start start, Stop stop) {
  g_cam->FailPolls(0, INT_MAX);
  const int pollsBefore = g_cam->polls;
  start();
  double cpu = 0, wall = 0;
  for (auto _ : state) {
    const double c0 = ProcessCpuSeconds();
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    wall += std::chrono::duration<double>(Clock::now() - t0).count();
    cpu += ProcessCpuSeconds() - c0;
    state.SetIterationTime(1.0);
  }
  stop();
  g_cam->FailPolls(0, 0);
  state.counters["cpu_pct"] = wall > 0 ? 100.0 * cpu / wall : 0;
  state.counters["passes_per_s"] = wall > 0 ? (g_cam->polls - pollsBefore) / wall : 0;
}

void BM_Raw_DeviceInError(benchmark::State& state) {
  const int fd = open(kCameraNode, O_RDWR);
  std::atomic<bool> stopping{false};
  std::thread reader;
  MeasureDeviceInError(
      state,
      [&] {
        reader = std::thread([&] {
          struct pollfd p = {fd, POLLPRI, 0};
          while (!stopping)
            if (poll(&p, 1, -1) == 1 && (p.revents & POLLERR)) usleep(10000);
        });
      },
      [&] {
        stopping = true;
        reader.join();
      });
  close(fd);
}

void BM_Ddi_DeviceInError(benchmark::State& state) {
  tavik_driver_device* d = g_inst[state.range(0)].camera;
  d->open(d);
  MeasureDeviceInError(
      state, [&] { d->start_notif_thread(d, OnNotification); }, [&] { d->stop_notif_thread(d); });
  d->close(d);
}

// ---- tavik_ddi_init with 16 nodes and two modules -------------------------

void BM_Ddi_Init16Nodes2Modules(benchmark::State& state) {
  Instance& in = g_inst[0];
  for (auto _ : state) {
    Ddi ddi;
    std::memset(&ddi, 0, sizeof ddi);
    auto t0 = Clock::now();
    int16 rc = in.init(&ddi);
    auto t1 = Clock::now();
    if (rc != KZ_ERR_NONE || ddi.cam_count != 16) state.SkipWithError("init");
    in.uninit(&ddi);
    state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
  }
}

// Keeps the medians for the ratio table.
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, double> median;
  std::map<std::string, double> medianCpu;
  std::map<std::string, std::map<std::string, double>> counters;
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median") continue;
      std::string name = r.run_name.str();
      median[name] = r.GetAdjustedRealTime();
      medianCpu[name] = r.GetAdjustedCPUTime();
      for (const auto& [k, v] : r.counters) counters[name][k] = v.value;
    }
  }
};

const char* kLevels[] = {"nolog", "info", "trace"};

void Register() {
  auto levels = [](benchmark::internal::Benchmark* b) {
    b->ArgName("log")->Arg(0)->Arg(1)->Arg(2);
  };
  benchmark::RegisterBenchmark("OpenClose", BM_OpenClose)->Apply(levels)->UseManualTime();
  benchmark::RegisterBenchmark("Read64", BM_Read<64>)->Apply(levels)->UseManualTime();
  // 12 blocks: at Trace each call writes a line of about 20 KB.
  benchmark::RegisterBenchmark("Read4K", BM_Read<4096>)->Apply(levels)->UseManualTime()->Iterations(12);
  benchmark::RegisterBenchmark("Write64", BM_Write)->Apply(levels)->UseManualTime();
  benchmark::RegisterBenchmark("OneLevelRead64", BM_OneLevel<void*, read>)->Arg(0)->UseManualTime();
  benchmark::RegisterBenchmark("OneLevelWrite64", BM_OneLevel<const void*, write>)->Arg(0)->UseManualTime();
  benchmark::RegisterBenchmark("IoctlFIONREAD", BM_Ioctl)->Apply(levels)->UseManualTime();
  benchmark::RegisterBenchmark("Raw_NotifyLatency", BM_Raw_NotifyLatency)->UseManualTime()->Iterations(3000);
  benchmark::RegisterBenchmark("Ddi_NotifyLatency", BM_Ddi_NotifyLatency)
      ->Apply(levels)->UseManualTime()->Iterations(3000);
  benchmark::RegisterBenchmark("Raw_DeviceInError", BM_Raw_DeviceInError)->UseManualTime()->Iterations(3);
  benchmark::RegisterBenchmark("Ddi_DeviceInError", BM_Ddi_DeviceInError)->Apply(levels)->UseManualTime()->Iterations(3);
  benchmark::RegisterBenchmark("Ddi_Init16Nodes2Modules", BM_Ddi_Init16Nodes2Modules)->UseManualTime()->Iterations(300);
}

void PrintRatios(const MedianReporter& rep) {
  auto get = [&](const std::map<std::string, double>& m, const std::string& n) {
    auto it = m.find(n);
    return it == m.end() ? 0.0 : it->second;
  };
  auto counter = [&](const std::string& n, const char* c) {
    auto it = rep.counters.find(n);
    if (it == rep.counters.end()) return 0.0;
    auto jt = it->second.find(c);
    return jt == it->second.end() ? 0.0 : jt->second;
  };
  // CPU time is printed beside wall time: on a shared machine the wall time
  // of a syscall loop carries other processes' scheduling.
  std::printf("\nLibrary against the raw call in the same iterations, medians (targets: no log <= 1.05,\n"
              "Info <= 1.10, Trace <= 3 for read, write and ioctl and <= 1.5 for open + close):\n");
  std::printf("%-16s %9s %9s %9s %9s | %9s %9s %9s\n", "operation", "raw ns", "nolog", "info", "trace", "cpu: nolog",
              "info", "trace");
  for (const char* op : {"OpenClose", "Read64", "Read4K", "Write64", "IoctlFIONREAD"}) {
    const std::string suffix = std::strcmp(op, "Read4K") == 0 ? "/iterations:12" : "";
    const auto name = [&](int l) { return std::string(op) + "/log:" + std::to_string(l) + suffix + "/manual_time"; };
    std::printf("%-16s %9.1f", op, counter(name(0), "raw_ns"));
    for (int l = 0; l < 3; ++l) std::printf(" %9.3f", counter(name(l), "x_raw"));
    std::printf(" |");
    for (int l = 0; l < 3; ++l) std::printf(" %9.3f", counter(name(l), "x_raw_cpu"));
    std::printf("\n");
  }
  std::string rawLat = "Raw_NotifyLatency/iterations:3000/manual_time";
  std::printf("\nNotification latency, event to callback (target p50 ratio <= 1.2 without a log):\n");
  std::printf("%-10s %10s %10s %10s\n", "", "p50 us", "p99 us", "p50 ratio");
  double rp50 = counter(rawLat, "p50_us");
  std::printf("%-10s %10.1f %10.1f %10s\n", "raw", rp50, counter(rawLat, "p99_us"), "1.000");
  for (int l = 0; l < 3; ++l) {
    std::string n = "Ddi_NotifyLatency/log:" + std::to_string(l) + "/iterations:3000/manual_time";
    double p50 = counter(n, "p50_us");
    std::printf("%-10s %10.1f %10.1f %10.3f\n", kLevels[l], p50, counter(n, "p99_us"), rp50 > 0 ? p50 / rp50 : 0.0);
  }
  std::printf("\nA camera in error on every poll, CPU of the process in %% of one core (passes a second):\n");
  const std::string rawErr = "Raw_DeviceInError/iterations:3/manual_time";
  std::printf("%-10s %8.2f (%.0f)\n", "raw", counter(rawErr, "cpu_pct"), counter(rawErr, "passes_per_s"));
  for (int l = 0; l < 3; ++l) {
    std::string n = "Ddi_DeviceInError/log:" + std::to_string(l) + "/iterations:3/manual_time";
    std::printf("%-10s %8.2f (%.0f)\n", kLevels[l], counter(n, "cpu_pct"), counter(n, "passes_per_s"));
  }
  std::printf("\ntavik_ddi_init, 16 nodes and two modules, median: %.1f us\n",
              get(rep.median, "Ddi_Init16Nodes2Modules/iterations:300/manual_time") / 1000.0);
}

// Lines in the Trace log and entries its overload reports say were dropped.
void ReportTraceLog() {
  std::FILE* f = std::fopen(LogPath("trace").c_str(), "r");
  if (f == nullptr) return;
  static char line[1 << 17];
  unsigned long long lines = 0, dropped = 0;
  while (std::fgets(line, sizeof line, f) != nullptr) {
    ++lines;
    const char* report = std::strstr(line, "Too many messages in log queue, ");
    if (report != nullptr) dropped += std::strtoull(report + 32, nullptr, 10);
  }
  std::fclose(f);
  std::printf("\nTrace log: %llu lines written, %llu entries dropped by the overload rule\n", lines, dropped);
}

}  // namespace

int main(int argc, char** argv) {
  std::string why;
  if (!tavik_test::TryEnterPrivateDev(&why)) {
    std::printf("bench_device_io needs a private /dev: %s\n", why.c_str());
    return 0;
  }
  char tmpl[] = "/tmp/tavik-bench-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  g_tmp = tmpl;
  if (mknod(kZeroNode, S_IFCHR | 0666, makedev(1, 5)) != 0 || mkfifo(kCameraNode, 0666) != 0) {
    std::printf("cannot create the nodes: %s\n", std::strerror(errno));
    return 1;
  }
  g_cam = tavik_test::SimCamera::Attach(kCameraNode);
  unsetenv("TAVIK_UMD_PATH");
  if (g_cam == nullptr || !LoadInstance(g_inst[0], "nolog", nullptr) || !LoadInstance(g_inst[1], "info", "info") ||
      !LoadInstance(g_inst[2], "trace", "trace"))
    return 1;
  // For the init figure: two modules and sixteen PCIe nodes.
  std::string modules = g_tmp + "/modules";
  fs::create_directories(modules);
  fs::copy_file(std::string(TAVIK_TEST_FIXTURES_DIR) + "/good/tavik_good.x86_64.umd", modules + "/tavik_good.x86_64.umd");
  fs::copy_file(std::string(TAVIK_TEST_FIXTURES_DIR) + "/usb/tavik_usbdrv.x86_64.umd", modules + "/tavik_usbdrv.x86_64.umd");
  for (int i = 0; i < 16; ++i) mkfifo(("/dev/tavikPCIE_" + std::to_string(i)).c_str(), 0666);
  setenv("TAVIK_UMD_PATH", modules.c_str(), 1);

  benchmark::Initialize(&argc, argv);
  Register();
  MedianReporter rep;
  benchmark::RunSpecifiedBenchmarks(&rep);
  PrintRatios(rep);
  benchmark::Shutdown();
  for (Instance& in : g_inst) in.uninit(&in.ddi);
  ReportTraceLog();
  std::error_code ec;
  fs::remove_all(g_tmp, ec);
  return 0;
}
