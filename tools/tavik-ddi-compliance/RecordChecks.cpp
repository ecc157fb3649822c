// records: what init hands the library, and what uninit and unloading leave.
#include <dlfcn.h>

#include <cstring>

#include "ComplianceCheck.h"
#include "ModuleSession.h"

namespace compliance {
namespace {

// The list up to its terminator, which must come within a count no rig reaches.
constexpr size_t kMaxDevices = 4096;

Outcome InitResult(ModuleSession& session) {
  session.Init();
  const rs_bool result = session.initResult;
  if (result == QX_OK || result == QX_FAIL) return Pass(result == QX_FAIL ? "init returned QX_FAIL" : "");
  return Fail(Format("init: expected QX_OK (1) or QX_FAIL (0), got %d", result));
}

Outcome DeviceList(ModuleSession& session) {
  if (session.driver.device_list == nullptr) return Pass("no devices");
  size_t n = 0;
  while (n < kMaxDevices && session.driver.device_list[n] != nullptr) ++n;
  if (n == kMaxDevices) return Fail(Format("device_list: expected a null entry within %zu, got none", kMaxDevices));
  return Pass(Format("%zu device(s)", n));
}

// Runs `problem` on every device of the list; the first problem found is the failure.
template <typename Fn>
Outcome EachListed(ModuleSession& session, Fn problem) {
  if (session.driver.device_list == nullptr) return Skip("the module made no devices");
  for (size_t i = 0; i < kMaxDevices && session.driver.device_list[i] != nullptr; ++i) {
    const tavik_driver_device* d = session.driver.device_list[i];
    if (std::string p = problem(d); !p.empty()) return Fail(Format("device %zu: ", i) + p);
  }
  return Pass();
}

Outcome BackPointer(ModuleSession& session) {
  return EachListed(session, [&](const tavik_driver_device* d) {
    return d->driver == &session.driver
               ? std::string()
               : Format("driver: expected %p (the record init got), got %p", static_cast<void*>(&session.driver),
                        static_cast<void*>(d->driver));
  });
}

Outcome Strings(ModuleSession& session) {
  return EachListed(session, [](const tavik_driver_device* d) {
    if (strnlen(d->file_path, sizeof d->file_path) == sizeof d->file_path)
      return std::string("file_path: expected a terminator within 256 characters, got none");
    if (strnlen(d->name, sizeof d->name) == sizeof d->name)
      return std::string("name: expected a terminator within 32 characters, got none");
    return std::string();
  });
}

Outcome Operations(ModuleSession& session) {
  return EachListed(session, [](const tavik_driver_device* d) {
    const std::pair<const char*, bool> ops[] = {
        {"open", d->open}, {"close", d->close}, {"read", d->read}, {"write", d->write}, {"ioctl", d->ioctl},
        {"last_error_msg", d->last_error_msg}, {"start_notif_thread", d->start_notif_thread},
        {"stop_notif_thread", d->stop_notif_thread}};
    std::string missing;
    for (const auto& [name, present] : ops)
      if (!present) missing += std::string(missing.empty() ? "" : ", ") + name;
    return missing.empty() ? missing
                           : "'" + DeviceName(d) + "': expected all eight operations, got null " + missing +
                                 "; the library leaves the device out";
  });
}

Outcome DeviceWord(ModuleSession& session) {
  return EachListed(session, [](const tavik_driver_device* d) {
    return d->device_word == 0 ? std::string()
                               : Format("device_word: expected 0, got 0x%llx",
                                        static_cast<unsigned long long>(d->device_word));
  });
}

Outcome UninitClearsList(ModuleSession& session) {
  session.uninit(&session.driver);
  session.initialised = false;
  if (session.driver.device_list == nullptr) return Pass();
  // Not the module's to free any more: the library would keep a dangling list.
  session.driver.device_list = nullptr;
  return Fail("device_list after uninit: expected null, got a pointer");
}

Outcome UninitWithoutInit(ModuleSession& session) {
  tavik_driver record{};
  const int threads = CountThreads();
  session.uninit(&record);
  if (record.device_list != nullptr) return Fail("device_list after uninit of an empty record: expected null, got a pointer");
  if (CountThreads() != threads) return Fail(Format("threads after uninit of an empty record: expected %d, got %d", threads, CountThreads()));
  return Pass();
}

struct Usage {
  int threads, descriptors;
  size_t heap;
};

Usage Measure() { return {CountThreads(), CountDescriptors(), HeapInUse()}; }

// Loads, inits, uninits and unloads the module `cycles` times, as a core does
// across init and uninit of the library.
std::string Cycle(const std::string& path, int cycles) {
  for (int i = 0; i < cycles; ++i) {
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) return std::string("the module cannot be loaded: ") + dlerror();
    auto init = reinterpret_cast<tavik_driver_init_fn>(dlsym(handle, "init"));
    auto uninit = reinterpret_cast<tavik_driver_uninit_fn>(dlsym(handle, "uninit"));
    if (init == nullptr || uninit == nullptr) return "the module lacks init or uninit";
    tavik_driver record{};
    init(&record);
    uninit(&record);
    dlclose(handle);
  }
  return {};
}

Outcome Cycles(ModuleSession& session) {
  // The first cycles pay for what stays by design: the loader's bookkeeping
  // (its tables of loaded objects grow in steps over the first few dozen
  // loads), a C++ runtime that cannot be unloaded, first-use caches.
  if (std::string why = Cycle(session.Path(), 32); !why.empty()) return Skip(why);
  constexpr int kCycles = 16;
  const Usage before = Measure();
  Cycle(session.Path(), kCycles);
  const Usage middle = Measure();
  Cycle(session.Path(), kCycles);
  const Usage after = Measure();
  if (after.threads != before.threads)
    return Fail(Format("threads after %d more init/uninit/dlclose cycles: expected %d, got %d", 2 * kCycles,
                       before.threads, after.threads));
  if (after.descriptors != before.descriptors)
    return Fail(Format("open descriptors after %d more cycles: expected %d, got %d", 2 * kCycles,
                       before.descriptors, after.descriptors));
  // A leak grows the heap in both rounds; one more step of the loader's tables
  // (another object it loads with the module shifts them) grows it in one.
  constexpr size_t kSlack = 1024;
  if (middle.heap > before.heap + kSlack && after.heap > middle.heap + kSlack)
    return Fail(Format("heap in use after each of two rounds of %d cycles: expected at most %zu bytes more, got %zu "
                       "and %zu more", kCycles, kSlack, middle.heap - before.heap, after.heap - middle.heap));
  return Pass();
}

}  // namespace

void AddRecordChecks(std::vector<Check>& checks) {
  const char* g = "records";
  checks.insert(checks.end(), {
      {g, "init-result", "init returns QX_OK or QX_FAIL", Needs::kModule, InitResult},
      {g, "device-list", "device_list is null or ends with a null entry", Needs::kDriver, DeviceList},
      {g, "device-driver", "every device points back to its driver record", Needs::kDriver, BackPointer},
      {g, "device-strings", "file_path and name are terminated within 256 and 32 characters", Needs::kDriver, Strings},
      {g, "device-operations", "every device has all eight operations", Needs::kDriver, Operations},
      {g, "device-word", "every device's device_word is 0", Needs::kDriver, DeviceWord},
      {g, "uninit-clears-list", "uninit leaves device_list null", Needs::kDriver, UninitClearsList},
      {g, "uninit-without-init", "uninit accepts a record that init never filled", Needs::kModule, UninitWithoutInit},
      {g, "cycles", "init/uninit/dlclose cycles leave no thread, descriptor or heap growth", Needs::kFile, Cycles},
  });
}

}  // namespace compliance
