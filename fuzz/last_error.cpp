// The last-error text copied out through the entry point and a kernel device's last_error_msg: any text (also one
// extending the current one), any buffer size. The copy is cut and terminated inside its buffer (exactly `room`
// bytes, for ASan), and the result is the size the whole text needs.
#include <fuzzer/FuzzedDataProvider.h>
#include <tavik/tavik_ddi.h>

#include <memory>

#include "driver/kernel/tavik_driver_kernel.h"
#include "error/LastError.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const std::string text = in.ConsumeRandomLengthString(1 << 14);
  if (in.ConsumeBool()) kt::LastError::SetDetails("%s", text.c_str());
  else kt::LastError::SetDetails("%s%s", kt::LastError::GetDetails(), text.c_str());
  const std::string expected = kt::LastError::GetDetails();
  while (in.remaining_bytes() > 0) {
    const uns32 room = in.ConsumeIntegralInRange<uns32>(0, static_cast<uns32>(expected.size()) + 2);
    std::unique_ptr<char[]> buffer(in.ConsumeBool() ? new char[room] : nullptr);
    const uns32 needed = in.ConsumeBool() ? tavik_ddi_get_last_error_message(buffer.get(), room)
                                          : tavik_driver_kernel_dev_last_error_msg(nullptr, buffer.get(), room);
    const size_t copied = std::min<size_t>(room - 1, expected.size());
    if (needed != expected.size() + 1 || (buffer && room > 0 && expected.substr(0, copied) != buffer.get()))
      std::abort();
  }
  return 0;
}
