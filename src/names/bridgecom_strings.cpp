#include "names/bridgecom_strings.h"

#include "names/NameTable.h"
#include "names/kit_enums.h"

namespace {

// The bridge commands' own members plus their end marker, which a command
// stream may carry as a count and so deserves a name in a trace.
#define KT_BRIDGE_ROW(constant, value) ::kt::NameEntry{static_cast<std::uint32_t>(value), #constant},
#define KT_BRIDGE_NO_ROW(value, text)
constexpr kt::NameEntry kBridgeComEntries[] = {
    KT_KIT_LIST_E_CAMERA_BRIDGE_COMMANDS(KT_BRIDGE_ROW, KT_BRIDGE_ROW, KT_BRIDGE_NO_ROW)};
#undef KT_BRIDGE_ROW
#undef KT_BRIDGE_NO_ROW

KT_DEFINE_NAME_TABLE(kBridgeCom, kBridgeComEntries);
static_assert(kBridgeCom.Size() == 34, "bridge commands run from 0 to the end marker at 33");
static_assert(kBridgeCom.IsDense(), "bridge commands are looked up by index");
static_assert(kBridgeCom[kBridgeCom.Size() - 1].value == QX_MAX_BRIDGE_COMMANDS,
              "the end marker closes the table");

} // namespace

const char* GetBridgeComDebugString(uns32 value) noexcept { return kBridgeCom.Find(value); }
