#include "DdiLibrary.h"

#include <dlfcn.h>

namespace tavik_test {

bool DdiLibrary::Load(std::string* error) {
  handle_ = handle_ != nullptr ? handle_ : dlopen(Path(), RTLD_NOW | RTLD_LOCAL);
  const std::pair<const char*, void*> entries[] = {{"tavik_ddi_init", &init},
                                                   {"tavik_ddi_uninit", &uninit},
                                                   {"tavik_ddi_get_lib_version", &get_lib_version},
                                                   {"tavik_ddi_get_last_error_message", &get_last_error_message}};
  for (const auto& [name, slot] : entries) {
    void* symbol = handle_ != nullptr ? dlvsym(handle_, name, TAVIK_DDI_VERSION_NODE) : nullptr;
    if (symbol == nullptr) {
      const char* why = dlerror();
      *error = std::string(name) + ": " + (why != nullptr ? why : "not found");
      Unload();
      return false;
    }
    *static_cast<void**>(slot) = symbol;
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
  if (h != nullptr) dlclose(h);
  return h != nullptr;
}

std::string DdiLibrary::LastError() const {
  char text[1024] = "";
  get_last_error_message(text, sizeof text);
  return text;
}

}  // namespace tavik_test
