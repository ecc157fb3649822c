// Loads libtavikDDI in a fresh process image, runs tavik_ddi_init and prints
// what it found, one fact a line, so that a test can check the known-module
// search through LD_LIBRARY_PATH, which the loader reads only at start.
//   tavik_e2e_loader [--private-dev]
#include <cstdio>
#include <cstring>
#include <string>

#include "DdiLibrary.h"
#include "FakeDev.h"

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--private-dev") == 0) {
      std::string why;
      if (!tavik_test::TryEnterPrivateDev(&why)) {
        std::printf("skip %s\n", why.c_str());
        return 77;
      }
    }
  }
  tavik_test::DdiLibrary lib;
  std::string error;
  if (!lib.Load(&error)) {
    std::printf("error %s\n", error.c_str());
    return 2;
  }
  Ddi ddi;
  std::memset(&ddi, 0, sizeof ddi);
  int16 rc = lib.init(&ddi);
  std::printf("init %d\n", rc);
  std::printf("state %d\n", static_cast<int>(ddi.state));
  std::printf("cam_count %u\n", ddi.cam_count);
  for (int i = 0; i < TAVIK_DRIVER_TYPE_COUNT; ++i) {
    const tavik_driver* d = ddi.drivers[i];
    if (d == nullptr) {
      std::printf("slot %d none\n", i);
    } else {
      std::printf("slot %d mode %d path %s\n", i, static_cast<int>(d->mode), d->file_path);
    }
  }
  for (unsigned i = 0; i < ddi.cam_count && i < TAVIK_DDI_MAX_CAMERAS; ++i)
    std::printf("camera %u %s\n", i, ddi.devices[i]->name);
  std::printf("uninit %d\n", lib.uninit(&ddi));
  lib.Unload();
  return 0;
}
