#include "error/tavik_error_strings.h"

#include <array>
#include <cstddef>

#include <tavik/tavik_errors.h>

namespace {

struct ErrRow {
    uint16_t code;
    const char* name;
    const char* message;
};

// Each row names its code once: the number comes from the public enumeration and
// the message is the text followed by the name in parentheses, so name, number
// and message can never drift apart.
#define KZ_ROW(name, text) ErrRow{static_cast<uint16_t>(name), #name, text " (" #name ")"}

constexpr ErrRow kRows[] = {
    KZ_ROW(KZ_ERR_NONE, "No error"),
    KZ_ROW(KZ_ERR_BC_STATUS_INVALID_BLOCK_NUM, "Trying to upload/download invalid block index"),
    KZ_ROW(KZ_ERR_BC_UNSUPPORTED_TARGET, "Trying to communicate with an unsupported target"),
    KZ_ROW(KZ_ERR_BC_INVALID_TARGET, "Trying to communicate with an invalid target"),
    KZ_ROW(KZ_ERR_BC_TIMEOUT, "Timeout during transmission"),
    KZ_ROW(KZ_ERR_BC_INVALID_OPCODE, "Bridge command is not recognized by this camera"),
    KZ_ROW(KZ_ERR_BC_INVALID_LENGTH, "Payload is not the right length"),
    KZ_ROW(KZ_ERR_BC_INVALID_PARAMETER, "Payload is described in a way camera doesn't understand"),
    KZ_ROW(KZ_ERR_BC_INVALID_CAM_SPEED, "A mis-configuration of interface bus has occurred"),
    KZ_ROW(KZ_ERR_BC_NO_MEMORY, "Camera does not have enough resources for transaction"),
    KZ_ROW(KZ_ERR_BC_LOCK_FAILED, "Camera configuration lock is present"),
    KZ_ROW(KZ_ERR_BC_CHANNEL_USED, "A mis-configuration of interface bus has occurred"),
    KZ_ROW(KZ_ERR_BC_INVALID_CHANNEL, "A mis-configuration of interface bus has occurred"),
    KZ_ROW(KZ_ERR_BC_NO_ISO_CHANNEL, "A mis-configuration of interface bus has occurred"),
    KZ_ROW(KZ_ERR_BC_NO_ISO_BANDWIDTH, "A mis-configuration of interface bus has occurred"),
    KZ_ROW(KZ_ERR_BC_INVALID_SPEED, "A mis-configuration of interface bus has occurred"),
    KZ_ROW(KZ_ERR_BC_UNKNOWN_ERROR, "Unknown, undocumented, and unexpected error has occurred"),
    KZ_ROW(KZ_ERR_BC_PROGRAMMING_FAILED, "Upload of payload has failed"),
    KZ_ROW(KZ_ERR_BC_PARAMETER_PERMISSION, "Parameter permission does not allow that operation"),
    KZ_ROW(KZ_ERR_BC_PENDING, "Operation is pending"),
    KZ_ROW(KZ_ERR_UNKNOWN, "Unexpected or unknown error"),
    KZ_ROW(KZ_ERR_INSTALLATION_CORRUPTED, "TAVIK installation is corrupted"),
    KZ_ROW(KZ_ERR_INSUFFICIENT_RESOURCES, "Resource allocation failed"),
    KZ_ROW(KZ_ERR_NULL_POINTER, "Given pointer is not a legal address"),
    KZ_ROW(KZ_ERR_NOT_AVAILABLE, "Not available"),
    KZ_ROW(KZ_ERR_NOT_IMPLEMENTED, "Not implemented"),
    KZ_ROW(KZ_ERR_ACCESS_DENIED, "Access denied"),
    KZ_ROW(KZ_ERR_LIBRARY_NOT_INITIALIZED, "The initialization hasn't been done yet"),
    KZ_ROW(KZ_ERR_LIBRARY_ALREADY_INITIALIZED, "The initialization has been already done"),
    KZ_ROW(KZ_ERR_PARAMETER_UNKNOWN, "Unknown parameter ID"),
    KZ_ROW(KZ_ERR_PARAMETER_NOT_AVAILABLE, "Parameter unavailable for current device"),
    KZ_ROW(KZ_ERR_PARAMETER_NOT_ENUM, "Parameter is not an enumeration"),
    KZ_ROW(KZ_ERR_ATTRIBUTE_UNKNOWN, "Unknown attribute ID"),
    KZ_ROW(KZ_ERR_ATTRIBUTE_NOT_AVAILABLE, "Attribute unavailable for given parameter"),
    KZ_ROW(KZ_ERR_VALUE_INVALID, "Invalid value"),
    KZ_ROW(KZ_ERR_VALUE_OUT_OF_RANGE, "Value is out of range"),
    KZ_ROW(KZ_ERR_VALUE_SET_FAILED, "The device did not accept new value"),
    KZ_ROW(KZ_ERR_VALUE_REFUSED_BY_DEVICE, "The device did not accept new value"),
    KZ_ROW(KZ_ERR_DATA_INVALID, "Invalid data"),
    KZ_ROW(KZ_ERR_DATA_NOT_AVAILABLE_YET, "No data available yet"),
    KZ_ROW(KZ_ERR_DATA_PROCESSING_FAILED, "Data processing failed"),
    KZ_ROW(KZ_ERR_BUFFER_SIZE_INVALID, "Buffer must be integer-multiple of frame size"),
    KZ_ROW(KZ_ERR_BUFFER_TOO_SMALL, "The buffer is too small"),
    KZ_ROW(KZ_ERR_BUFFER_OVERRUN, "The buffer is full"),
    KZ_ROW(KZ_ERR_BUFFER_MALFORMED, "The buffer data is malformed"),
    KZ_ROW(KZ_ERR_DEVICE_HANDLE_INVALID, "This is not the handle of an open device"),
    KZ_ROW(KZ_ERR_DEVICE_NAME_UNKNOWN, "This is not a valid name for opening the device"),
    KZ_ROW(KZ_ERR_DEVICE_NOT_OPEN, "This device is not open yet"),
    KZ_ROW(KZ_ERR_DEVICE_ALREADY_OPEN, "This device is already open"),
    KZ_ROW(KZ_ERR_DEVICE_CONFIGURATION_INVALID, "The device provided invalid configuration"),
    KZ_ROW(KZ_ERR_DEVICE_REMOVED, "The device has been unexpectedly removed"),
    KZ_ROW(KZ_ERR_REGION_INVALID, "Invalid region"),
    KZ_ROW(KZ_ERR_BINNING_INVALID, "Invalid binning"),
    KZ_ROW(KZ_ERR_MODE_INVALID, "Invalid mode"),
    KZ_ROW(KZ_ERR_STATE_INVALID, "Invalid internal state"),
    KZ_ROW(KZ_ERR_CONFIGURATION_INVALID, "Invalid configuration"),
    KZ_ROW(KZ_ERR_INDEX_OUT_OF_RANGE, "Index is out of range"),
    KZ_ROW(KZ_ERR_EXPOSURE_OUT_OF_RANGE, "Exposure value is out of range"),
    KZ_ROW(KZ_ERR_ACQUISITION_SETUP_REQUIRED, "The acquisition setup is needed first"),
    KZ_ROW(KZ_ERR_NO_SPEED_AVAILABLE, "No speed available"),
    KZ_ROW(KZ_ERR_TOO_MANY_FRAMES, "Too many frames in buffer"),
    KZ_ROW(KZ_ERR_ZERO_FRAMES, "Zero frames given"),
    KZ_ROW(KZ_ERR_METADATA_INVALID, "Invalid frame metadata"),
    KZ_ROW(KZ_ERR_DDI_LIBRARY_INCOMPATIBLE, "Incompatible DDI library, installation corrupted"),
    KZ_ROW(KZ_ERR_DDI_DRIVER_INITIALIZATION_FAILED, "Driver initialization failed"),
    KZ_ROW(KZ_ERR_DDI_DEVICE_OPEN_FAILED, "Driver device failed to open"),
    KZ_ROW(KZ_ERR_DDI_DEVICE_CLOSE_FAILED, "Driver device failed to close"),
    KZ_ROW(KZ_ERR_DDI_DEVICE_READ_FAILED, "Driver device failed to read data"),
    KZ_ROW(KZ_ERR_DDI_DEVICE_WRITE_FAILED, "Driver device failed to write data"),
    KZ_ROW(KZ_ERR_DDI_DEVICE_IOCTL_FAILED, "Driver device IOCTL failed"),
    KZ_ROW(KZ_ERR_DDI_EVENT_WAIT_FAILED, "Failure while waiting on driver device event"),
    KZ_ROW(KZ_ERR_DDI_EVENT_RESET_FAILED, "A driver device event reset failed"),
    KZ_ROW(KZ_ERR_DDI_EVENT_SET_FAILED, "A driver device event set failed"),
    KZ_ROW(KZ_ERR_DDI_EVENT_WAIT_TIMEOUT, "Waiting on driver device event timed out"),
};

#undef KZ_ROW

constexpr size_t kTableSize = 204;
constexpr const char* kUnknownName = "<UNKNOWN>";
constexpr const char* kUnknownMessage = "Unknown error (<UNKNOWN>)";

struct ErrTable {
    std::array<const char*, kTableSize> names{};
    std::array<const char*, kTableSize> messages{};
};

// The dense table is built at compile time from the rows; a row out of range or
// a code given twice stops the build instead of silently shadowing another.
constexpr ErrTable BuildTable() {
    ErrTable t{};
    for (size_t i = 0; i < kTableSize; ++i) {
        t.names[i] = kUnknownName;
        t.messages[i] = kUnknownMessage;
    }
    for (const ErrRow& row : kRows) {
        if (row.code >= kTableSize || t.names[row.code] != kUnknownName) {
            throw "error table row out of range or duplicated";
        }
        t.names[row.code] = row.name;
        t.messages[row.code] = row.message;
    }
    return t;
}

constexpr ErrTable kTable = BuildTable();

static_assert(sizeof(kRows) / sizeof(kRows[0]) == 74, "every code of the kit has one row");
static_assert(static_cast<uint16_t>(KZ_ERR_DDI_EVENT_WAIT_TIMEOUT) + 1 == kTableSize,
              "the dense table ends at the last code");

} // namespace

const char* GetErrCodeName(uint32_t code) {
    const uint16_t c = static_cast<uint16_t>(code);
    return c < kTableSize ? kTable.names[c] : kUnknownName;
}

const char* GetErrMessage(uint32_t code) {
    const uint16_t c = static_cast<uint16_t>(code);
    return c < kTableSize ? kTable.messages[c] : kUnknownMessage;
}
