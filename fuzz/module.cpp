// Driver discovery with a user-mode module whose answers all come from the fuzzer: init's result and its devices (any
// operations missing, any names), and a bus type that may change from one call to the next. This one source is built
// twice: as that module (TAVIK_FUZZ_MODULE_SIDE), and as the target that loads it up to six times, builds the camera
// list (at most 16 complete devices), dumps every record and unloads it; ASan reports leftovers.
#include <dlfcn.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>

#ifdef TAVIK_FUZZ_MODULE_SIDE
#include <tavik/tavik_driver.h>

#define EXPORT extern "C" __attribute__((visibility("default")))

EXPORT FuzzedDataProvider* fuzz_input = nullptr;

EXPORT rs_bool init(tavik_driver* driver) {
  const size_t count = fuzz_input->ConsumeIntegralInRange<size_t>(0, 40);
  driver->device_list = static_cast<tavik_driver_device**>(std::calloc(count + 1, sizeof(tavik_driver_device*)));
  for (size_t i = 0; i < count; ++i) {
    auto* device = driver->device_list[i] = static_cast<tavik_driver_device*>(std::calloc(1, sizeof(tavik_driver_device)));
    std::strncpy(device->name, fuzz_input->ConsumeRandomLengthString(40).c_str(), sizeof device->name - 1);
    std::strncpy(device->file_path, fuzz_input->ConsumeRandomLengthString(300).c_str(), sizeof device->file_path - 1);
    const unsigned present = fuzz_input->ConsumeBool() ? 0xFF : fuzz_input->ConsumeIntegral<uint8_t>();
    void* operations[8];  // only tested for presence and printed, never called
    for (int k = 0; k < 8; ++k) operations[k] = present >> k & 1 ? device : nullptr;
    std::memcpy(&device->open, operations, sizeof operations);
  }
  return fuzz_input->ConsumeBool() ? QX_OK : fuzz_input->ConsumeIntegral<rs_bool>();
}

EXPORT void uninit(tavik_driver* driver) {
  for (tavik_driver_device** device = driver->device_list; device && *device; ++device) std::free(*device);
  std::free(driver->device_list);
}

EXPORT E_TAVIK_DRIVER_TYPE type() {
  return static_cast<E_TAVIK_DRIVER_TYPE>(fuzz_input->ConsumeBool() ? fuzz_input->ConsumeIntegral<uns32>()
                                                                   : fuzz_input->ConsumeIntegralInRange(0, 4));
}
#else
#include "ddi/tavik_ddi_internal.h"
#include "driver/tavik_driver_internal.h"

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
#endif
