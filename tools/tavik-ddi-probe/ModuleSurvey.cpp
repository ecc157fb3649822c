#include "ModuleSurvey.h"

#include <dirent.h>
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include <cstring>

#include "../../src/driver/tavik_module_file.h"

namespace probe {
namespace {

// The library's own rule for module names: the prefix at the start, the suffix
// at the end, at least one character between them.
int IsModuleName(const struct dirent* entry) {
  static const char kPrefix[] = "tavik_", kSuffix[] = ".x86_64.umd";
  const std::size_t length = std::strlen(entry->d_name), suffix = sizeof kSuffix - 1;
  if (length < sizeof kPrefix - 1 + suffix + 1) return 0;
  return std::strncmp(entry->d_name, kPrefix, sizeof kPrefix - 1) == 0 &&
         std::strcmp(entry->d_name + length - suffix, kSuffix) == 0;
}

std::string RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
}

bool HoldsSlot(const std::string& path, const Ddi& ddi) {
  const std::string real = RealPath(path);
  for (const tavik_driver* driver : ddi.drivers) {
    if (driver != nullptr && driver->mode == TAVIK_DRIVER_MODE_USER &&
        RealPath(std::string(driver->file_path, strnlen(driver->file_path, sizeof driver->file_path))) == real)
      return true;
  }
  return false;
}

// What the library found wrong with a module that it did not keep, asked the
// same way: the file rule first, then the loader, the entry points and the type.
std::string Reason(const std::string& path, const Ddi& ddi) {
  char reason[128];
  if (tavik_module_file_check(path.c_str(), reason, sizeof reason) == TAVIK_MODULE_FILE_REFUSE) return reason;
  void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    const char* error = dlerror();
    return error != nullptr ? error : "cannot be loaded";
  }
  std::string why;
  auto type = reinterpret_cast<tavik_driver_type_fn>(dlsym(module, "type"));
  if (dlsym(module, "init") == nullptr) {
    why = "Init function not found in driver";
  } else if (dlsym(module, "uninit") == nullptr) {
    why = "Uninit function not found in driver";
  } else if (type == nullptr) {
    why = "Type function not found in driver";
  } else {
    const unsigned bus = static_cast<unsigned>(type());
    if (bus >= TAVIK_DRIVER_TYPE_COUNT)
      why = "invalid driver type " + std::to_string(bus);
    else if (ddi.drivers[bus] != nullptr && ddi.drivers[bus]->mode == TAVIK_DRIVER_MODE_USER)
      why = "bus type already served";
    else
      why = "driver initialization failed";
  }
  dlerror();
  dlclose(module);
  return why;
}

bool Complete(const tavik_driver_device* d) {
  return d->open && d->close && d->read && d->write && d->ioctl && d->last_error_msg && d->start_notif_thread &&
         d->stop_notif_thread;
}

}  // namespace

void SurveyModules(const std::string& folder, const Ddi& ddi, ProbeReport& report) {
  for (DriverRecord& record : report.drivers) {
    const tavik_driver* driver = ddi.drivers[record.slot];
    record.incompatible = 0;
    for (unsigned i = 0; driver != nullptr && driver->device_list != nullptr && i < record.devices; ++i)
      if (driver->device_list[i] != nullptr && !Complete(driver->device_list[i])) ++record.incompatible;
  }
  report.moduleFolder = folder;
  report.skippedModules.clear();
  if (folder.empty()) return;
  struct dirent** entries = nullptr;
  const int count = scandir(folder.c_str(), &entries, IsModuleName, alphasort);
  for (int i = 0; i < count; ++i) {
    const std::string path = folder + "/" + entries[i]->d_name;
    if (!HoldsSlot(path, ddi)) report.skippedModules.push_back({path, Reason(path, ddi)});
    free(entries[i]);
  }
  free(entries);
}

}  // namespace probe
