#include "DdiLibrary.h"

#include <dlfcn.h>
#include <link.h>

#include <new>
#include <vector>

namespace probe {
namespace {

std::string TakeDlError() {
  const char* text = dlerror();
  return text ? text : "unknown loader error";
}

template <typename Fn>
bool Resolve(void* handle, const char* name, Fn& out, std::string& error) {
  dlerror();
  void* symbol = dlvsym(handle, name, TAVIK_DDI_VERSION_NODE);
  if (symbol == nullptr) {
    error = std::string("entry point ") + name + "@" + TAVIK_DDI_VERSION_NODE +
            " not found (" + TakeDlError() + ")";
    return false;
  }
  out = reinterpret_cast<Fn>(symbol);
  return true;
}

}  // namespace

std::unique_ptr<DdiLibrary> DdiLibrary::Open(const std::string& nameOrPath, std::string& error) {
  std::unique_ptr<DdiLibrary> library(new (std::nothrow) DdiLibrary());
  if (!library) {
    error = "out of memory";
    return nullptr;
  }
  // RTLD_NOW: a library with unresolved references should fail here, with the
  // loader's message, and not in the middle of a camera operation.
  library->m_handle = dlopen(nameOrPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library->m_handle == nullptr) {
    error = "cannot load '" + nameOrPath + "': " + TakeDlError();
    return nullptr;
  }

  link_map* map = nullptr;
  if (dlinfo(library->m_handle, RTLD_DI_LINKMAP, &map) == 0 && map && map->l_name &&
      map->l_name[0] != '\0') {
    library->m_filePath = map->l_name;
  } else {
    library->m_filePath = nameOrPath;
  }

  std::string reason;
  if (!Resolve(library->m_handle, "tavik_ddi_init", library->init, reason) ||
      !Resolve(library->m_handle, "tavik_ddi_uninit", library->uninit, reason) ||
      !Resolve(library->m_handle, "tavik_ddi_get_lib_version", library->getLibVersion, reason) ||
      !Resolve(library->m_handle, "tavik_ddi_get_last_error_message",
               library->getLastErrorMessage, reason)) {
    error = "'" + library->m_filePath + "' is not a usable device-driver interface library: " + reason;
    return nullptr;  // the destructor closes the handle
  }
  return library;
}

DdiLibrary::~DdiLibrary() {
  if (m_handle != nullptr) dlclose(m_handle);
}

bool DdiLibrary::Close(std::string& error) {
  if (m_handle == nullptr) return true;
  void* handle = m_handle;
  m_handle = nullptr;
  init = nullptr;
  uninit = nullptr;
  getLibVersion = nullptr;
  getLastErrorMessage = nullptr;
  dlerror();
  if (dlclose(handle) != 0) {
    error = "cannot unload '" + m_filePath + "': " + TakeDlError();
    return false;
  }
  return true;
}

std::string DdiLibrary::LastErrorText() const {
  if (getLastErrorMessage == nullptr) return {};
  const uns32 needed = getLastErrorMessage(nullptr, 0);
  // A text of megabytes would be a fault of its own; cap what the probe copies.
  const uns32 size = needed > (1u << 20) ? (1u << 20) : needed;
  if (size <= 1) return {};
  std::vector<char> buffer(size, '\0');
  getLastErrorMessage(buffer.data(), size);
  return std::string(buffer.data());
}

}  // namespace probe
