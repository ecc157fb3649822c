#include "DdiLibrary.h"

#include <dlfcn.h>

#include <vector>

namespace tavik_test {
namespace {


template <typename Fn>
bool Resolve(void* handle, const char* name, Fn* out, std::string* error) {
  dlerror();
  void* sym = dlvsym(handle, name, TAVIK_DDI_VERSION_NODE);
  if (sym == nullptr) {
    const char* e = dlerror();
    *error = std::string("dlvsym(") + name + ", " TAVIK_DDI_VERSION_NODE "): " + (e != nullptr ? e : "not found");
    return false;
  }
  *out = reinterpret_cast<Fn>(sym);
  return true;
}

}  // namespace

bool DdiLibrary::Load(std::string* error) {
  if (handle_ != nullptr) return true;
  handle_ = dlopen(Path(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char* e = dlerror();
    *error = std::string("dlopen: ") + (e != nullptr ? e : "?");
    return false;
  }
  if (!Resolve(handle_, "tavik_ddi_init", &init, error) || !Resolve(handle_, "tavik_ddi_uninit", &uninit, error) ||
      !Resolve(handle_, "tavik_ddi_get_lib_version", &get_lib_version, error) ||
      !Resolve(handle_, "tavik_ddi_get_last_error_message", &get_last_error_message, error)) {
    Unload();
    return false;
  }
  return true;
}

void DdiLibrary::Unload() {
  if (handle_ != nullptr) dlclose(handle_);
  handle_ = nullptr;
  init = nullptr;
  uninit = nullptr;
  get_lib_version = nullptr;
  get_last_error_message = nullptr;
}

bool DdiLibrary::StillMapped() {
  void* h = dlopen(Path(), RTLD_NOW | RTLD_NOLOAD);
  if (h == nullptr) return false;
  dlclose(h);
  return true;
}

std::string DdiLibrary::LastError() const {
  uns32 need = get_last_error_message(nullptr, 0);
  std::vector<char> buf(need == 0 ? 1 : need);
  get_last_error_message(buf.data(), static_cast<uns32>(buf.size()));
  return std::string(buf.data());
}

}  // namespace tavik_test
