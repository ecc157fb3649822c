#include "names/drivercom_caps_strings.h"

#include "names/NameTable.h"

namespace {

// The mask has three bits: 1 circular buffer, 2 circular buffer locking,
// 4 completion notification. Every combination has a fixed text, so naming a
// mask never composes or allocates.
constexpr kt::NameEntry kDriverCapsEntries[] = {
    {0u, kt::kNoneName},
    {1u, "KZ_DRIVERCAPS_CIRC_BUFFER"},
    {2u, "KZ_DRIVERCAPS_CIRC_BUFFER_LOCKING"},
    {3u, "KZ_DRIVERCAPS_(CIRC_BUFFER|CIRC_BUFFER_LOCKING)"},
    {4u, "KZ_DRIVERCAPS_NOTIF_COMPLETE"},
    {5u, "KZ_DRIVERCAPS_(CIRC_BUFFER|NOTIF_COMPLETE)"},
    {6u, "KZ_DRIVERCAPS_(CIRC_BUFFER_LOCKING|NOTIF_COMPLETE)"},
    {7u, "KZ_DRIVERCAPS_(CIRC_BUFFER|CIRC_BUFFER_LOCKING|NOTIF_COMPLETE)"},
};
KT_DEFINE_NAME_TABLE(kDriverCaps, kDriverCapsEntries);
static_assert(kDriverCaps.IsDense(), "every combination of the three bits has a text");

} // namespace

const char* GetDriverComCapsString(uns32 value) noexcept {
  return kDriverCaps.Find(value & 0xFFFFu);
}
