// The shipped libtavikDDI loaded as the camera-control core loads it: by path,
// with the four entry points resolved at version TAVIK_DDI_3.0.
#pragma once

#include <string>

#include <tavik/tavik.h>

namespace tavik_test {

class DdiLibrary {
 public:
  ~DdiLibrary() { Unload(); }

  static const char* Path() { return TAVIK_TEST_LIBRARY_PATH; }
  // dlopen + dlvsym of all four; false with the loader's text on any failure.
  bool Load(std::string* error);
  void Unload();
  bool Loaded() const { return handle_ != nullptr; }
  // Whether the library is still mapped in this process (after Unload).
  static bool StillMapped();
  // The calling thread's last error text, read through the entry point.
  std::string LastError() const;

  tavik_ddi_init_fn init = nullptr;
  tavik_ddi_uninit_fn uninit = nullptr;
  tavik_ddi_get_lib_version_fn get_lib_version = nullptr;
  tavik_ddi_get_last_error_message_fn get_last_error_message = nullptr;

 private:
  void* handle_ = nullptr;
};

}  // namespace tavik_test

// Loads the library into lib or fails the calling function.
#define TAVIK_ASSERT_LOAD(lib)                                         \
  do {                                                                 \
    std::string tavik_load_error_;                                     \
    ASSERT_TRUE((lib).Load(&tavik_load_error_)) << tavik_load_error_;  \
  } while (0)
