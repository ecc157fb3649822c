#include "ModuleSession.h"

#include "ComplianceCheck.h"

#include <dirent.h>
#include <dlfcn.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <thread>

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace compliance {

std::string ModuleSession::Load() {
  // RTLD_NOW as the library binds modules: a missing symbol refuses the module
  // here rather than ending the process at its first call.
  handle = dlopen(m_path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return std::string("the module cannot be loaded: ") + dlerror();
  init = reinterpret_cast<tavik_driver_init_fn>(dlsym(handle, "init"));
  uninit = reinterpret_cast<tavik_driver_uninit_fn>(dlsym(handle, "uninit"));
  type = reinterpret_cast<tavik_driver_type_fn>(dlsym(handle, "type"));
  if (init == nullptr || uninit == nullptr || type == nullptr)
    return "the module lacks one of init, uninit and type";
  typeSeen = type();
  return {};
}

std::string ModuleSession::Init() {
  threadsBeforeInit = CountThreads();
  tasksBeforeInit = TaskIds();
  initResult = init(&driver);
  initialised = true;  // uninit follows whatever init answered, as in the library
  if (initResult != QX_OK) return Format("init returned %d, not QX_OK", initResult);
  return {};
}

std::string ModuleSession::FindDevices() {
  if (driver.device_list == nullptr) return "the module made no devices";
  for (tavik_driver_device** p = driver.device_list; *p != nullptr; ++p) {
    tavik_driver_device* d = *p;
    if (d->open && d->close && d->read && d->write && d->ioctl && d->last_error_msg &&
        d->start_notif_thread && d->stop_notif_thread)
      devices.push_back(d);
  }
  return devices.empty() ? "the module made no device with all eight operations" : std::string();
}

std::string ModuleSession::Finish() {
  if (!initialised) {
    if (handle != nullptr) dlclose(handle);
    return {};
  }
  uninit(&driver);
  initialised = false;
  // A thread may take a moment to end after being told to; give it that.
  int threads = CountThreads();
  for (int i = 0; i < 100 && threads > threadsBeforeInit; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    threads = CountThreads();
  }
  if (threads > threadsBeforeInit)
    return Format("after uninit: expected no thread of the module, got %d still running", threads - threadsBeforeInit);
  dlclose(handle);
  return {};
}

namespace {

int CountEntries(const char* folder) {
  DIR* dir = opendir(folder);
  if (dir == nullptr) return -1;
  int n = 0;
  while (const dirent* e = readdir(dir))
    if (e->d_name[0] != '.') ++n;
  closedir(dir);
  return n;
}

}  // namespace

int CountThreads() { return CountEntries("/proc/self/task"); }

std::vector<std::string> TaskIds() {
  std::vector<std::string> ids;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (const dirent* e = readdir(dir))
      if (e->d_name[0] != '.') ids.emplace_back(e->d_name);
    closedir(dir);
  }
  return ids;
}
int CountDescriptors() { return CountEntries("/proc/self/fd") - 1; }  // less the one being read

size_t HeapInUse() {
  // The sanitizers' allocators replace the C library's, and count for themselves.
  if (__sanitizer_get_current_allocated_bytes != nullptr) return __sanitizer_get_current_allocated_bytes();
  return mallinfo2().uordblks;
}

std::string DeviceName(const tavik_driver_device* device) {
  return std::string(device->name, strnlen(device->name, sizeof device->name));
}

std::string LastErrorText(tavik_driver_device* device) {
  // Asked with a buffer first: the size query is a rule of its own, checked on its own.
  std::string text(256, '\0');
  uns32 needed = device->last_error_msg(device, text.data(), static_cast<uns32>(text.size()));
  if (needed > text.size() && needed <= 65536) {
    text.assign(needed, '\0');
    device->last_error_msg(device, text.data(), needed);
  }
  text.resize(strnlen(text.c_str(), text.size()));
  return text;
}

void OnFreshThread(const std::function<void()>& fn) { std::thread(fn).join(); }

}  // namespace compliance
