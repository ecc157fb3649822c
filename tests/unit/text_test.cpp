// Texts at their edges: formatting, hex dumps, stamps, system error texts, ids, last error, error codes, names.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/syscall.h>

#include <cstring>
#include <set>

#include "error/LastError.h"
#include "error/tavik_error_strings.h"
#include "names/EnumUtils.h"
#include "names/bridgecom_strings.h"
#include "names/drivercom_caps_strings.h"
#include "names/hostcom_strings.h"
#include "unit_support.h"

using kt::LogUtils;
using ut::kEuro;

namespace {

const char* const U = "<UNKNOWN>";

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = LogUtils::FormatArgsToStdString(format, args);
    va_end(args);
    return text;
}

TEST(LogUtils, FormattingHexDumpsAndErrorTexts) {
    const std::string big(100000, 'q');
    const unsigned char bytes[] = {1, 2, 10};
    const std::pair<std::string, std::string> cases[] = {
        {Format("ab%cde", 0), "ab"}, {Format("[%s]", big.c_str()), "[" + big + "]"}, // a NUL ends the text
        {LogUtils::FormatByteArrayToHexString(bytes, 3), "0x01,0x02,0x0A"},
        {LogUtils::FormatByteArrayToHexString(nullptr, 5) + LogUtils::FormatByteArrayToHexString(bytes, 0), ""},
        {LogUtils::GetErrorString(ENOENT), "No such file or directory"},
        {LogUtils::GetErrorString(123456), "Unknown error 123456"},
        {LogUtils::GetLibFullFileNameByHandle(nullptr), "Failed to get library full name (invalid handle)"}};
    for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
    EXPECT_THROW(Format("%lc", kEuro), std::logic_error);
    LogUtils::GetDynLibErrorString(); // clears anything pending
    EXPECT_EQ(dlopen("/nonexistent/tavik_x.x86_64.umd", RTLD_NOW), nullptr);
    EXPECT_NE(LogUtils::GetDynLibErrorString().find("/nonexistent/tavik_x.x86_64.umd"), std::string::npos);
    EXPECT_EQ(LogUtils::GetDynLibErrorString(), "Unknown error") << "reported twice";
}

TEST(LogUtils, StampsInAFixedZoneAndIdsInAForkedChild) {
    const uint32_t pid = LogUtils::GetCurrentProcessId(), tid = LogUtils::GetCurrentThreadId();
    long other = 0, otherSys = 1;
    std::thread([&] { other = LogUtils::GetCurrentThreadId(), otherSys = syscall(SYS_gettid); }).join();
    EXPECT_TRUE(pid == uint32_t(getpid()) && other == otherSys && uint32_t(other) != tid);
    // A child of its own: the time zone is process-wide, and its ids are not the ones its parent cached.
    EXPECT_EXIT(([pid] {
        const struct { const char* tz; long long s, us; const char *time, *date; } cases[] = {
            {"UTC", 1700000000, 4817, "221320.004817", "2023-11-14"}, {"UTC", 0, 5, "000000.000005", "1970-01-01"},
            {"UTC-2", 1700000000, 999999, "001320.999999", "2023-11-15"}};
        int wrong = 0;
        for (const auto& c : cases) {
            setenv("TZ", c.tz, 1), tzset();
            const kt::TimePoint t(std::chrono::nanoseconds(c.s * 1000000000LL + c.us * 1000));
            wrong += LogUtils::GetTimeStamp(t) != c.time || LogUtils::GetDateStamp(t) != c.date;
        }
        const uint32_t childPid = LogUtils::GetCurrentProcessId();
        wrong += childPid != uint32_t(getpid()) || childPid == pid || LogUtils::GetCurrentThreadId() != syscall(SYS_gettid);
        std::_Exit(wrong);
    })(), testing::ExitedWithCode(0), "");
}

TEST(LastError, KeptWholeWhenAFormatIsRejectedAndCleared) {
    const std::string big(20000, 'x');
    kt::LastError::SetDetails("<%s>", big.c_str());
    EXPECT_EQ(kt::LastError::GetDetails(), "<" + big + ">");
    kt::LastError::SetDetails("%lc", kEuro); // rejected by the formatter: no throw, the previous text stays whole
    EXPECT_EQ(kt::LastError::GetDetails(), "<" + big + ">");
    kt::LastError::SetDetails("%s", "set"), kt::LastError::ClearDetails();
    EXPECT_STREQ(kt::LastError::GetDetails(), "");
}

TEST(ErrorCodes, KnownRangesAreNamedTheRestIsUnknownAndOnly16BitsCount) {
    std::set<std::string> names;
    for (uint32_t code = 0; code <= 0xFFFF; ++code) {
        const std::string name = GetErrCodeName(code), message = GetErrMessage(code);
        if (code > 18 && code != 129 && (code < 150 || code > 203)) {
            ASSERT_EQ(name + " " + message, "<UNKNOWN> Unknown error (<UNKNOWN>)") << code;
        } else { // every message ends with its own name in parentheses
            ASSERT_TRUE(name.rfind("KZ_ERR_", 0) == 0 && names.insert(name).second) << code;
            ASSERT_EQ(message.substr(message.rfind(" (") + 2), name + ")") << code;
        }
    }
    const std::pair<uint32_t, const char*> spots[] = {
        {0, "No error (KZ_ERR_NONE)"},
        {18, "Parameter permission does not allow that operation (KZ_ERR_BC_PARAMETER_PERMISSION)"},
        {129, "Operation is pending (KZ_ERR_BC_PENDING)"}, {177, "This device is not open yet (KZ_ERR_DEVICE_NOT_OPEN)"},
        {203, "Waiting on driver device event timed out (KZ_ERR_DDI_EVENT_WAIT_TIMEOUT)"}};
    for (const auto& [code, message] : spots) {
        EXPECT_EQ(GetErrMessage(code), std::string(message)) << code;
        EXPECT_NE(std::string(message).find(std::string("(") + GetErrCodeName(code) + ")"), std::string::npos) << code;
    }
}

using NameFn = const char* (*)(uint32_t);
template <typename T>
const char* Name(uint32_t value) {
    return kt::EnumUtils::GetName(static_cast<T>(value));
}

// Members found by sweeping 0..0xFFFF (0 where the values lie beyond), and spot values.
const struct Table { NameFn fn; size_t members; std::vector<std::pair<uint32_t, const char*>> spots; } kTables[] = {
    {Name<_KZ_DRIVER_TYPE>, 5, {{2, "TAVIK_DRIVER_TYPE_USB"}}}, {Name<KZ_PARAM_ACCESS>, 4, {{4, "ACC_WRITE_ONLY"}}},
    {Name<_KZ_DRIVER_MODE>, 2, {{1, "TAVIK_DRIVER_MODE_KERNEL"}}}, {Name<_KZ_DDI_STATE>, 2, {{1, "TAVIK_DDI_STATE_OPEN"}}},
    {Name<_KZ_CAM_STATE>, 5, {{0, "TAVIK_CAM_STATE_CLOSED"}}},
    {Name<E_CAMERA_BRIDGE_COMMANDS>, 33, {{32, "QX_DATA_GET_XFER_BUFFER_SIZE"}}},
    {GetBridgeComDebugString, 34, {{33, "QX_MAX_BRIDGE_COMMANDS"}}},
    {GetHostComDebugString, 231, {{115, "GET_SMART_STREAM_DLY_PARAMS"}, {230, "LAST_HOST_CMD"}, {~0u, U}}},
    {GetDriverComCapsString, 8, {{0x10000u, "<none>"}, {0x10008u, U}, {0x10005u, "KZ_DRIVERCAPS_(CIRC_BUFFER|NOTIF_COMPLETE)"},
                                 {0xFFFF0007u, "KZ_DRIVERCAPS_(CIRC_BUFFER|CIRC_BUFFER_LOCKING|NOTIF_COMPLETE)"}}},
    {Name<E_HOST_CCL_SCRIPT>, 37, {{36, "OP_PARALLEL_CLEAR"}}}, {Name<_KZ_DDI_STATUS>, 19, {{117, "EXP_ST_EMPTY_DATA_I"}}},
    {Name<KZ_CAM_INTERFACE_TYPES>, 18, {{0x802, "KZ_CAM_IFC_TYPE_PCIE_X1"}}},
    {Name<KZ_EXPOSURE_MODES>, 15, {{3584, "EXT_TRIG_LEVEL_PULSED"}}}, {Name<_KZ_PARAM_TYPE>, 19, {{22, "TYPE_RGN_LIST_TYPE"}}},
    {Name<_KZ_CCS_OPTION>, 6, {{5, "HC_CCS_CONT_CLEAR|HC_CCS_OPEN_SHTR"}}},
    {Name<KZ_IMAGE_STATUSES>, 6, {{3, "READOUT_COMPLETE/FRAME_AVAILABLE"}}},
    {Name<_KZ_PARAM_ID>, 0, {{0x10201FF, "PARAM_BIT_DEPTH"}, {0x1020200, U}, {0xD020081, "PARAM_CHIP_NAME"}}},
    {Name<_KZ_IOCTL>, 0, {{0xC0103D1Fu, "TAVIK_IOC_GET_NOTIFICATIONS"}, {0x80083D1Fu, U}}},
    {Name<_KZ_NOTIF>, 0, {{0, "<none>"}, {0xC, "NOTIFICATION_BOF_EOF"}, {0x80000000u, "NOTIFICATION_ACK_FLUSH"}, {3, U}}}};

TEST(Names, EveryMemberOfARangeHasItsOwnNameEveryOtherValueTheirPlaceholder) {
    for (const Table& t : kTables) {
        for (const auto& [value, name] : t.spots) EXPECT_STREQ(t.fn(value), name) << std::hex << value;
        std::set<std::string> names;
        for (uint32_t value = 0; t.members != 0 && value <= 0xFFFF; ++value) {
            const char* name = t.fn(value);
            ASSERT_TRUE(name != nullptr && (std::strcmp(name, U) == 0 || names.insert(name).second)) << value;
        }
        EXPECT_EQ(names.size(), t.members) << t.spots[0].second;
    }
}

TEST(Names, ExposureModesAreComposedIntoOneSharedText) {
    const std::pair<uint32_t, const char*> cases[] = {
        {0, "TIMED_MODE"}, {6, "INT_STROBE_MODE"}, {7, U}, {255, U}, {0x12340002u, "BULB_MODE"},
        {0x0702, "EXT_TRIG_INTERNAL|EXPOSE_OUT_ANY_ROW"}, {0x0B03, "EXT_TRIG_SOFTWARE_FIRST|EXPOSE_OUT_ROLLING_SHUTTER"},
        {0xFFFF0904u, "EXT_TRIG_EDGE_RISING|EXPOSE_OUT_LINE_TRIGGER"}, {0x0706, "EXT_TRIG_INTERNAL|<UNKNOWN>"},
        {0x0101, "<UNKNOWN>|EXPOSE_OUT_ALL_ROWS"}, {0x1702, "<UNKNOWN>|EXPOSE_OUT_ANY_ROW"},
        {0xFFFF, "<UNKNOWN>|<UNKNOWN>"}, {1, "STROBED_MODE"}};
    const char* shared = Name<_KZ_EXP_MODE>(0);
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(Name<_KZ_EXP_MODE>(value), shared) << "every call overwrites the one text";
        EXPECT_STREQ(shared, text) << std::hex << value;
    }
}

} // namespace
