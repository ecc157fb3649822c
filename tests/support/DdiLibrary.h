// The shipped libtavikDDI loaded as the camera-control core loads it, through the probe's loader: by path, with the
// four entry points taken at TAVIK_DDI_3.0.
#pragma once

#include <dlfcn.h>

#include "../../tools/tavik-ddi-probe/DdiLibrary.h"

namespace tavik_test {

using probe::DdiLibrary;
inline bool StillMapped() {
  void* h = dlopen(TAVIK_TEST_LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD);
  return h != nullptr && dlclose(h) == 0;
}

}  // namespace tavik_test

// Declares lib, the library loaded, or fails the calling function.
#define TAVIK_LOAD(lib)                                                             \
  std::string lib##Error;                                                           \
  std::unique_ptr<DdiLibrary> lib = DdiLibrary::Open(TAVIK_TEST_LIBRARY_PATH, lib##Error); \
  ASSERT_TRUE(lib) << lib##Error
