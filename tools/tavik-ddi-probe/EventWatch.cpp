#include "EventWatch.h"

#include <time.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

#include "DeviceSurvey.h"

namespace probe {
namespace {

using Clock = std::chrono::steady_clock;

// Events waiting for the main thread. Bounded, so a camera that floods the
// probe costs a counter, not the machine's memory.
constexpr std::size_t kMaxQueued = 65536;
// Events kept for the JSON document.
constexpr std::size_t kMaxKept = 1000000;

struct EventQueue {
  std::mutex mutex;
  std::condition_variable ready;
  std::deque<EventRecord> events;
  std::uint64_t dropped = 0;
  std::array<tavik_driver_device*, TAVIK_DDI_MAX_CAMERAS> devices{};
  Clock::time_point start;
};

// The callback carries no context argument, so the one running watch is reached
// through this pointer; it is set before the first start and cleared after the
// last stop, when no notification thread is left to read it.
std::atomic<EventQueue*> g_queue{nullptr};

int16 OnNotification(tavik_driver_device* device, tavik_notif* notif) {
  EventQueue* queue = g_queue.load(std::memory_order_acquire);
  if (queue == nullptr || notif == nullptr) return KZ_ERR_NULL_POINTER;
  std::lock_guard<std::mutex> lock(queue->mutex);
  // Stamped under the lock, so that the queue order of several cameras' threads
  // is also the time order the probe prints.
  const auto now = Clock::now();
  unsigned camera = TAVIK_DDI_MAX_CAMERAS;
  for (unsigned i = 0; i < TAVIK_DDI_MAX_CAMERAS; ++i) {
    if (queue->devices[i] == device) camera = i;
  }
  if (camera == TAVIK_DDI_MAX_CAMERAS) return KZ_ERR_DEVICE_HANDLE_INVALID;
  if (queue->events.size() >= kMaxQueued) {
    ++queue->dropped;
    return KZ_ERR_NONE;
  }
  EventRecord event;
  event.seconds = std::chrono::duration<double>(now - queue->start).count();
  event.camera = camera;
  event.type = notif->type;
  // Never let an exception unwind into the driver's thread.
  try {
    queue->events.push_back(event);
  } catch (...) {
    ++queue->dropped;
    return KZ_ERR_INSUFFICIENT_RESOURCES;
  }
  queue->ready.notify_one();
  return KZ_ERR_NONE;
}

struct Watched {
  tavik_driver_device* device = nullptr;
  unsigned index = 0;
  bool started = false;
  bool acquiring = false;
};

std::string Label(unsigned index, const char* call) {
  return "camera " + std::to_string(index) + " " + call;
}

bool StopSignalPending(const sigset_t& signals) {
  timespec zero{0, 0};
  return sigtimedwait(&signals, nullptr, &zero) > 0;
}

void Deliver(EventQueue& queue, std::FILE* live, WatchRecord& watch) {
  std::deque<EventRecord> batch;
  {
    std::lock_guard<std::mutex> lock(queue.mutex);
    batch.swap(queue.events);
  }
  for (const EventRecord& event : batch) {
    ++watch.eventCount;
    if (live != nullptr) {
      WriteEventLine(event, live);
    } else if (watch.events.size() < kMaxKept) {
      watch.events.push_back(event);
    } else {
      ++watch.eventsDropped;
    }
  }
  if (live != nullptr && !batch.empty()) std::fflush(live);
}

}  // namespace

bool EventWatch::Run(const Ddi& ddi, double seconds, const sigset_t& stopSignals, std::FILE* live,
                     ProbeReport& report) {
  WatchRecord& watch = report.watch;
  watch.requested = true;
  watch.seconds = seconds;
  bool allGood = true;

  EventQueue queue;
  queue.start = Clock::now();
  std::array<Watched, TAVIK_DDI_MAX_CAMERAS> cameras{};
  for (const CameraRecord& camera : report.cameras) {
    cameras[camera.index].device = ddi.devices[camera.index];
    cameras[camera.index].index = camera.index;
    queue.devices[camera.index] = ddi.devices[camera.index];
  }
  g_queue.store(&queue, std::memory_order_release);

  if (live != nullptr) {
    std::fprintf(live, "\nWatching %zu camera(s) for %g s...\n", report.cameras.size(), seconds);
    std::fflush(live);
  }

  for (const CameraRecord& camera : report.cameras) {
    Watched& w = cameras[camera.index];
    tavik_driver_device* device = w.device;
    if (device == nullptr || device->open == nullptr || device->start_notif_thread == nullptr) {
      watch.failures.push_back({Label(camera.index, "operation table"), KZ_ERR_NULL_POINTER,
                                "the camera list holds no usable device at this index"});
      allGood = false;
      continue;
    }
    CallOutcome open = Outcome(Label(camera.index, "open"), device, device->open(device));
    if (open.code != KZ_ERR_NONE) {
      watch.failures.push_back(open);
      allGood = false;
      continue;
    }
    CallOutcome start = Outcome(Label(camera.index, "start_notif_thread"), device,
                                device->start_notif_thread(device, &OnNotification));
    if (start.code != KZ_ERR_NONE) {
      watch.failures.push_back(start);
      allGood = false;
      CallOutcome close = Outcome(Label(camera.index, "close"), device, device->close(device));
      if (close.code != KZ_ERR_NONE) watch.failures.push_back(close);
      continue;
    }
    w.started = true;
    ++watch.watched;
    if (camera.emulator) {
      // The emulator only produces frames while an acquisition is active. An
      // all-zero setup record asks for no frame limit (run until abort) at the
      // frame rate the module was configured with (TAVIK_VIRTUAL_FPS).
      std::array<unsigned char, 32> settings{};
      CallOutcome active = Outcome(Label(camera.index, "ioctl TAVIK_IOC_ACQ_SET_ACTIVE"), device,
                                   device->ioctl(device, TAVIK_IOC_ACQ_SET_ACTIVE, settings.data()));
      if (active.code == KZ_ERR_NONE) {
        w.acquiring = true;
      } else {
        watch.failures.push_back(active);
        allGood = false;
      }
    }
  }

  const auto deadline = queue.start + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(seconds));
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(queue.mutex);
      const auto slice = std::min(deadline, Clock::now() + std::chrono::milliseconds(100));
      queue.ready.wait_until(lock, slice, [&] { return !queue.events.empty(); });
    }
    Deliver(queue, live, watch);
    if (Clock::now() >= deadline) break;
    if (StopSignalPending(stopSignals)) {
      watch.interrupted = true;
      break;
    }
  }

  for (Watched& w : cameras) {
    if (!w.started) continue;
    tavik_driver_device* device = w.device;
    if (w.acquiring) {
      CallOutcome abort = Outcome(Label(w.index, "ioctl TAVIK_IOC_ACQ_ABORT"), device,
                                  device->ioctl(device, TAVIK_IOC_ACQ_ABORT, nullptr));
      if (abort.code != KZ_ERR_NONE) {
        watch.failures.push_back(abort);
        allGood = false;
      }
    }
    CallOutcome stop = Outcome(Label(w.index, "stop_notif_thread"), device,
                               device->stop_notif_thread(device));
    if (stop.code != KZ_ERR_NONE) {
      watch.failures.push_back(stop);
      allGood = false;
    }
    CallOutcome close = Outcome(Label(w.index, "close"), device, device->close(device));
    if (close.code != KZ_ERR_NONE) {
      watch.failures.push_back(close);
      allGood = false;
    }
  }
  // Every notification thread has been joined: nothing can reach the queue any more.
  g_queue.store(nullptr, std::memory_order_release);
  Deliver(queue, live, watch);
  {
    std::lock_guard<std::mutex> lock(queue.mutex);
    watch.eventsDropped += queue.dropped;
  }
  return allGood;
}

}  // namespace probe
