// notifications and robustness: the notification thread's contract, and a
// module under allocation failure and under several calling threads.
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <algorithm>
#include <fstream>
#include <thread>

#include "ComplianceCheck.h"
#include "ModuleSession.h"
#include "ProbeNames.h"

namespace compliance {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What the callback does besides counting; the callback is a plain function, so
// its state is global (a child runs one check).
enum class Mode { kCount, kFail, kReenter, kStopSelf };

struct Deliveries {
  std::atomic<Mode> mode{Mode::kCount};
  std::atomic<int> count{0};
  std::atomic<bool> stopped{false};     // set once stop_notif_thread has returned
  std::atomic<int> afterStop{0};
  std::atomic<int> badIndex{-1};        // the first malformed record
  std::atomic<uns32> badWord{0};        // its size | version << 16
  std::atomic<uns32> badType{0};
  std::atomic<int> reentryFailed{0};
  std::atomic<int16> reentryCode{0};
  std::atomic<bool> stopSelfDone{false};
  std::atomic<int16> stopSelfCode{0};
} g;

bool KnownType(uns32 type) {
  return type != 0 && std::strcmp(probe::NotificationName(type), "<UNKNOWN>") != 0;
}

int16 Callback(tavik_driver_device* device, tavik_notif* notif) {
  const int index = g.count.fetch_add(1);
  if (g.stopped.load()) g.afterStop.fetch_add(1);
  int expected = -1;
  if ((notif->size != sizeof(tavik_notif) || notif->version != 1 || !KnownType(notif->type)) &&
      g.badIndex.compare_exchange_strong(expected, index)) {
    g.badWord.store(notif->size | static_cast<uns32>(notif->version) << 16);
    g.badType.store(notif->type);
  }
  switch (g.mode.load()) {
    case Mode::kFail: return KZ_ERR_UNKNOWN;
    case Mode::kReenter: {
      uns8 buffer[64];
      uns16 n = 0;
      const int16 code = device->read(device, buffer, sizeof buffer, &n);
      if (code != KZ_ERR_NONE && g.reentryFailed.fetch_add(1) == 0) g.reentryCode.store(code);
      return KZ_ERR_NONE;
    }
    case Mode::kStopSelf:
      if (!g.stopSelfDone.load()) {
        g.stopSelfCode.store(device->stop_notif_thread(device));
        g.stopSelfDone.store(true);
      }
      return KZ_ERR_NONE;
    default: return KZ_ERR_NONE;
  }
}

// Waits until `done` or the time is up; true when done.
template <typename Fn>
bool WaitFor(Fn done, milliseconds limit) {
  const auto end = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(milliseconds(2));
  }
  return true;
}

constexpr milliseconds kEventWait{3000};

// Starts an acquisition the kit's way, with a zero-filled setup record, so that
// the device has events to send; a device that sends none skips the check.
std::string StartFrames(tavik_driver_device* d) {
  uns8 setup[32] = {};
  const int16 code = d->ioctl(d, TAVIK_IOC_ACQ_SET_ACTIVE, setup);
  if (code != KZ_ERR_NONE)
    return "TAVIK_IOC_ACQ_SET_ACTIVE with a zero-filled record got " + Code(code) + "; no events to check with";
  return {};
}

void StopFrames(tavik_driver_device* d) { d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr); }

// Opens the device, starts its notifications and frames, runs `body`, and tidies
// up in the core's order. A device without events skips the check.
template <typename Fn>
Outcome WithEvents(ModuleSession& session, Mode mode, int wanted, Fn body) {
  tavik_driver_device* d = session.devices.front();
  g.mode.store(mode);
  std::string skip;
  Outcome outcome;
  d->open(d);
  if (const int16 code = d->start_notif_thread(d, Callback); code != KZ_ERR_NONE) {
    outcome = Fail("start_notif_thread: expected KZ_ERR_NONE (0), got " + Code(code));
  } else if (skip = StartFrames(d); skip.empty()) {
    if (!WaitFor([&] { return g.count.load() >= wanted || g.stopSelfDone.load(); }, kEventWait) &&
        g.count.load() == 0) {
      skip = Format("no notification within %lld ms of TAVIK_IOC_ACQ_SET_ACTIVE; no events to check with",
                    static_cast<long long>(kEventWait.count()));
    } else {
      outcome = body(d);
    }
  }
  StopFrames(d);
  if (!g.stopped.load()) d->stop_notif_thread(d);
  d->close(d);
  return skip.empty() ? outcome : Skip(skip);
}

Outcome StopAndMark(tavik_driver_device* d) {
  const int16 code = d->stop_notif_thread(d);
  g.stopped.store(true);
  return code == KZ_ERR_NONE ? Pass() : Fail("stop_notif_thread: expected KZ_ERR_NONE (0), got " + Code(code));
}

// A start that must be refused, on a device whose thread runs or not: a failure
// code, and no thread more than before it.
Outcome RefusedStart(ModuleSession& session, bool startFirst, tavik_dcb_invoke_callback_fn callback,
                     const char* what) {
  tavik_driver_device* d = session.devices.front();
  d->open(d);
  if (startFirst) d->start_notif_thread(d, Callback);
  const int threads = CountThreads();
  const int16 code = d->start_notif_thread(d, callback);
  const int after = CountThreads();
  d->stop_notif_thread(d);
  d->close(d);
  if (code == KZ_ERR_NONE) return Fail(std::string(what) + ": expected a failure code, got " + Code(code));
  if (after != threads) return Fail(Format("threads after %s: expected %d, got %d", what, threads, after));
  return Pass();
}

Outcome NullCallback(ModuleSession& session) {
  return RefusedStart(session, false, nullptr, "start_notif_thread with a null callback");
}

Outcome StartTwice(ModuleSession& session) {
  return RefusedStart(session, true, Callback, "second start_notif_thread");
}

Outcome StopWithoutStart(ModuleSession& session) {
  tavik_driver_device* d = session.devices.front();
  d->open(d);
  const int16 code = d->stop_notif_thread(d);
  d->close(d);
  if (code != KZ_ERR_NONE) return Fail("stop_notif_thread without start: expected KZ_ERR_NONE (0), got " + Code(code));
  return Pass();
}

Outcome Records(ModuleSession& session) {
  return WithEvents(session, Mode::kCount, 4, [](tavik_driver_device*) {
    const int bad = g.badIndex.load();
    if (bad < 0) return Pass(Format("%d records", g.count.load()));
    return Fail(Format("record %d: expected size 32, version 1 and a NOTIFICATION_* type, got size %u, version %u, "
                       "type 0x%08x", bad, g.badWord.load() & 0xFFFF, g.badWord.load() >> 16, g.badType.load()));
  });
}

Outcome NoCallbackAfterStop(ModuleSession& session) {
  return WithEvents(session, Mode::kCount, 2, [](tavik_driver_device* d) {
    Outcome stop = StopAndMark(d);
    if (stop.result != Result::kPass) return stop;
    std::this_thread::sleep_for(milliseconds(300));
    if (g.afterStop.load() == 0) return Pass();
    return Fail(Format("callbacks after stop_notif_thread returned: expected 0, got %d", g.afterStop.load()));
  });
}

Outcome FailingCallback(ModuleSession& session) {
  return WithEvents(session, Mode::kFail, 1, [](tavik_driver_device*) {
    if (WaitFor([] { return g.count.load() >= 3; }, kEventWait)) return Pass();
    return Fail(Format("records after callbacks that returned KZ_ERR_UNKNOWN (150): expected delivery to go on, "
                       "got %d record(s) in %lld ms", g.count.load(), static_cast<long long>(kEventWait.count())));
  });
}

Outcome CallbackReenters(ModuleSession& session) {
  return WithEvents(session, Mode::kReenter, 3, [](tavik_driver_device*) {
    if (g.reentryFailed.load() != 0)
      return Fail("read from inside the callback: expected KZ_ERR_NONE (0), got " + Code(g.reentryCode.load()));
    if (g.count.load() < 3) return Fail(Format("records while the callback reads: expected 3, got %d", g.count.load()));
    return Pass();
  });
}

Outcome StopFromCallback(ModuleSession& session) {
  return WithEvents(session, Mode::kStopSelf, 1, [](tavik_driver_device*) {
    if (!WaitFor([] { return g.stopSelfDone.load(); }, kEventWait))
      return Fail("stop_notif_thread from inside the callback: expected a refusal, got no return");
    const int16 code = g.stopSelfCode.load();
    if (code == KZ_ERR_NONE)
      return Fail("stop_notif_thread from inside the callback: expected a failure code, got " + Code(code));
    return Pass();
  });
}

constexpr milliseconds kPromptStop{1000};

Outcome TimedStop(tavik_driver_device* d, const char* when) {
  const auto start = Clock::now();
  Outcome stop = StopAndMark(d);
  const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  if (stop.result == Result::kPass && took > kPromptStop)
    return Fail(Format("stop_notif_thread %s: expected a return within %lld ms, got %lld ms", when,
                       static_cast<long long>(kPromptStop.count()), static_cast<long long>(took.count())));
  return stop;
}

// The first device, open, its notifications started and given `settle` to go idle.
tavik_driver_device* StartIdle(ModuleSession& session, milliseconds settle) {
  tavik_driver_device* d = session.devices.front();
  d->open(d);
  d->start_notif_thread(d, Callback);
  std::this_thread::sleep_for(settle);
  return d;
}

Outcome PromptStop(ModuleSession& session) {
  tavik_driver_device* d = StartIdle(session, milliseconds(50));
  Outcome idle = TimedStop(d, "while idle");
  g.stopped.store(false);
  d->close(d);
  if (idle.result != Result::kPass) return idle;
  return WithEvents(session, Mode::kCount, 2, [](tavik_driver_device* dev) { return TimedStop(dev, "while events flow"); });
}

// The core forgot stop and close: uninit must end the thread itself. The
// child's tidy-up after the check counts the threads that are left.
Outcome UninitWhileRunning(ModuleSession& session) {
  tavik_driver_device* d = session.devices.front();
  d->open(d);
  if (const int16 code = d->start_notif_thread(d, Callback); code != KZ_ERR_NONE)
    return Fail("start_notif_thread: expected KZ_ERR_NONE (0), got " + Code(code));
  StartFrames(d);
  WaitFor([] { return g.count.load() >= 2; }, milliseconds(500));
  return Pass();
}

// CPU time of every thread but the calling one, and the context switches of the
// threads the module started: what the module does while the caller sleeps. A
// thread blocked for good adds neither. Both count, because on a busy machine a
// spinning thread that yields gets little CPU but is switched out all the time.
// Threads that ran before init (a sanitizer's helper) are not the module's.
struct Activity {
  double cpuMs = 0;
  long switches = 0;
};

Activity ModuleThreads(const ModuleSession& session) {
  timespec process{}, self{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &process);
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &self);
  Activity a;
  a.cpuMs = (process.tv_sec - self.tv_sec) * 1e3 + (process.tv_nsec - self.tv_nsec) * 1e-6;
  const std::vector<std::string>& before = session.tasksBeforeInit;
  for (const std::string& id : TaskIds()) {
    if (std::find(before.begin(), before.end(), id) != before.end()) continue;
    std::ifstream status("/proc/self/task/" + id + "/status");
    for (std::string line; std::getline(status, line);)
      if (line.find("ctxt_switches:") != std::string::npos) a.switches += std::atol(line.c_str() + line.find(':') + 1);
  }
  return a;
}

Outcome IdleCpu(ModuleSession& session) {
  tavik_driver_device* d = StartIdle(session, milliseconds(100));
  constexpr int kWindowMs = 500, kCpuLimitMs = 25, kWakeLimit = 10;
  const Activity before = ModuleThreads(session);
  std::this_thread::sleep_for(milliseconds(kWindowMs));
  const Activity after = ModuleThreads(session);
  d->stop_notif_thread(d);
  d->close(d);
  const double cpu = std::max(0.0, after.cpuMs - before.cpuMs);
  const long wakes = after.switches - before.switches;
  if (cpu <= kCpuLimitMs && wakes <= kWakeLimit)
    return Pass(Format("%.1f ms of CPU and %ld wake-up(s) in %d ms idle", cpu, wakes, kWindowMs));
  return Fail(Format("an idle notification thread in %d ms: expected at most %d ms of CPU and %d wake-ups, got %.0f ms "
                     "and %ld", kWindowMs, kCpuLimitMs, kWakeLimit, cpu, wakes));
}

// Every function called with allocations failing: after init in the usual way,
// then with init itself failing to allocate. An exception that leaves a module
// function is caught here and named.
Outcome Exceptions(ModuleSession& session) {
  static char escaped[160];
  escaped[0] = '\0';
  auto guard = [](const char* what, auto call) {
    FailAllocations(true);
    try {
      call();
    } catch (const std::exception& e) {
      if (escaped[0] == '\0') snprintf(escaped, sizeof escaped, "%s: expected no C++ exception, got %s", what, e.what());
    } catch (...) {
      if (escaped[0] == '\0') snprintf(escaped, sizeof escaped, "%s: expected no C++ exception, got one", what);
    }
    FailAllocations(false);
  };
  std::string why = session.Init();
  if (why.empty()) why = session.FindDevices();
  for (tavik_driver_device* d : session.devices) {
    uns8 buffer[64] = {};
    uns16 n = 0;
    guard("open", [&] { d->open(d); });
    guard("read", [&] { d->read(d, buffer, sizeof buffer, &n); });
    guard("write", [&] { d->write(d, buffer, sizeof buffer, &n); });
    guard("ioctl", [&] { d->ioctl(d, TAVIK_IOC_GET_DRIVER_VERSION, buffer); });
    guard("last_error_msg", [&] { d->last_error_msg(d, reinterpret_cast<char*>(buffer), sizeof buffer); });
    guard("start_notif_thread", [&] { d->start_notif_thread(d, Callback); });
    guard("stop_notif_thread", [&] { d->stop_notif_thread(d); });
    d->stop_notif_thread(d);
    guard("close", [&] { d->close(d); });
    d->close(d);
  }
  guard("uninit", [&] { session.uninit(&session.driver); });
  tavik_driver record{};
  guard("type", [&] { session.type(); });
  rs_bool initResult = QX_FAIL;
  guard("init", [&] { initResult = session.init(&record); });
  // After a failed init that left nothing, uninit has its own check.
  if (initResult == QX_OK || record.device_list != nullptr)
    guard("uninit after init without memory", [&] { session.uninit(&record); });
  session.driver = tavik_driver{};
  session.initialised = false;
  if (escaped[0] != '\0') return Fail(escaped);
  return why.empty() ? Pass() : Pass(why + "; init without memory and uninit checked");
}

// One thread per device, each opening, reading, writing and closing its own
// device over and over, as a core with several cameras does.
Outcome Threads(ModuleSession& session) {
  if (session.devices.size() < 2)
    return Skip(Format("needs two devices, the module made %zu", session.devices.size()));
  constexpr int kRounds = 200;
  std::vector<std::string> problems(session.devices.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < session.devices.size(); ++i) {
    threads.emplace_back([&, i] {
      tavik_driver_device* d = session.devices[i];
      uns8 buffer[64] = {};
      uns16 n = 0;
      for (int round = 0; round < kRounds && problems[i].empty(); ++round) {
        const std::pair<const char*, int16> steps[] = {{"open", d->open(d)},
                                                       {"read", d->read(d, buffer, sizeof buffer, &n)},
                                                       {"write", d->write(d, buffer, sizeof buffer, &n)},
                                                       {"close", d->close(d)}};
        for (const auto& [what, code] : steps)
          if (code != KZ_ERR_NONE && problems[i].empty())
            problems[i] = Format("'%s' round %d: %s: expected KZ_ERR_NONE (0), got %s", DeviceName(d).c_str(), round,
                                 what, Code(code).c_str());
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (const std::string& p : problems)
    if (!p.empty()) return Fail(p);
  return Pass(Format("%zu devices, %d rounds each", session.devices.size(), kRounds));
}

}  // namespace

void AddNotificationChecks(std::vector<Check>& checks) {
  const char* g = "notifications";
  const char* r = "robustness";
  checks.insert(checks.end(), {
      {g, "null-callback", "start with a null callback is refused and starts no thread", Needs::kDevices, NullCallback},
      {g, "start-twice", "a second start is refused, not a crash", Needs::kDevices, StartTwice},
      {g, "stop-without-start", "stop without start succeeds", Needs::kDevices, StopWithoutStart},
      {g, "record-fields", "records carry size 32, version 1 and a known type", Needs::kDevices, Records},
      {g, "no-callback-after-stop", "no callback once stop has returned", Needs::kDevices, NoCallbackAfterStop},
      {g, "failing-callback", "delivery goes on after a callback fails", Needs::kDevices, FailingCallback},
      {g, "callback-reenters", "the callback may call back into the device", Needs::kDevices, CallbackReenters},
      {g, "stop-from-callback", "stop from inside the callback is refused", Needs::kDevices, StopFromCallback},
      {g, "prompt-stop", "stop returns within 1 s, idle or with events flowing", Needs::kDevices, PromptStop},
      {g, "uninit-while-running", "uninit ends a notification thread the core did not stop", Needs::kDevices, UninitWhileRunning},
      {g, "idle-cpu", "an idle notification thread uses no CPU", Needs::kDevices, IdleCpu},
      {r, "exceptions", "no C++ exception leaves a module function, also when memory runs out", Needs::kModule, Exceptions},
      {r, "threads", "operations on different devices from several threads at once", Needs::kDevices, Threads},
  });
}

}  // namespace compliance
