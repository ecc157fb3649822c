#include "names/EnumUtils.h"

#include <cstring>

#include "names/NameTable.h"

namespace kt {
namespace EnumUtils {
namespace {

// Tables of the enumerations that the public headers declare. Each member is
// named by the spelling of its own constant, so a text cannot drift from it.

constexpr NameEntry kDriverTypeEntries[] = {
    KT_NAME_ENTRY(TAVIK_DRIVER_TYPE_PCI),  KT_NAME_ENTRY(TAVIK_DRIVER_TYPE_PCIE),
    KT_NAME_ENTRY(TAVIK_DRIVER_TYPE_USB),  KT_NAME_ENTRY(TAVIK_DRIVER_TYPE_1394),
    KT_NAME_ENTRY(TAVIK_DRIVER_TYPE_VIRTUAL),
};
KT_DEFINE_NAME_TABLE(kDriverType, kDriverTypeEntries);

constexpr NameEntry kDriverModeEntries[] = {
    KT_NAME_ENTRY(TAVIK_DRIVER_MODE_USER),
    KT_NAME_ENTRY(TAVIK_DRIVER_MODE_KERNEL),
};
KT_DEFINE_NAME_TABLE(kDriverMode, kDriverModeEntries);

constexpr NameEntry kDdiStateEntries[] = {
    KT_NAME_ENTRY(TAVIK_DDI_STATE_CLOSED),
    KT_NAME_ENTRY(TAVIK_DDI_STATE_OPEN),
};
KT_DEFINE_NAME_TABLE(kDdiState, kDdiStateEntries);

constexpr NameEntry kCamStateEntries[] = {
    KT_NAME_ENTRY(TAVIK_CAM_STATE_CLOSED),    KT_NAME_ENTRY(TAVIK_CAM_STATE_OPEN),
    KT_NAME_ENTRY(TAVIK_CAM_STATE_REMOVED),   KT_NAME_ENTRY(TAVIK_CAM_STATE_SUSPENDED),
    KT_NAME_ENTRY(TAVIK_CAM_STATE_RESUMED),
};
KT_DEFINE_NAME_TABLE(kCamState, kCamStateEntries);

constexpr NameEntry kDdiStatusEntries[] = {
    KT_NAME_ENTRY(CAM_STATUS_SUCCESS),    KT_NAME_ENTRY(EXP_ST_NO_DATA_A),
    KT_NAME_ENTRY(EXP_ST_NO_DATA_I),      KT_NAME_ENTRY(EXP_ST_COLLECT_OK_A),
    KT_NAME_ENTRY(EXP_ST_COLLECT_DONE_I), KT_NAME_ENTRY(EXP_ST_FIFO_OVER_A),
    KT_NAME_ENTRY(EXP_ST_FIFO_OVER_I),    KT_NAME_ENTRY(EXP_ST_NULL_0_A),
    KT_NAME_ENTRY(EXP_ST_EXTRA_DATA_I),   KT_NAME_ENTRY(EXP_ST_NO_ACK_A),
    KT_NAME_ENTRY(EXP_ST_NO_ACK_I),       KT_NAME_ENTRY(EXP_ST_XFER_ERR_A),
    KT_NAME_ENTRY(EXP_ST_XFER_ERR_I),     KT_NAME_ENTRY(EXP_ST_NULL_1_A),
    KT_NAME_ENTRY(EXP_ST_UNKNOWN),        KT_NAME_ENTRY(EXP_ST_NULL_2_A),
    KT_NAME_ENTRY(EXP_ST_MISSING_DATA_I), KT_NAME_ENTRY(EXP_ST_NULL_3_A),
    KT_NAME_ENTRY(EXP_ST_EMPTY_DATA_I),
};
KT_DEFINE_NAME_TABLE(kDdiStatus, kDdiStatusEntries);

constexpr NameEntry kIoctlEntries[] = {
    KT_NAME_ENTRY(TAVIK_IOC_GET_DRIVER_API_VERSION),
    KT_NAME_ENTRY(TAVIK_IOC_CAM_POST_OPEN),
    KT_NAME_ENTRY(TAVIK_IOC_CAM_PRE_CLOSE),
    KT_NAME_ENTRY(TAVIK_IOC_ACQ_SET_ACTIVE),
    KT_NAME_ENTRY(TAVIK_IOC_ACQ_GET_STATUS),
    KT_NAME_ENTRY(TAVIK_IOC_ACQ_ABORT),
    KT_NAME_ENTRY(TAVIK_IOC_STOP_DATA_TRANSFER),
    KT_NAME_ENTRY(TAVIK_IOC_CLEAR_IRQS),
    KT_NAME_ENTRY(TAVIK_IOC_GET_IRQS),
    KT_NAME_ENTRY(TAVIK_IOC_FLUSH_NOTIFICATIONS),
    KT_NAME_ENTRY(TAVIK_IOC_GET_NOTIFICATIONS),
    KT_NAME_ENTRY(TAVIK_IOC_CONFIRM_EOF_NOTIFICATION),
    KT_NAME_ENTRY(TAVIK_IOC_RESET_INTERFACE),
    KT_NAME_ENTRY(TAVIK_IOC_GET_CURRENT_TIME_STAMP),
    KT_NAME_ENTRY(TAVIK_IOC_GET_DRIVER_VERSION),
    KT_NAME_ENTRY(TAVIK_IOC_GET_DRIVER_CAPABILITIES),
    KT_NAME_ENTRY(TAVIK_IOC_GET_PCI_FW_REVISION),
    KT_NAME_ENTRY(TAVIK_IOC_GET_BRIDGE_CAPABILITIES_SIZE),
    KT_NAME_ENTRY(TAVIK_IOC_GET_BRIDGE_CAPABILITIES),
    KT_NAME_ENTRY(TAVIK_IOC_DRIVER_DEBUG_COMMAND),
    KT_NAME_ENTRY(TAVIK_IOC_GET_INFO_DUMP),
    KT_NAME_ENTRY(TAVIK_IOC_GET_INFO_LENGTH),
    KT_NAME_ENTRY(TAVIK_IOC_GET_MAX_RETRIES),
    KT_NAME_ENTRY(TAVIK_IOC_SET_MAX_RETRIES),
    KT_NAME_ENTRY(TAVIK_IOC_GET_MAX_TIMEOUT),
    KT_NAME_ENTRY(TAVIK_IOC_SET_MAX_TIMEOUT),
};
KT_DEFINE_NAME_TABLE(kIoctl, kIoctlEntries);

// A bit set: 0 means no event and has its own placeholder.
constexpr NameEntry kNotifEntries[] = {
    NameEntry{0u, kNoneName},
    KT_NAME_ENTRY(NOTIFICATION_DEVICE_REMOVAL),
    KT_NAME_ENTRY(NOTIFICATION_BUS_RESET),
    KT_NAME_ENTRY(NOTIFICATION_BOF),
    KT_NAME_ENTRY(NOTIFICATION_EOF),
    KT_NAME_ENTRY(NOTIFICATION_BOF_EOF),
    KT_NAME_ENTRY(NOTIFICATION_SYS_SUSPEND),
    KT_NAME_ENTRY(NOTIFICATION_COMPLETE),
    KT_NAME_ENTRY(NOTIFICATION_ACK_SEND),
    KT_NAME_ENTRY(NOTIFICATION_ACK_RECEIVE),
    KT_NAME_ENTRY(NOTIFICATION_ACK_ABORT),
    KT_NAME_ENTRY(NOTIFICATION_ACK_FLUSH),
};
KT_DEFINE_NAME_TABLE(kNotif, kNotifEntries);

// Tables of the kit's own enumerations, expanded from their list macros.
#define KT_TABLE_ROW(constant, value) ::kt::NameEntry{static_cast<std::uint32_t>(value), #constant},
#define KT_TABLE_NO_ROW(constant, value)
#define KT_TABLE_TEXT_ROW(value, text) ::kt::NameEntry{static_cast<std::uint32_t>(value), text},
#define KT_DEFINE_KIT_TABLE(type, list)                                            \
  constexpr NameEntry k##type##Entries[] = {list(KT_TABLE_ROW, KT_TABLE_NO_ROW, KT_TABLE_TEXT_ROW)}; \
  KT_DEFINE_NAME_TABLE(k##type, k##type##Entries);

KT_KIT_NAMED_ENUMS(KT_DEFINE_KIT_TABLE)

#undef KT_DEFINE_KIT_TABLE

// The combined exposure mode is composed into one shared buffer, sized at
// compile time for the longest "<trigger>|<expose-out>" text so that a call
// never allocates and never cuts a name.
constexpr std::size_t kExpModeCapacity =
    kKZ_EXPOSURE_MODES.MaxNameLength() + 1 + kKZ_EXPOSE_OUT_MODES.MaxNameLength() + 1;
static_assert(kExpModeCapacity > 2 * (sizeof(kUnknownName) - 1) + 1,
              "room for two unknown parts");

struct ExpModeText {
  // Set up once, under the one-time initialisation of a local static.
  ExpModeText() noexcept { text[0] = '\0'; }
  char text[kExpModeCapacity];
};

char* ExpModeBuffer() noexcept {
  static ExpModeText shared;
  return shared.text;
}

const char* ComposeExpMode(std::uint32_t value) noexcept {
  char* out = ExpModeBuffer();
  const std::uint32_t low16 = value & 0xFFFFu;
  if (low16 < 256u) {
    const char* classic = kKZ_EXPOSURE_MODES.Find(low16);
    std::memcpy(out, classic, std::strlen(classic) + 1);
    return out;
  }
  const char* trigger = kKZ_EXPOSURE_MODES.Find(value & 0xFF00u);
  const char* exposeOut = kKZ_EXPOSE_OUT_MODES.Find(value & 0xFFu);
  const std::size_t triggerLen = std::strlen(trigger);
  const std::size_t exposeOutLen = std::strlen(exposeOut);
  std::memcpy(out, trigger, triggerLen);
  out[triggerLen] = '|';
  std::memcpy(out + triggerLen + 1, exposeOut, exposeOutLen + 1);
  return out;
}

// Enumerations are converted to their unsigned 32-bit value before any compare.
template <typename T>
constexpr std::uint32_t ToValue(T value) {
  return static_cast<std::uint32_t>(value);
}

} // namespace

template <> const char* GetName<_KZ_DRIVER_TYPE>(_KZ_DRIVER_TYPE value) { return kDriverType.Find(ToValue(value)); }
template <> const char* GetName<_KZ_DRIVER_MODE>(_KZ_DRIVER_MODE value) { return kDriverMode.Find(ToValue(value)); }
template <> const char* GetName<_KZ_DDI_STATE>(_KZ_DDI_STATE value) { return kDdiState.Find(ToValue(value)); }
template <> const char* GetName<_KZ_CAM_STATE>(_KZ_CAM_STATE value) { return kCamState.Find(ToValue(value)); }
template <> const char* GetName<_KZ_DDI_STATUS>(_KZ_DDI_STATUS value) { return kDdiStatus.Find(ToValue(value)); }
template <> const char* GetName<_KZ_IOCTL>(_KZ_IOCTL value) { return kIoctl.Find(ToValue(value)); }
template <> const char* GetName<_KZ_NOTIF>(_KZ_NOTIF value) { return kNotif.Find(ToValue(value)); }

#define KT_DEFINE_GET_NAME(type, list) \
  template <> const char* GetName<type>(type value) { return k##type.Find(ToValue(value)); }
KT_KIT_NAMED_ENUMS(KT_DEFINE_GET_NAME)
#undef KT_DEFINE_GET_NAME

template <> const char* GetName<_KZ_EXP_MODE>(_KZ_EXP_MODE value) {
  return ComposeExpMode(ToValue(value));
}

} // namespace EnumUtils
} // namespace kt
