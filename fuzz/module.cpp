// Driver discovery with user-mode modules that answer anything (fuzz_module.cpp): up to six loads, the camera
// list, every record dumped and unloaded. The list holds at most 16 complete devices; ASan reports leftovers.
#include <dlfcn.h>

#include <cstdio>

#include "ddi/tavik_ddi_internal.h"
#include "driver/tavik_driver_internal.h"
#include "fuzz.h"

static FuzzedDataProvider** input;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  void* module = dlopen(TAVIK_FUZZ_MODULE, RTLD_NOW);  // kept open: every load finds this copy
  if (!module || !(input = static_cast<FuzzedDataProvider**>(dlsym(module, "fuzz_input")))) std::abort();
  return freopen("/dev/null", "w", stdout) ? 0 : 1;  // where the dumps go
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  *input = &in;
  Ddi ddi{};
  for (int loads = in.ConsumeIntegralInRange(1, 6); loads > 0; --loads) ddi_load_user_mode_driver(&ddi, TAVIK_FUZZ_MODULE);
  ddi_update_device_list(&ddi);
  for (uns16 i = 0; i < ddi.cam_count; ++i) {
    void* operations[8];
    std::memcpy(operations, &ddi.devices[i]->open, sizeof operations);
    if (ddi.cam_count > TAVIK_DDI_MAX_CAMERAS || std::count(operations, operations + 8, nullptr) != 0) std::abort();
  }
  for (tavik_driver*& driver : ddi.drivers) tavik_driver_dump(driver), tavik_driver_unload(&driver);
  return 0;
}
