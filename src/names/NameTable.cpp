#include "names/NameTable.h"

namespace kt {

const char* FindName(const NameEntry* entries, std::size_t count, bool dense,
                     std::uint32_t value) noexcept {
  if (count == 0) {
    return kUnknownName;
  }
  if (dense) {
    // Unsigned wrap-around turns values below the first member into large offsets.
    const std::uint32_t offset = value - entries[0].value;
    return offset < count ? entries[offset].name : kUnknownName;
  }
  std::size_t lo = 0;
  std::size_t hi = count;
  while (lo < hi) {
    const std::size_t mid = lo + (hi - lo) / 2;
    if (entries[mid].value < value) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return lo < count && entries[lo].value == value ? entries[lo].name : kUnknownName;
}

} // namespace kt
