// A user-mode driver module whose answers all come from the fuzzer (through fuzz_input): init's result and its
// devices (any operations missing, any names), and a bus type that may change from one call to the next.
#include <tavik/tavik_driver.h>

#include "fuzz.h"

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
