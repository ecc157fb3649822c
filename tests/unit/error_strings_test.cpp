// The kit's error vocabulary: every code's name and message, the gaps between
// the ranges, the 16-bit reduction of codes, and the per-thread last-error text.

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <thread>

#include "error/LastError.h"
#include "error/tavik_error_strings.h"

namespace {

struct Expected {
    uint32_t code;
    const char* name;
    const char* message;
};

// Written out in full, messages included, so that a wrong word, a missing
// parenthesis or a shifted row all show.
const Expected kExpected[] = {
    {0, "KZ_ERR_NONE", "No error (KZ_ERR_NONE)"},
    {1, "KZ_ERR_BC_STATUS_INVALID_BLOCK_NUM", "Trying to upload/download invalid block index (KZ_ERR_BC_STATUS_INVALID_BLOCK_NUM)"},
    {2, "KZ_ERR_BC_UNSUPPORTED_TARGET", "Trying to communicate with an unsupported target (KZ_ERR_BC_UNSUPPORTED_TARGET)"},
    {3, "KZ_ERR_BC_INVALID_TARGET", "Trying to communicate with an invalid target (KZ_ERR_BC_INVALID_TARGET)"},
    {4, "KZ_ERR_BC_TIMEOUT", "Timeout during transmission (KZ_ERR_BC_TIMEOUT)"},
    {5, "KZ_ERR_BC_INVALID_OPCODE", "Bridge command is not recognized by this camera (KZ_ERR_BC_INVALID_OPCODE)"},
    {6, "KZ_ERR_BC_INVALID_LENGTH", "Payload is not the right length (KZ_ERR_BC_INVALID_LENGTH)"},
    {7, "KZ_ERR_BC_INVALID_PARAMETER", "Payload is described in a way camera doesn't understand (KZ_ERR_BC_INVALID_PARAMETER)"},
    {8, "KZ_ERR_BC_INVALID_CAM_SPEED", "A mis-configuration of interface bus has occurred (KZ_ERR_BC_INVALID_CAM_SPEED)"},
    {9, "KZ_ERR_BC_NO_MEMORY", "Camera does not have enough resources for transaction (KZ_ERR_BC_NO_MEMORY)"},
    {10, "KZ_ERR_BC_LOCK_FAILED", "Camera configuration lock is present (KZ_ERR_BC_LOCK_FAILED)"},
    {11, "KZ_ERR_BC_CHANNEL_USED", "A mis-configuration of interface bus has occurred (KZ_ERR_BC_CHANNEL_USED)"},
    {12, "KZ_ERR_BC_INVALID_CHANNEL", "A mis-configuration of interface bus has occurred (KZ_ERR_BC_INVALID_CHANNEL)"},
    {13, "KZ_ERR_BC_NO_ISO_CHANNEL", "A mis-configuration of interface bus has occurred (KZ_ERR_BC_NO_ISO_CHANNEL)"},
    {14, "KZ_ERR_BC_NO_ISO_BANDWIDTH", "A mis-configuration of interface bus has occurred (KZ_ERR_BC_NO_ISO_BANDWIDTH)"},
    {15, "KZ_ERR_BC_INVALID_SPEED", "A mis-configuration of interface bus has occurred (KZ_ERR_BC_INVALID_SPEED)"},
    {16, "KZ_ERR_BC_UNKNOWN_ERROR", "Unknown, undocumented, and unexpected error has occurred (KZ_ERR_BC_UNKNOWN_ERROR)"},
    {17, "KZ_ERR_BC_PROGRAMMING_FAILED", "Upload of payload has failed (KZ_ERR_BC_PROGRAMMING_FAILED)"},
    {18, "KZ_ERR_BC_PARAMETER_PERMISSION", "Parameter permission does not allow that operation (KZ_ERR_BC_PARAMETER_PERMISSION)"},
    {129, "KZ_ERR_BC_PENDING", "Operation is pending (KZ_ERR_BC_PENDING)"},
    {150, "KZ_ERR_UNKNOWN", "Unexpected or unknown error (KZ_ERR_UNKNOWN)"},
    {151, "KZ_ERR_INSTALLATION_CORRUPTED", "TAVIK installation is corrupted (KZ_ERR_INSTALLATION_CORRUPTED)"},
    {152, "KZ_ERR_INSUFFICIENT_RESOURCES", "Resource allocation failed (KZ_ERR_INSUFFICIENT_RESOURCES)"},
    {153, "KZ_ERR_NULL_POINTER", "Given pointer is not a legal address (KZ_ERR_NULL_POINTER)"},
    {154, "KZ_ERR_NOT_AVAILABLE", "Not available (KZ_ERR_NOT_AVAILABLE)"},
    {155, "KZ_ERR_NOT_IMPLEMENTED", "Not implemented (KZ_ERR_NOT_IMPLEMENTED)"},
    {156, "KZ_ERR_ACCESS_DENIED", "Access denied (KZ_ERR_ACCESS_DENIED)"},
    {157, "KZ_ERR_LIBRARY_NOT_INITIALIZED", "The initialization hasn't been done yet (KZ_ERR_LIBRARY_NOT_INITIALIZED)"},
    {158, "KZ_ERR_LIBRARY_ALREADY_INITIALIZED", "The initialization has been already done (KZ_ERR_LIBRARY_ALREADY_INITIALIZED)"},
    {159, "KZ_ERR_PARAMETER_UNKNOWN", "Unknown parameter ID (KZ_ERR_PARAMETER_UNKNOWN)"},
    {160, "KZ_ERR_PARAMETER_NOT_AVAILABLE", "Parameter unavailable for current device (KZ_ERR_PARAMETER_NOT_AVAILABLE)"},
    {161, "KZ_ERR_PARAMETER_NOT_ENUM", "Parameter is not an enumeration (KZ_ERR_PARAMETER_NOT_ENUM)"},
    {162, "KZ_ERR_ATTRIBUTE_UNKNOWN", "Unknown attribute ID (KZ_ERR_ATTRIBUTE_UNKNOWN)"},
    {163, "KZ_ERR_ATTRIBUTE_NOT_AVAILABLE", "Attribute unavailable for given parameter (KZ_ERR_ATTRIBUTE_NOT_AVAILABLE)"},
    {164, "KZ_ERR_VALUE_INVALID", "Invalid value (KZ_ERR_VALUE_INVALID)"},
    {165, "KZ_ERR_VALUE_OUT_OF_RANGE", "Value is out of range (KZ_ERR_VALUE_OUT_OF_RANGE)"},
    {166, "KZ_ERR_VALUE_SET_FAILED", "The device did not accept new value (KZ_ERR_VALUE_SET_FAILED)"},
    {167, "KZ_ERR_VALUE_REFUSED_BY_DEVICE", "The device did not accept new value (KZ_ERR_VALUE_REFUSED_BY_DEVICE)"},
    {168, "KZ_ERR_DATA_INVALID", "Invalid data (KZ_ERR_DATA_INVALID)"},
    {169, "KZ_ERR_DATA_NOT_AVAILABLE_YET", "No data available yet (KZ_ERR_DATA_NOT_AVAILABLE_YET)"},
    {170, "KZ_ERR_DATA_PROCESSING_FAILED", "Data processing failed (KZ_ERR_DATA_PROCESSING_FAILED)"},
    {171, "KZ_ERR_BUFFER_SIZE_INVALID", "Buffer must be integer-multiple of frame size (KZ_ERR_BUFFER_SIZE_INVALID)"},
    {172, "KZ_ERR_BUFFER_TOO_SMALL", "The buffer is too small (KZ_ERR_BUFFER_TOO_SMALL)"},
    {173, "KZ_ERR_BUFFER_OVERRUN", "The buffer is full (KZ_ERR_BUFFER_OVERRUN)"},
    {174, "KZ_ERR_BUFFER_MALFORMED", "The buffer data is malformed (KZ_ERR_BUFFER_MALFORMED)"},
    {175, "KZ_ERR_DEVICE_HANDLE_INVALID", "This is not the handle of an open device (KZ_ERR_DEVICE_HANDLE_INVALID)"},
    {176, "KZ_ERR_DEVICE_NAME_UNKNOWN", "This is not a valid name for opening the device (KZ_ERR_DEVICE_NAME_UNKNOWN)"},
    {177, "KZ_ERR_DEVICE_NOT_OPEN", "This device is not open yet (KZ_ERR_DEVICE_NOT_OPEN)"},
    {178, "KZ_ERR_DEVICE_ALREADY_OPEN", "This device is already open (KZ_ERR_DEVICE_ALREADY_OPEN)"},
    {179, "KZ_ERR_DEVICE_CONFIGURATION_INVALID", "The device provided invalid configuration (KZ_ERR_DEVICE_CONFIGURATION_INVALID)"},
    {180, "KZ_ERR_DEVICE_REMOVED", "The device has been unexpectedly removed (KZ_ERR_DEVICE_REMOVED)"},
    {181, "KZ_ERR_REGION_INVALID", "Invalid region (KZ_ERR_REGION_INVALID)"},
    {182, "KZ_ERR_BINNING_INVALID", "Invalid binning (KZ_ERR_BINNING_INVALID)"},
    {183, "KZ_ERR_MODE_INVALID", "Invalid mode (KZ_ERR_MODE_INVALID)"},
    {184, "KZ_ERR_STATE_INVALID", "Invalid internal state (KZ_ERR_STATE_INVALID)"},
    {185, "KZ_ERR_CONFIGURATION_INVALID", "Invalid configuration (KZ_ERR_CONFIGURATION_INVALID)"},
    {186, "KZ_ERR_INDEX_OUT_OF_RANGE", "Index is out of range (KZ_ERR_INDEX_OUT_OF_RANGE)"},
    {187, "KZ_ERR_EXPOSURE_OUT_OF_RANGE", "Exposure value is out of range (KZ_ERR_EXPOSURE_OUT_OF_RANGE)"},
    {188, "KZ_ERR_ACQUISITION_SETUP_REQUIRED", "The acquisition setup is needed first (KZ_ERR_ACQUISITION_SETUP_REQUIRED)"},
    {189, "KZ_ERR_NO_SPEED_AVAILABLE", "No speed available (KZ_ERR_NO_SPEED_AVAILABLE)"},
    {190, "KZ_ERR_TOO_MANY_FRAMES", "Too many frames in buffer (KZ_ERR_TOO_MANY_FRAMES)"},
    {191, "KZ_ERR_ZERO_FRAMES", "Zero frames given (KZ_ERR_ZERO_FRAMES)"},
    {192, "KZ_ERR_METADATA_INVALID", "Invalid frame metadata (KZ_ERR_METADATA_INVALID)"},
    {193, "KZ_ERR_DDI_LIBRARY_INCOMPATIBLE", "Incompatible DDI library, installation corrupted (KZ_ERR_DDI_LIBRARY_INCOMPATIBLE)"},
    {194, "KZ_ERR_DDI_DRIVER_INITIALIZATION_FAILED", "Driver initialization failed (KZ_ERR_DDI_DRIVER_INITIALIZATION_FAILED)"},
    {195, "KZ_ERR_DDI_DEVICE_OPEN_FAILED", "Driver device failed to open (KZ_ERR_DDI_DEVICE_OPEN_FAILED)"},
    {196, "KZ_ERR_DDI_DEVICE_CLOSE_FAILED", "Driver device failed to close (KZ_ERR_DDI_DEVICE_CLOSE_FAILED)"},
    {197, "KZ_ERR_DDI_DEVICE_READ_FAILED", "Driver device failed to read data (KZ_ERR_DDI_DEVICE_READ_FAILED)"},
    {198, "KZ_ERR_DDI_DEVICE_WRITE_FAILED", "Driver device failed to write data (KZ_ERR_DDI_DEVICE_WRITE_FAILED)"},
    {199, "KZ_ERR_DDI_DEVICE_IOCTL_FAILED", "Driver device IOCTL failed (KZ_ERR_DDI_DEVICE_IOCTL_FAILED)"},
    {200, "KZ_ERR_DDI_EVENT_WAIT_FAILED", "Failure while waiting on driver device event (KZ_ERR_DDI_EVENT_WAIT_FAILED)"},
    {201, "KZ_ERR_DDI_EVENT_RESET_FAILED", "A driver device event reset failed (KZ_ERR_DDI_EVENT_RESET_FAILED)"},
    {202, "KZ_ERR_DDI_EVENT_SET_FAILED", "A driver device event set failed (KZ_ERR_DDI_EVENT_SET_FAILED)"},
    {203, "KZ_ERR_DDI_EVENT_WAIT_TIMEOUT", "Waiting on driver device event timed out (KZ_ERR_DDI_EVENT_WAIT_TIMEOUT)"},
};

const std::string kUnknownName = "<UNKNOWN>";
const std::string kUnknownMessage = "Unknown error (<UNKNOWN>)";

TEST(ErrorCodeTable, EveryKnownCodeHasItsExactNameAndMessage) {
    for (const Expected& e : kExpected) {
        SCOPED_TRACE(e.code);
        EXPECT_EQ(GetErrCodeName(e.code), std::string(e.name));
        EXPECT_EQ(GetErrMessage(e.code), std::string(e.message));
    }
}

TEST(ErrorCodeTable, EveryOtherCodeUpToTheTopOf16BitsIsUnknown) {
    std::set<uint32_t> known;
    for (const Expected& e : kExpected) {
        known.insert(e.code);
    }
    EXPECT_EQ(known.size(), 74u);
    for (uint32_t code = 0; code <= 0xFFFF; ++code) {
        if (known.count(code) != 0) {
            continue;
        }
        ASSERT_EQ(GetErrCodeName(code), kUnknownName) << code;
        ASSERT_EQ(GetErrMessage(code), kUnknownMessage) << code;
    }
}

TEST(ErrorCodeTable, OnlyTheLow16BitsOfTheCodeCount) {
    EXPECT_EQ(GetErrCodeName(65536), std::string("KZ_ERR_NONE"));
    EXPECT_EQ(GetErrCodeName(65536 + 184), std::string("KZ_ERR_STATE_INVALID"));
    EXPECT_EQ(GetErrMessage(0x7FFF0000u + 203), std::string(GetErrMessage(203)));
    // A negative int16 widened to 32 bits is read by its 16-bit pattern.
    const int16_t negative = -1;
    EXPECT_EQ(GetErrCodeName(static_cast<uint32_t>(negative)), kUnknownName);
    // All 16 bits count, not just the low byte: 0x80B8 is not 184.
    const int16_t wrapped = static_cast<int16_t>(0x80B8);
    EXPECT_EQ(GetErrCodeName(static_cast<uint32_t>(static_cast<int32_t>(wrapped))), kUnknownName);
}

TEST(ErrorCodeTable, RepeatedMessagesDifferOnlyInTheName) {
    const std::string bus = "A mis-configuration of interface bus has occurred (";
    for (uint32_t code : {8u, 11u, 12u, 13u, 14u, 15u}) {
        const std::string message = GetErrMessage(code);
        EXPECT_EQ(message.rfind(bus, 0), 0u) << code;
        EXPECT_EQ(message, bus + GetErrCodeName(code) + ")");
    }
    EXPECT_EQ(std::string(GetErrMessage(166)),
              "The device did not accept new value (KZ_ERR_VALUE_SET_FAILED)");
    EXPECT_EQ(std::string(GetErrMessage(167)),
              "The device did not accept new value (KZ_ERR_VALUE_REFUSED_BY_DEVICE)");
}

// ---------------------------------------------------------------------------

TEST(LastError, ThreadThatNeverFailedHasEmptyText) {
    std::string seen = "not run";
    std::thread([&] { seen = kt::LastError::GetDetails(); }).join();
    EXPECT_EQ(seen, "");
}

TEST(LastError, TextIsFormattedAndReplacedAndCleared) {
    kt::LastError::SetDetails("Error %d (%s)", 2, "No such file or directory");
    EXPECT_STREQ(kt::LastError::GetDetails(), "Error 2 (No such file or directory)");
    kt::LastError::SetDetails("%s", "second");
    EXPECT_STREQ(kt::LastError::GetDetails(), "second");
    kt::LastError::ClearDetails();
    EXPECT_STREQ(kt::LastError::GetDetails(), "");
}

TEST(LastError, CurrentTextMayBeAnArgumentOfTheNextOne) {
    kt::LastError::SetDetails("inner failure");
    kt::LastError::SetDetails("outer: %s; again: %s", kt::LastError::GetDetails(),
                              kt::LastError::GetDetails());
    EXPECT_STREQ(kt::LastError::GetDetails(), "outer: inner failure; again: inner failure");
}

TEST(LastError, LongTextIsKeptWhole) {
    const std::string big(20000, 'x');
    kt::LastError::SetDetails("<%s>", big.c_str());
    const std::string got = kt::LastError::GetDetails();
    EXPECT_EQ(got.size(), big.size() + 2);
    EXPECT_EQ(got, "<" + big + ">");
}

TEST(LastError, ThreadsNeverSeeEachOthersText) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 2000;
    std::vector<std::thread> threads;
    std::vector<int> mismatches(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &mismatches] {
            for (int i = 0; i < kRounds; ++i) {
                kt::LastError::SetDetails("thread %d round %d", t, i);
                const std::string expected =
                    "thread " + std::to_string(t) + " round " + std::to_string(i);
                if (expected != kt::LastError::GetDetails()) {
                    ++mismatches[t];
                }
            }
        });
    }
    kt::LastError::SetDetails("main thread text");
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_STREQ(kt::LastError::GetDetails(), "main thread text");
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(mismatches[t], 0) << "thread " << t;
    }
}

TEST(LastError, UnformattableTextDoesNotThrowAndLeavesNoStaleText) {
    kt::LastError::SetDetails("stale");
    // A wide character that the C locale cannot encode makes the formatter fail.
    EXPECT_NO_THROW(kt::LastError::SetDetails("%lc", static_cast<wint_t>(0x20AC)));
    EXPECT_STREQ(kt::LastError::GetDetails(), "");
}

} // namespace
