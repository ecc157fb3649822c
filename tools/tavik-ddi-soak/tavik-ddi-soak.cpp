// tavik-ddi-soak: runs emulated cameras through the library for a given time, as
// a rig does for days: notifications and acquisitions started and stopped, and
// the whole library taken down and set up again, at random intervals, with the
// log at Trace. At the end it accounts for every frame and every log line and
// compares descriptors, threads and resident memory with their values after the
// warm-up. Exit status 0 when nothing grew and no line went uncounted.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>
#include <tavik/tavik.h>

#include "ProcessFigures.h"
#include "log/LogDdi.h"
#include "log/LogSetupFile.h"
#include "log/LoggerFile.h"
#include "tavik_virtual.h"

namespace {

using tavik_soak::Measure;
using tavik_soak::ProcessFigures;

std::atomic<uint64_t> g_delivered{0};

int16 OnNotification(tavik_driver_device*, tavik_notif* notif) {
  if (notif->type & NOTIFICATION_EOF) g_delivered.fetch_add(1, std::memory_order_relaxed);
  return KZ_ERR_NONE;
}

class Rig {
 public:
  bool Up() {
    if (tavik_ddi_init(&m_ddi) != KZ_ERR_NONE) return Fail("init");
    for (uns16 i = 0; i < m_ddi.cam_count; ++i)
      if (m_ddi.devices[i]->open(m_ddi.devices[i]) != KZ_ERR_NONE) return Fail("open");
    return true;
  }
  bool Down() {
    for (uns16 i = 0; i < m_ddi.cam_count; ++i) {
      if (m_running[i] && !Toggle(i)) return false;
      if (m_ddi.devices[i]->close(m_ddi.devices[i]) != KZ_ERR_NONE) return Fail("close");
    }
    return tavik_ddi_uninit(&m_ddi) == KZ_ERR_NONE || Fail("uninit");
  }
  // Starts notifications and an acquisition on a camera, or ends both in the
  // order a core must use: abort, read the final status, stop.
  bool Toggle(uns16 i) {
    tavik_driver_device* d = m_ddi.devices[i];
    if (!m_running[i]) {
      tavik_virtual_acq_setup setup{};
      m_running[i] = true;
      return (d->start_notif_thread(d, OnNotification) == KZ_ERR_NONE &&
              d->ioctl(d, TAVIK_IOC_ACQ_SET_ACTIVE, &setup) == KZ_ERR_NONE) ||
             Fail("start");
    }
    tavik_virtual_acq_status status{};
    m_running[i] = false;
    if (d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr) != KZ_ERR_NONE ||
        d->ioctl(d, TAVIK_IOC_ACQ_GET_STATUS, &status) != KZ_ERR_NONE ||
        d->stop_notif_thread(d) != KZ_ERR_NONE)
      return Fail("stop");
    emitted += status.frame_count;
    queueDropped += status.frames_dropped;
    return true;
  }
  uns16 Cameras() const { return m_ddi.cam_count; }

  uint64_t emitted = 0, queueDropped = 0;

 private:
  bool Fail(const char* what) {
    char text[512] = "";
    tavik_ddi_get_last_error_message(text, sizeof text);
    std::fprintf(stderr, "tavik-ddi-soak: %s failed: %s\n", what, text);
    return false;
  }
  Ddi m_ddi{};
  bool m_running[TAVIK_DDI_MAX_CAMERAS] = {};
};

// Caller lines in the file: "[HHMMSS.uuuuuu CAT ..." with a category other than
// the log's own "***" (its overload reports, which no caller produced).
uint64_t CountWrittenLines(const std::string& path) {
  std::ifstream in(path);
  uint64_t n = 0;
  for (std::string line; std::getline(in, line);)
    n += line.size() > 18 && line[0] == '[' && line[1] >= '0' && line[1] <= '9' && line.compare(15, 3, "***") != 0;
  return n;
}

void Print(const char* when, const ProcessFigures& f) {
  std::printf("%-22s fds %zu, threads %zu, RSS %zu kB\n", when, f.fds, f.threads, f.rssKb);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Runs emulated cameras through libtavikDDI for a long time and accounts for every frame and log line"};
  double seconds = 60, warmup = 30, meanInterval = 0.05;
  unsigned cameras = 16, fps = 500, cycleEvery = 20;
  uint32_t seed = 1;
  std::string umdPath, logPath = "tavik-ddi-soak.log", maxSize, maxFiles;
  app.add_option("--seconds", seconds, "How long to run")->capture_default_str();
  app.add_option("--warmup", warmup, "Seconds before the figures to compare against are taken")->capture_default_str();
  app.add_option("--cameras", cameras, "Emulated cameras")->check(CLI::Range(1, 16))->capture_default_str();
  app.add_option("--fps", fps, "Frames per second of each camera")->check(CLI::Range(1, 10000))->capture_default_str();
  app.add_option("--interval", meanInterval, "Mean seconds between two random actions")->capture_default_str();
  app.add_option("--cycle-every", cycleEvery, "One action in this many is a whole uninit and init")->check(CLI::Range(1, 1000000))->capture_default_str();
  app.add_option("--seed", seed, "Seed of the random actions")->capture_default_str();
  app.add_option("--umd-path", umdPath, "Folder with tavik_virtual.x86_64.umd")->required()->check(CLI::ExistingDirectory);
  app.add_option("--log", logPath, "Log file, written at Trace (replaced)")->capture_default_str();
  app.add_option("--log-max-size", maxSize, "Bound of the log file (TAVIK_DDI_LOG_MAX_SIZE): bytes, or with K, M or G");
  app.add_option("--log-max-files", maxFiles, "Renamed log files kept under the bound (TAVIK_DDI_LOG_MAX_FILES)");
  CLI11_PARSE(app, argc, argv);

  // The log is set up from the environment when the program starts, so the
  // settings go into the environment and the program starts again with them.
  if (getenv("TAVIK_DDI_LOG_FILE") == nullptr || logPath != getenv("TAVIK_DDI_LOG_FILE")) {
    unlink(logPath.c_str());
    setenv("TAVIK_DDI_LOG_FILE", logPath.c_str(), 1);
    setenv("TAVIK_DDI_LOG_LEVEL", "T", 1);
    setenv("TAVIK_UMD_PATH", umdPath.c_str(), 1);
    setenv("TAVIK_VIRTUAL_CAMERAS", std::to_string(cameras).c_str(), 1);
    setenv("TAVIK_VIRTUAL_FPS", std::to_string(fps).c_str(), 1);
    if (!maxSize.empty()) setenv("TAVIK_DDI_LOG_MAX_SIZE", maxSize.c_str(), 1);
    if (!maxFiles.empty()) setenv("TAVIK_DDI_LOG_MAX_FILES", maxFiles.c_str(), 1);
    execv("/proc/self/exe", argv);
    std::perror("tavik-ddi-soak: execv");
    return 2;
  }

  using Clock = std::chrono::steady_clock;
  std::mt19937 random(seed);
  std::exponential_distribution<double> pause(1.0 / meanInterval);
  const ProcessFigures start = Measure();
  ProcessFigures warm{}, end{};
  bool warmed = false, ok = true;
  uint64_t actions = 0, cycles = 0;
  Rig rig;
  const auto t0 = Clock::now();
  const auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - t0).count(); };
  ok = rig.Up();
  while (ok && elapsed() < seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(pause(random)));
    ++actions;
    if (random() % cycleEvery != 0) {
      ok = rig.Toggle(static_cast<uns16>(random() % rig.Cameras()));
      continue;
    }
    // The figures are compared where the process is in the same state every
    // time: between an uninit and the next init.
    ++cycles;
    ok = rig.Down();
    if (ok && !warmed && elapsed() >= warmup) warm = Measure(), warmed = true;
    ok = ok && rig.Up();
  }
  ok = rig.Down() && ok;
  std::shared_ptr<kt::Log> log = kt::LogDdi::GetLog();
  if (log) log->Flush(0);
  end = Measure();
  if (!warmed) warm = end;

  const uint64_t delivered = g_delivered.load();
  std::printf("ran %.0f s: %" PRIu64 " actions, %" PRIu64 " uninit and init cycles, %u cameras at %u fps\n",
              elapsed(), actions, cycles, cameras, fps);
  std::printf("frames emitted %" PRIu64 ", delivered %" PRIu64 ", missed %" PRIu64 " (%" PRIu64
              " of them dropped by a full notification queue)\n",
              rig.emitted, delivered, rig.emitted - delivered, rig.queueDropped);
  if (log) {
    const kt::Log::Counts c = log->GetCounts();
    // Under a bound, or when another program moves the file away, the lines are
    // spread over files that no longer all exist: the sink's own count is taken.
    const auto* setup = dynamic_cast<const kt::LogSetupFile*>(kt::LogDdi::setup.get());
    const std::shared_ptr<kt::LoggerFile> sink = setup != nullptr ? setup->GetLoggerFile() : nullptr;
    const uint64_t inFile = CountWrittenLines(logPath);
    // The sink also wrote the log's own overload reports, which no caller produced.
    const uint64_t written = sink ? sink->WrittenLines() - c.reports : inFile;
    std::printf("log lines in %s now %" PRIu64 "\n", logPath.c_str(), inFile);
    const uint64_t dropped = c.dropped + c.discarded + c.lost;
    std::printf("log lines produced %" PRIu64 ", written %" PRIu64 ", dropped %" PRIu64
                " (overload %" PRIu64 ", flush %" PRIu64 ", lost %" PRIu64 ")\n",
                c.produced, written, dropped, c.dropped, c.discarded, c.lost);
    if (written + dropped != c.produced) ok = !std::puts("FAIL: written + dropped differs from produced");
  }
  Print("at the start:", start);
  Print("after the warm-up:", warm);
  Print("at the end:", end);
  if (end.fds > warm.fds || end.threads > warm.threads || end.rssKb >= warm.rssKb + 1024)
    ok = !std::puts("FAIL: descriptors, threads or resident memory grew after the warm-up");
  return ok ? 0 : 1;
}
