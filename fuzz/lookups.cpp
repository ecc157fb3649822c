// Every name lookup with any value (enumeration names, command codes, capability masks, error-code names and
// messages) gives a non-empty constant text; error codes count by their low 16 bits only.
#include <fuzzer/FuzzedDataProvider.h>

#include "error/tavik_error_strings.h"
#include "names/EnumUtils.h"
#include "names/bridgecom_strings.h"
#include "names/drivercom_caps_strings.h"
#include "names/hostcom_strings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  while (in.remaining_bytes() > 0) {
    const uns32 value = in.ConsumeIntegral<uns32>();
    std::vector<const char*> texts = {GetErrCodeName(value), GetErrMessage(value), GetHostComDebugString(value),
                                      GetBridgeComDebugString(value), GetDriverComCapsString(value)};
#define KT_FUZZ_NAME(type, list) texts.push_back(kt::EnumUtils::GetName<type>(static_cast<type>(value)));
    KT_KIT_NAMED_ENUMS(KT_FUZZ_NAME)
    KT_FUZZ_NAME(_KZ_DRIVER_TYPE, ) KT_FUZZ_NAME(_KZ_DRIVER_MODE, ) KT_FUZZ_NAME(_KZ_DDI_STATE, )
    KT_FUZZ_NAME(_KZ_CAM_STATE, ) KT_FUZZ_NAME(_KZ_DDI_STATUS, ) KT_FUZZ_NAME(_KZ_IOCTL, )
    KT_FUZZ_NAME(_KZ_NOTIF, ) KT_FUZZ_NAME(_KZ_EXP_MODE, )
    for (const char* text : texts)
      if (text == nullptr || std::strlen(text) == 0) std::abort();  // ASan stops a read past the end
    if (std::strcmp(GetErrCodeName(value), GetErrCodeName(value & 0xFFFF)) != 0 ||
        std::strcmp(GetErrMessage(value), GetErrMessage(value & 0xFFFF)) != 0)
      std::abort();
  }
  return 0;
}
