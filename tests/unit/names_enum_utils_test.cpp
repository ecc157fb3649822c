// Enumeration names: every table answers with the exact constant spelling for
// its members and "<UNKNOWN>" for anything else.

#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "names/EnumUtils.h"
#include "names/bridgecom_strings.h"
#include "names/drivercom_caps_strings.h"
#include "names/hostcom_strings.h"

namespace {

using NameFn = const char* (*)(std::uint32_t);

template <typename T>
const char* Name(std::uint32_t value) {
  return kt::EnumUtils::GetName(static_cast<T>(value));
}

constexpr const char* kUnknown = "<UNKNOWN>";

struct SpotCase {
  const char* table;
  NameFn name;
  std::vector<std::pair<std::uint32_t, const char*>> values;
};

void PrintTo(const SpotCase& c, std::ostream* os) { *os << c.table; }

// First, middle and last member of each table, and values just beside them.
// clang-format off
const SpotCase kSpotCases[] = {
    {"_KZ_DRIVER_TYPE", Name<_KZ_DRIVER_TYPE>, {
        {0u, "TAVIK_DRIVER_TYPE_PCI"}, {1u, "TAVIK_DRIVER_TYPE_PCIE"},
        {2u, "TAVIK_DRIVER_TYPE_USB"}, {3u, "TAVIK_DRIVER_TYPE_1394"},
        {4u, "TAVIK_DRIVER_TYPE_VIRTUAL"}, {5u, kUnknown}, {0xFFFFFFFFu, kUnknown}
    }},
    {"_KZ_DRIVER_MODE", Name<_KZ_DRIVER_MODE>, {
        {0u, "TAVIK_DRIVER_MODE_USER"}, {1u, "TAVIK_DRIVER_MODE_KERNEL"}, {2u, kUnknown}
    }},
    {"_KZ_DDI_STATE", Name<_KZ_DDI_STATE>, {
        {0u, "TAVIK_DDI_STATE_CLOSED"}, {1u, "TAVIK_DDI_STATE_OPEN"}, {2u, kUnknown}
    }},
    {"_KZ_CAM_STATE", Name<_KZ_CAM_STATE>, {
        {0u, "TAVIK_CAM_STATE_CLOSED"}, {2u, "TAVIK_CAM_STATE_REMOVED"},
        {3u, "TAVIK_CAM_STATE_SUSPENDED"}, {4u, "TAVIK_CAM_STATE_RESUMED"}, {5u, kUnknown}
    }},
    {"_KZ_DDI_STATUS", Name<_KZ_DDI_STATUS>, {
        {0u, "CAM_STATUS_SUCCESS"}, {1u, kUnknown}, {99u, kUnknown}, {100u, "EXP_ST_NO_DATA_A"},
        {113u, "EXP_ST_UNKNOWN"}, {117u, "EXP_ST_EMPTY_DATA_I"}, {118u, kUnknown}
    }},
    {"_KZ_IOCTL", Name<_KZ_IOCTL>, {
        {0x80043D00u, "TAVIK_IOC_GET_DRIVER_API_VERSION"},
        {0xC0103D1Fu, "TAVIK_IOC_GET_NOTIFICATIONS"}, {0x40023D79u, "TAVIK_IOC_SET_MAX_TIMEOUT"},
        {0x00003D00u, kUnknown}, {0x80083D1Fu, kUnknown}, {0x00003D03u, kUnknown}
    }},
    {"_KZ_NOTIF", Name<_KZ_NOTIF>, {
        {0u, "<none>"}, {1u, "NOTIFICATION_DEVICE_REMOVAL"}, {0xCu, "NOTIFICATION_BOF_EOF"},
        {0x20u, "NOTIFICATION_COMPLETE"}, {0x80000000u, "NOTIFICATION_ACK_FLUSH"},
        {0x3u, kUnknown}, {0x40u, kUnknown}, {0x30000000u, kUnknown}
    }},
    {"_KZ_PARAM_ID", Name<_KZ_PARAM_ID>, {
        {0x10201FFu, "PARAM_BIT_DEPTH"}, {0x4030003u, "PARAM_EXP_MIN_TIME"},
        {0x60201F5u, "PARAM_PIX_SER_DIST"}, {0xD020081u, "PARAM_CHIP_NAME"},
        {0x6020062u, kUnknown}, {0x10301FFu, kUnknown}, {0u, kUnknown}
    }},
    {"E_CAMERA_BRIDGE_COMMANDS", Name<E_CAMERA_BRIDGE_COMMANDS>, {
        {33u, kUnknown}, {0u, "BRIDGE_OLD_INIT_CCL"}, {16u, "QX_DATA_END_FIRMWARE_READ"},
        {32u, "QX_DATA_GET_XFER_BUFFER_SIZE"}
    }},
    {"KZ_CAM_INTERFACE_TYPES", Name<KZ_CAM_INTERFACE_TYPES>, {
        {2u, kUnknown}, {0x103u, kUnknown}, {0x204u, "KZ_CAM_IFC_TYPE_USB_3_1"},
        {0x1000u, "KZ_CAM_IFC_TYPE_VIRTUAL"}, {0x0u, "KZ_CAM_IFC_TYPE_UNKNOWN"},
        {0x400u, "KZ_CAM_IFC_TYPE_PCI"}, {0x2000u, "KZ_CAM_IFC_TYPE_ETHERNET"}, {0x1u, kUnknown},
        {0x2001u, kUnknown}
    }},
    {"KZ_EXPOSURE_MODES", Name<KZ_EXPOSURE_MODES>, {
        {6u, "INT_STROBE_MODE"}, {1791u, kUnknown}, {1793u, kUnknown}, {0u, "TIMED_MODE"},
        {1792u, "EXT_TRIG_INTERNAL"}, {3584u, "EXT_TRIG_LEVEL_PULSED"}, {7u, kUnknown},
        {3585u, kUnknown}
    }},
    {"KZ_IMAGE_COMPRESSIONS", Name<KZ_IMAGE_COMPRESSIONS>, {
        {20u, kUnknown}, {24u, "KZ_IMAGE_COMPRESSION_RESERVED24"},
        {0u, "KZ_IMAGE_COMPRESSION_NONE"}, {14u, "KZ_IMAGE_COMPRESSION_BITPACK14"},
        {32u, "KZ_IMAGE_COMPRESSION_RESERVED32"}, {1u, kUnknown}, {33u, kUnknown}
    }},
    {"_KZ_PARAM_TYPE", Name<_KZ_PARAM_TYPE>, {
        {0u, kUnknown}, {10u, kUnknown}, {21u, kUnknown}, {1u, "TYPE_INT16"}, {12u, "TYPE_INT8"},
        {22u, "TYPE_RGN_LIST_TYPE"}, {3u, kUnknown}, {23u, kUnknown}
    }},
    {"_KZ_CCS_OPTION", Name<_KZ_CCS_OPTION>, {
        {2u, "HC_CCS_CLOSE_SHTR"}, {4u, "HC_CCS_OPEN_SHTR"}, {0u, "HC_CCS_NONE"},
        {3u, "HC_CCS_CONT_CLEAR|HC_CCS_CLOSE_SHTR"}, {5u, "HC_CCS_CONT_CLEAR|HC_CCS_OPEN_SHTR"},
        {6u, kUnknown}
    }},
    {"E_EXT_OPEN_MODES", Name<E_EXT_OPEN_MODES>, {
        {0u, "EXT_OPEN_EXCLUSIVE"}, {1u, "EXT_OPEN_FW_UPDATE"}, {2u, kUnknown}
    }},
    {"E_BC_STATUS_ERRORS", Name<E_BC_STATUS_ERRORS>, {
        {0u, "BC_STATUS_SUCCESS"}, {9u, "BC_NO_MEMORY"}, {18u, "BC_PARAMETER_PERMISSION"},
        {19u, kUnknown}
    }},
    {"KZ_BLOB_IDS", Name<KZ_BLOB_IDS>, {
        {0u, "KZ_BLOB_ID_PIAV"}, {1u, kUnknown}
    }},
    {"E_SPLICE_PARAMTYPE", Name<E_SPLICE_PARAMTYPE>, {
        {0u, "SPLICE_TYPE_INT32"}, {2u, "SPLICE_TYPE_DOUBLE"}, {3u, "SPLICE_TYPE_STRING"},
        {4u, kUnknown}
    }},
    {"KZ_IO_ACCESS", Name<KZ_IO_ACCESS>, {
        {0u, "IO_ATTR_DIR_FIXED"}, {1u, "IO_ATTR_DIR_VARIABLE_ALWAYS_READ"}, {2u, kUnknown}
    }},
    {"KZ_CALLBACK_TYPE", Name<KZ_CALLBACK_TYPE>, {
        {0u, "KZ_CALLBACK_TYPE_ORIG"}, {2u, "KZ_CALLBACK_TYPE_EX2"}, {3u, "KZ_CALLBACK_TYPE_EX3"},
        {4u, kUnknown}
    }},
    {"KZ_COOL_MODES", Name<KZ_COOL_MODES>, {
        {0u, "NORMAL_COOL"}, {1u, "CRYO_COOL"}, {2u, "NO_COOL"}, {3u, kUnknown}
    }},
    {"KZ_MPP_MODES", Name<KZ_MPP_MODES>, {
        {0u, "MPP_UNKNOWN"}, {2u, "MPP_ALWAYS_ON"}, {3u, "MPP_SELECTABLE"}, {4u, kUnknown}
    }},
    {"KZ_SHTR_MODES", Name<KZ_SHTR_MODES>, {
        {0u, "SHTR_FAULT"}, {3u, "SHTR_CLOSING"}, {5u, "SHTR_UNKNOWN"}, {6u, kUnknown}
    }},
    {"KZ_PMODES", Name<KZ_PMODES>, {
        {0u, "PMODE_NORMAL"}, {4u, "PMODE_ALT_NORMAL"}, {7u, "PMODE_ALT_FT_MPP"}, {8u, kUnknown}
    }},
    {"KZ_IMAGE_FORMATS", Name<KZ_IMAGE_FORMATS>, {
        {0u, "KZ_IMAGE_FORMAT_MONO16"}, {6u, "KZ_IMAGE_FORMAT_RGB24"},
        {11u, "KZ_IMAGE_FORMAT_RGB96"}, {12u, kUnknown}
    }},
    {"KZ_SCAN_MODES", Name<KZ_SCAN_MODES>, {
        {0u, "KZ_SCAN_MODE_AUTO"}, {1u, "KZ_SCAN_MODE_PROGRAMMABLE_LINE_DELAY"},
        {2u, "KZ_SCAN_MODE_PROGRAMMABLE_SCAN_WIDTH"}, {3u, kUnknown}
    }},
    {"KZ_SCAN_DIRECTIONS", Name<KZ_SCAN_DIRECTIONS>, {
        {0u, "KZ_SCAN_DIRECTION_DOWN"}, {1u, "KZ_SCAN_DIRECTION_UP"},
        {2u, "KZ_SCAN_DIRECTION_DOWN_UP"}, {3u, kUnknown}
    }},
    {"KZ_FRAME_ROTATE_MODES", Name<KZ_FRAME_ROTATE_MODES>, {
        {0u, "KZ_FRAME_ROTATE_MODE_NONE"}, {2u, "KZ_FRAME_ROTATE_MODE_180CW"},
        {3u, "KZ_FRAME_ROTATE_MODE_270CW"}, {4u, kUnknown}
    }},
    {"KZ_FRAME_FLIP_MODES", Name<KZ_FRAME_FLIP_MODES>, {
        {0u, "KZ_FRAME_FLIP_MODE_NONE"}, {2u, "KZ_FRAME_FLIP_MODE_Y"},
        {3u, "KZ_FRAME_FLIP_MODE_XY"}, {4u, kUnknown}
    }},
    {"KZ_FRAME_SUMMING_FORMATS", Name<KZ_FRAME_SUMMING_FORMATS>, {
        {0u, "KZ_FRAME_SUMMING_FORMAT_16_BIT"}, {1u, "KZ_FRAME_SUMMING_FORMAT_24_BIT"},
        {2u, "KZ_FRAME_SUMMING_FORMAT_32_BIT"}, {3u, kUnknown}
    }},
    {"KZ_COLOR_MODES", Name<KZ_COLOR_MODES>, {
        {0u, "COLOR_NONE"}, {3u, "COLOR_GRBG"}, {5u, "COLOR_BGGR"}, {6u, kUnknown}
    }},
    {"KZ_PARAM_ATTRIBUTES", Name<KZ_PARAM_ATTRIBUTES>, {
        {0u, "ATTR_CURRENT"}, {5u, "ATTR_DEFAULT"}, {9u, "ATTR_LIVE"}, {10u, kUnknown}
    }},
    {"KZ_PARAM_ACCESS", Name<KZ_PARAM_ACCESS>, {
        {1u, "ACC_READ_ONLY"}, {3u, "ACC_EXIST_CHECK_ONLY"}, {4u, "ACC_WRITE_ONLY"},
        {5u, kUnknown}, {0u, kUnknown}
    }},
    {"KZ_IO_TYPE", Name<KZ_IO_TYPE>, {
        {0u, "IO_TYPE_TTL"}, {1u, "IO_TYPE_DAC"}, {2u, kUnknown}
    }},
    {"KZ_IO_DIRECTION", Name<KZ_IO_DIRECTION>, {
        {0u, "IO_DIR_INPUT"}, {1u, "IO_DIR_OUTPUT"}, {2u, "IO_DIR_INPUT_OUTPUT"}, {3u, kUnknown}
    }},
    {"KZ_CLEAR_MODES", Name<KZ_CLEAR_MODES>, {
        {0u, "CLEAR_NEVER"}, {3u, "CLEAR_POST_SEQUENCE"}, {6u, "CLEAR_GLOBAL_RESET"},
        {7u, kUnknown}
    }},
    {"KZ_SHTR_OPEN_MODES", Name<KZ_SHTR_OPEN_MODES>, {
        {0u, "OPEN_NEVER"}, {2u, "OPEN_PRE_SEQUENCE"}, {4u, "OPEN_NO_CHANGE"}, {5u, kUnknown}
    }},
    {"KZ_SW_TRIG_STATUSES", Name<KZ_SW_TRIG_STATUSES>, {
        {0u, "KZ_SW_TRIG_STATUS_TRIGGERED"}, {1u, "KZ_SW_TRIG_STATUS_IGNORED"}, {2u, kUnknown}
    }},
    {"KZ_EXPOSE_OUT_MODES", Name<KZ_EXPOSE_OUT_MODES>, {
        {0u, "EXPOSE_OUT_FIRST_ROW"}, {3u, "EXPOSE_OUT_ROLLING_SHUTTER"},
        {5u, "EXPOSE_OUT_GLOBAL_SHUTTER"}, {6u, kUnknown}
    }},
    {"KZ_FAN_SPEEDS", Name<KZ_FAN_SPEEDS>, {
        {0u, "FAN_SPEED_HIGH"}, {2u, "FAN_SPEED_LOW"}, {3u, "FAN_SPEED_OFF"}, {4u, kUnknown}
    }},
    {"KZ_TRIGTAB_SIGNALS", Name<KZ_TRIGTAB_SIGNALS>, {
        {0u, "KZ_TRIGTAB_SIGNAL_EXPOSE_OUT"}, {1u, kUnknown}
    }},
    {"KZ_FRAME_DELIVERY_MODES", Name<KZ_FRAME_DELIVERY_MODES>, {
        {0u, "KZ_FRAME_DELIVERY_MODE_MAX_FPS"}, {1u, "KZ_FRAME_DELIVERY_MODE_CONSTANT_INTERVALS"},
        {2u, kUnknown}
    }},
    {"KZ_CAM_INTERFACE_MODES", Name<KZ_CAM_INTERFACE_MODES>, {
        {0u, "KZ_CAM_IFC_MODE_UNSUPPORTED"}, {1u, "KZ_CAM_IFC_MODE_CONTROL_ONLY"},
        {2u, "KZ_CAM_IFC_MODE_IMAGING"}, {3u, kUnknown}
    }},
    {"KZ_CENTROIDS_MODES", Name<KZ_CENTROIDS_MODES>, {
        {0u, "KZ_CENTROIDS_MODE_LOCATE"}, {1u, "KZ_CENTROIDS_MODE_TRACK"},
        {2u, "KZ_CENTROIDS_MODE_BLOB"}, {3u, kUnknown}
    }},
    {"KZ_SMT_MODES", Name<KZ_SMT_MODES>, {
        {0u, "SMTMODE_ARBITRARY_ALL"}, {1u, kUnknown}
    }},
    {"KZ_IMAGE_STATUSES", Name<KZ_IMAGE_STATUSES>, {
        {0u, "READOUT_NOT_ACTIVE"}, {3u, "READOUT_COMPLETE/FRAME_AVAILABLE"},
        {5u, "ACQUISITION_IN_PROGRESS"}, {6u, kUnknown}
    }},
    {"KZ_CCS_ABORT_MODES", Name<KZ_CCS_ABORT_MODES>, {
        {0u, "CCS_NO_CHANGE"}, {3u, "CCS_CLEAR"}, {6u, "CCS_CLEAR_OPEN_SHTR"}, {7u, kUnknown}
    }},
    {"KZ_IRQ_MODES", Name<KZ_IRQ_MODES>, {
        {0u, "NO_FRAME_IRQS"}, {2u, "END_FRAME_IRQS"}, {3u, "BEGIN_END_FRAME_IRQS"},
        {4u, kUnknown}
    }},
    {"KZ_CIRC_MODES", Name<KZ_CIRC_MODES>, {
        {0u, "CIRC_NONE"}, {1u, "CIRC_OVERWRITE"}, {2u, "CIRC_NO_OVERWRITE"}, {3u, kUnknown}
    }},
    {"KZ_EXP_RES_MODES", Name<KZ_EXP_RES_MODES>, {
        {0u, "EXP_RES_ONE_MILLISEC"}, {1u, "EXP_RES_ONE_MICROSEC"}, {2u, "EXP_RES_ONE_SEC"},
        {3u, kUnknown}
    }},
    {"KZ_SRC_MODES", Name<KZ_SRC_MODES>, {
        {0u, "SCR_PRE_OPEN_SHTR"}, {5u, "SCR_POST_INTEGRATE"}, {9u, "SCR_POST_CLOSE_SHTR"},
        {10u, kUnknown}
    }},
    {"KZ_CALLBACK_EVENT", Name<KZ_CALLBACK_EVENT>, {
        {0u, "KZ_CALLBACK_BOF"}, {2u, "KZ_CALLBACK_CHECK_CAMS"}, {4u, "KZ_CALLBACK_CAM_RESUMED"},
        {5u, kUnknown}
    }},
    {"E_HOST_CCL_SCRIPT", Name<E_HOST_CCL_SCRIPT>, {
        {0u, "OP_TERMINATE"}, {18u, "OP_CLEAR"}, {36u, "OP_PARALLEL_CLEAR"}, {37u, kUnknown}
    }},
    {"E_SIMPLIFIED_CCL_COMMANDS", Name<E_SIMPLIFIED_CCL_COMMANDS>, {
        {0u, "OP_EXPOSE_RESOLUTION"}, {7u, "OP_BIN_Y"}, {13u, "OP_SENSOR_CLEAR_COUNT"},
        {14u, kUnknown}
    }},
};
// clang-format on

class EnumNameSpot : public ::testing::TestWithParam<SpotCase> {};

TEST_P(EnumNameSpot, GivesTheExactText) {
  const SpotCase& c = GetParam();
  for (const auto& [value, expected] : c.values) {
    EXPECT_STREQ(c.name(value), expected) << c.table << " value 0x" << std::hex << value;
  }
}

INSTANTIATE_TEST_SUITE_P(AllTables, EnumNameSpot, ::testing::ValuesIn(kSpotCases));

// Member counts. Tables whose values fit in 16 bits are swept completely, which
// also proves that no value outside the list has a name and that every member
// has its own text. The wider tables are checked against full member lists.
struct CountCase {
  const char* table;
  NameFn name;
  std::uint32_t members;
};

void PrintTo(const CountCase& c, std::ostream* os) { *os << c.table; }

const CountCase kCountCases[] = {
    {"_KZ_DRIVER_TYPE", Name<_KZ_DRIVER_TYPE>, 5u},
    {"_KZ_DRIVER_MODE", Name<_KZ_DRIVER_MODE>, 2u},
    {"_KZ_DDI_STATE", Name<_KZ_DDI_STATE>, 2u},
    {"_KZ_CAM_STATE", Name<_KZ_CAM_STATE>, 5u},
    {"_KZ_DDI_STATUS", Name<_KZ_DDI_STATUS>, 19u},
    {"E_EXT_OPEN_MODES", Name<E_EXT_OPEN_MODES>, 2u},
    {"E_BC_STATUS_ERRORS", Name<E_BC_STATUS_ERRORS>, 19u},
    {"E_CAMERA_BRIDGE_COMMANDS", Name<E_CAMERA_BRIDGE_COMMANDS>, 33u},
    {"KZ_BLOB_IDS", Name<KZ_BLOB_IDS>, 1u},
    {"_KZ_CCS_OPTION", Name<_KZ_CCS_OPTION>, 6u},
    {"E_SPLICE_PARAMTYPE", Name<E_SPLICE_PARAMTYPE>, 4u},
    {"KZ_IO_ACCESS", Name<KZ_IO_ACCESS>, 2u},
    {"KZ_CALLBACK_TYPE", Name<KZ_CALLBACK_TYPE>, 4u},
    {"KZ_COOL_MODES", Name<KZ_COOL_MODES>, 3u},
    {"KZ_MPP_MODES", Name<KZ_MPP_MODES>, 4u},
    {"KZ_SHTR_MODES", Name<KZ_SHTR_MODES>, 6u},
    {"KZ_PMODES", Name<KZ_PMODES>, 8u},
    {"KZ_IMAGE_FORMATS", Name<KZ_IMAGE_FORMATS>, 12u},
    {"KZ_IMAGE_COMPRESSIONS", Name<KZ_IMAGE_COMPRESSIONS>, 14u},
    {"KZ_SCAN_MODES", Name<KZ_SCAN_MODES>, 3u},
    {"KZ_SCAN_DIRECTIONS", Name<KZ_SCAN_DIRECTIONS>, 3u},
    {"KZ_FRAME_ROTATE_MODES", Name<KZ_FRAME_ROTATE_MODES>, 4u},
    {"KZ_FRAME_FLIP_MODES", Name<KZ_FRAME_FLIP_MODES>, 4u},
    {"KZ_FRAME_SUMMING_FORMATS", Name<KZ_FRAME_SUMMING_FORMATS>, 3u},
    {"KZ_COLOR_MODES", Name<KZ_COLOR_MODES>, 6u},
    {"KZ_PARAM_ATTRIBUTES", Name<KZ_PARAM_ATTRIBUTES>, 10u},
    {"KZ_PARAM_ACCESS", Name<KZ_PARAM_ACCESS>, 4u},
    {"KZ_IO_TYPE", Name<KZ_IO_TYPE>, 2u},
    {"KZ_IO_DIRECTION", Name<KZ_IO_DIRECTION>, 3u},
    {"KZ_CLEAR_MODES", Name<KZ_CLEAR_MODES>, 7u},
    {"KZ_SHTR_OPEN_MODES", Name<KZ_SHTR_OPEN_MODES>, 5u},
    {"KZ_EXPOSURE_MODES", Name<KZ_EXPOSURE_MODES>, 15u},
    {"KZ_SW_TRIG_STATUSES", Name<KZ_SW_TRIG_STATUSES>, 2u},
    {"KZ_EXPOSE_OUT_MODES", Name<KZ_EXPOSE_OUT_MODES>, 6u},
    {"KZ_FAN_SPEEDS", Name<KZ_FAN_SPEEDS>, 4u},
    {"KZ_TRIGTAB_SIGNALS", Name<KZ_TRIGTAB_SIGNALS>, 1u},
    {"KZ_FRAME_DELIVERY_MODES", Name<KZ_FRAME_DELIVERY_MODES>, 2u},
    {"KZ_CAM_INTERFACE_TYPES", Name<KZ_CAM_INTERFACE_TYPES>, 18u},
    {"KZ_CAM_INTERFACE_MODES", Name<KZ_CAM_INTERFACE_MODES>, 3u},
    {"KZ_CENTROIDS_MODES", Name<KZ_CENTROIDS_MODES>, 3u},
    {"KZ_SMT_MODES", Name<KZ_SMT_MODES>, 1u},
    {"KZ_IMAGE_STATUSES", Name<KZ_IMAGE_STATUSES>, 6u},
    {"KZ_CCS_ABORT_MODES", Name<KZ_CCS_ABORT_MODES>, 7u},
    {"KZ_IRQ_MODES", Name<KZ_IRQ_MODES>, 4u},
    {"KZ_CIRC_MODES", Name<KZ_CIRC_MODES>, 3u},
    {"KZ_EXP_RES_MODES", Name<KZ_EXP_RES_MODES>, 3u},
    {"KZ_SRC_MODES", Name<KZ_SRC_MODES>, 10u},
    {"KZ_CALLBACK_EVENT", Name<KZ_CALLBACK_EVENT>, 5u},
    {"_KZ_PARAM_TYPE", Name<_KZ_PARAM_TYPE>, 19u},
    {"E_HOST_CCL_SCRIPT", Name<E_HOST_CCL_SCRIPT>, 37u},
    {"E_SIMPLIFIED_CCL_COMMANDS", Name<E_SIMPLIFIED_CCL_COMMANDS>, 14u},
};

class EnumNameCount : public ::testing::TestWithParam<CountCase> {};

TEST_P(EnumNameCount, NamesExactlyItsMembersOnce) {
  const CountCase& c = GetParam();
  std::set<std::string> names;
  std::uint32_t named = 0;
  for (std::uint32_t v = 0; v <= 0xFFFFu; ++v) {
    const char* n = c.name(v);
    ASSERT_NE(n, nullptr);
    if (std::strcmp(n, kUnknown) != 0) {
      ++named;
      names.insert(n);
    }
  }
  EXPECT_EQ(named, c.members) << c.table;
  EXPECT_EQ(names.size(), named) << c.table << ": two values share a name";
}

INSTANTIATE_TEST_SUITE_P(AllTables, EnumNameCount, ::testing::ValuesIn(kCountCases));

TEST(EnumNameWideTables, RequestCodesAreExactlyTheTwentySix) {
  const std::pair<std::uint32_t, const char*> codes[] = {
      {0x80043D00u, "TAVIK_IOC_GET_DRIVER_API_VERSION"},
      {0x00003D01u, "TAVIK_IOC_CAM_POST_OPEN"},
      {0x00003D02u, "TAVIK_IOC_CAM_PRE_CLOSE"},
      {0x40203D0Au, "TAVIK_IOC_ACQ_SET_ACTIVE"},
      {0x80103D0Bu, "TAVIK_IOC_ACQ_GET_STATUS"},
      {0x00003D0Cu, "TAVIK_IOC_ACQ_ABORT"},
      {0x40043D0Du, "TAVIK_IOC_STOP_DATA_TRANSFER"},
      {0x00003D14u, "TAVIK_IOC_CLEAR_IRQS"},
      {0x80083D15u, "TAVIK_IOC_GET_IRQS"},
      {0x00003D1Eu, "TAVIK_IOC_FLUSH_NOTIFICATIONS"},
      {0xC0103D1Fu, "TAVIK_IOC_GET_NOTIFICATIONS"},
      {0x00003D20u, "TAVIK_IOC_CONFIRM_EOF_NOTIFICATION"},
      {0x00003D28u, "TAVIK_IOC_RESET_INTERFACE"},
      {0x80083D32u, "TAVIK_IOC_GET_CURRENT_TIME_STAMP"},
      {0x80023D3Cu, "TAVIK_IOC_GET_DRIVER_VERSION"},
      {0x80023D3Du, "TAVIK_IOC_GET_DRIVER_CAPABILITIES"},
      {0x80023D3Eu, "TAVIK_IOC_GET_PCI_FW_REVISION"},
      {0x80043D3Fu, "TAVIK_IOC_GET_BRIDGE_CAPABILITIES_SIZE"},
      {0x80083D40u, "TAVIK_IOC_GET_BRIDGE_CAPABILITIES"},
      {0xC0283D63u, "TAVIK_IOC_DRIVER_DEBUG_COMMAND"},
      {0x80083D64u, "TAVIK_IOC_GET_INFO_DUMP"},
      {0x80023D65u, "TAVIK_IOC_GET_INFO_LENGTH"},
      {0x80023D6Eu, "TAVIK_IOC_GET_MAX_RETRIES"},
      {0x40023D6Fu, "TAVIK_IOC_SET_MAX_RETRIES"},
      {0x80023D78u, "TAVIK_IOC_GET_MAX_TIMEOUT"},
      {0x40023D79u, "TAVIK_IOC_SET_MAX_TIMEOUT"},
  };
  std::set<std::uint32_t> known;
  for (const auto& c : codes) {
    EXPECT_STREQ(Name<_KZ_IOCTL>(c.first), c.second);
    known.insert(c.first);
  }
  EXPECT_EQ(known.size(), 26u);
  // Every direction and size around the '=' type character: only the list has names.
  std::uint32_t named = 0;
  for (std::uint32_t dir = 0; dir < 4; ++dir) {
    for (std::uint32_t size = 0; size <= 64; ++size) {
      for (std::uint32_t nr = 0; nr < 256; ++nr) {
        const std::uint32_t code = (dir << 30) | (size << 16) | (0x3Du << 8) | nr;
        if (std::strcmp(Name<_KZ_IOCTL>(code), kUnknown) != 0) {
          ++named;
          EXPECT_EQ(known.count(code), 1u) << std::hex << code;
        }
      }
    }
  }
  EXPECT_EQ(named, 26u);
}

TEST(EnumNameWideTables, NotificationsNameEachBitAndOnlyBofEofTogether) {
  const std::pair<std::uint32_t, const char*> bits[] = {
      {0x00000001u, "NOTIFICATION_DEVICE_REMOVAL"},
      {0x00000002u, "NOTIFICATION_BUS_RESET"},
      {0x00000004u, "NOTIFICATION_BOF"},
      {0x00000008u, "NOTIFICATION_EOF"},
      {0x00000010u, "NOTIFICATION_SYS_SUSPEND"},
      {0x00000020u, "NOTIFICATION_COMPLETE"},
      {0x10000000u, "NOTIFICATION_ACK_SEND"},
      {0x20000000u, "NOTIFICATION_ACK_RECEIVE"},
      {0x40000000u, "NOTIFICATION_ACK_ABORT"},
      {0x80000000u, "NOTIFICATION_ACK_FLUSH"},
  };
  std::uint32_t mask = 0;
  for (const auto& b : bits) {
    EXPECT_STREQ(Name<_KZ_NOTIF>(b.first), b.second);
    mask |= b.first;
  }
  EXPECT_EQ(mask, 0xF000003Fu);
  EXPECT_STREQ(Name<_KZ_NOTIF>(0x0Cu), "NOTIFICATION_BOF_EOF");
  EXPECT_STREQ(Name<_KZ_NOTIF>(0u), "<none>");
  // Every single bit outside the known mask is unknown.
  for (int bit = 0; bit < 32; ++bit) {
    const std::uint32_t v = 1u << bit;
    if ((v & mask) == 0) {
      EXPECT_STREQ(Name<_KZ_NOTIF>(v), kUnknown) << "bit " << bit;
    }
  }
}

TEST(EnumNameWideTables, ParameterIdsWithKnownValues) {
  const std::pair<std::uint32_t, const char*> params[] = {
      {0x10201FFu, "PARAM_BIT_DEPTH"},         {0x10300A7u, "PARAM_CURRENT_QXTIME"},
      {0x4020212u, "PARAM_IO_STATE"},          {0x4030003u, "PARAM_EXP_MIN_TIME"},
      {0x50300B5u, "PARAM_LAST_MUXED_SIGNAL"}, {0x602003Au, "PARAM_SER_SIZE"},
      {0x6020061u, "PARAM_CLEAR_CYCLES"},      {0x60201F5u, "PARAM_PIX_SER_DIST"},
      {0x9020042u, "PARAM_LOGIC_OUTPUT"},      {0xD020081u, "PARAM_CHIP_NAME"},
  };
  for (const auto& p : params) {
    EXPECT_STREQ(Name<_KZ_PARAM_ID>(p.first), p.second);
    // Neighbours are not members (the lookup decodes no field).
    EXPECT_STREQ(Name<_KZ_PARAM_ID>(p.first - 1), kUnknown);
    EXPECT_STREQ(Name<_KZ_PARAM_ID>(p.first + 1), kUnknown);
  }
}

// Combined exposure mode: one shared text, composed per call.
TEST(EnumNameExposureMode, ClassicModesUseTheLowSixteenBits) {
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0u), "TIMED_MODE");
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(6u), "INT_STROBE_MODE");
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(7u), kUnknown);
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(255u), kUnknown);
  // High bits are not part of the mode.
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x12340002u), "BULB_MODE");
}

TEST(EnumNameExposureMode, ExtendedModesJoinTriggerAndExposeOut) {
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x0702u), "EXT_TRIG_INTERNAL|EXPOSE_OUT_ANY_ROW");
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x0800u), "EXT_TRIG_TRIG_FIRST|EXPOSE_OUT_FIRST_ROW");
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x0E05u), "EXT_TRIG_LEVEL_PULSED|EXPOSE_OUT_GLOBAL_SHUTTER");
  // The longest pair fits whole.
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x0B03u), "EXT_TRIG_SOFTWARE_FIRST|EXPOSE_OUT_ROLLING_SHUTTER");
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0xFFFF0904u), "EXT_TRIG_EDGE_RISING|EXPOSE_OUT_LINE_TRIGGER");
}

TEST(EnumNameExposureMode, UnknownPartsAreNamedSeparately) {
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x0706u), "EXT_TRIG_INTERNAL|<UNKNOWN>");
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x07FFu), "EXT_TRIG_INTERNAL|<UNKNOWN>");
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x0101u), "<UNKNOWN>|EXPOSE_OUT_ALL_ROWS");
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x0F00u), "<UNKNOWN>|EXPOSE_OUT_FIRST_ROW");
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0xFFFFu), "<UNKNOWN>|<UNKNOWN>");
  // All of bits 8-15 form the trigger part, not only the low nibble of it.
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x1702u), "<UNKNOWN>|EXPOSE_OUT_ANY_ROW");
  EXPECT_STREQ(Name<_KZ_EXP_MODE>(0x8000u), "<UNKNOWN>|EXPOSE_OUT_FIRST_ROW");
}

TEST(EnumNameExposureMode, EveryCallOverwritesTheOneSharedText) {
  const char* first = Name<_KZ_EXP_MODE>(0x0B03u);
  const char* second = Name<_KZ_EXP_MODE>(1u);
  EXPECT_EQ(first, second);
  // A shorter text after a longer one leaves no tail behind.
  EXPECT_STREQ(second, "STROBED_MODE");
}

// Lookups read only constant tables, so any number of threads may name values
// at once. Each thread checks its own results; a race shows up as a mismatch
// here or as a report under the thread sanitizer.
TEST(EnumNameThreads, ConcurrentLookupsAgree) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 2000;
  std::atomic<int> mismatches{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      while (!go.load()) {
        std::this_thread::yield();
      }
      for (int i = 0; i < kRounds; ++i) {
        const std::uint32_t v = static_cast<std::uint32_t>(i + t);
        bool ok =
            std::strcmp(Name<_KZ_DRIVER_TYPE>(2u), "TAVIK_DRIVER_TYPE_USB") == 0 &&
            std::strcmp(Name<_KZ_NOTIF>(0x8u), "NOTIFICATION_EOF") == 0 &&
            std::strcmp(Name<KZ_CAM_INTERFACE_TYPES>(0x802u), "KZ_CAM_IFC_TYPE_PCIE_X1") == 0 &&
            std::strcmp(Name<_KZ_PARAM_ID>(0x602003Au), "PARAM_SER_SIZE") == 0 &&
            std::strcmp(GetHostComDebugString(230u), "LAST_HOST_CMD") == 0 &&
            std::strcmp(GetBridgeComDebugString(33u), "QX_MAX_BRIDGE_COMMANDS") == 0 &&
            std::strcmp(GetDriverComCapsString(0x10005u),
                        "KZ_DRIVERCAPS_(CIRC_BUFFER|NOTIF_COMPLETE)") == 0;
        // Values that vary per thread and round must agree with a second call.
        ok = ok && Name<_KZ_IOCTL>(v) == Name<_KZ_IOCTL>(v) &&
             GetHostComDebugString(v) == GetHostComDebugString(v);
        if (!ok) {
          mismatches.fetch_add(1);
        }
      }
    });
  }
  go.store(true);
  for (auto& th : threads) {
    th.join();
  }
  EXPECT_EQ(mismatches.load(), 0);
}

// Naming a value must not allocate: log lines name values on hot paths.
TEST(EnumNameAllocation, LookupsDoNotAllocate) {
  volatile std::size_t sink = 0;
  const struct mallinfo2 before = mallinfo2();
  for (std::uint32_t v = 0; v < 4096; ++v) {
    sink = sink + std::strlen(Name<_KZ_DDI_STATUS>(v)) + std::strlen(Name<_KZ_PARAM_ID>(v)) +
           std::strlen(Name<_KZ_EXP_MODE>(v << 4)) + std::strlen(GetHostComDebugString(v)) +
           std::strlen(GetBridgeComDebugString(v)) + std::strlen(GetDriverComCapsString(v));
  }
  const struct mallinfo2 after = mallinfo2();
  EXPECT_EQ(after.uordblks, before.uordblks);
  EXPECT_GT(sink, 0u);
}

}  // namespace
