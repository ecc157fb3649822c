#include "DeviceSurvey.h"

#include <cstring>
#include <vector>

#include "ProbeNames.h"

namespace probe {
namespace {

// Records cross a boundary to code the probe does not trust: a name that is
// not terminated must not make the probe read past the field.
template <std::size_t N>
std::string FixedText(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

std::string BaseName(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

unsigned CountDevices(const tavik_driver* driver) {
  // A list without its terminator would run on forever; no bus carries this many cameras.
  constexpr unsigned kSanityLimit = 65536;
  unsigned count = 0;
  if (driver->device_list == nullptr) return 0;
  while (count < kSanityLimit && driver->device_list[count] != nullptr) ++count;
  return count;
}

}  // namespace

void SurveyDevices(const Ddi& ddi, ProbeReport& report) {
  report.drivers.clear();
  for (unsigned slot = 0; slot < TAVIK_DRIVER_TYPE_COUNT; ++slot) {
    DriverRecord record;
    record.slot = slot;
    record.type = BusText(slot);
    const tavik_driver* driver = ddi.drivers[slot];
    if (driver != nullptr) {
      record.loaded = true;
      record.mode = DriverModeText(driver->mode);
      record.module = FixedText(driver->file_path);
      record.devices = CountDevices(driver);
    }
    report.drivers.push_back(record);
  }

  report.cameras.clear();
  const unsigned count =
      ddi.cam_count < TAVIK_DDI_MAX_CAMERAS ? ddi.cam_count : TAVIK_DDI_MAX_CAMERAS;
  for (unsigned index = 0; index < count; ++index) {
    const tavik_driver_device* device = ddi.devices[index];
    CameraRecord record;
    record.index = index;
    if (device == nullptr) {
      record.bus = "<invalid>";
      record.mode = "<invalid>";
      report.cameras.push_back(record);
      continue;
    }
    record.name = FixedText(device->name);
    record.path = FixedText(device->file_path);
    // The slot tells the bus without calling into a module's type function.
    for (unsigned slot = 0; slot < TAVIK_DRIVER_TYPE_COUNT; ++slot) {
      if (ddi.drivers[slot] != nullptr && ddi.drivers[slot] == device->driver) {
        record.slot = static_cast<int>(slot);
      }
    }
    if (record.slot >= 0) {
      const tavik_driver* driver = ddi.drivers[record.slot];
      record.bus = BusText(static_cast<unsigned>(record.slot));
      record.mode = DriverModeText(driver->mode);
      record.emulator = record.slot == TAVIK_DRIVER_TYPE_VIRTUAL &&
                        driver->mode == TAVIK_DRIVER_MODE_USER &&
                        BaseName(FixedText(driver->file_path)) == kEmulatorModuleName;
    } else {
      record.bus = "<invalid>";
      record.mode = "<invalid>";
    }
    report.cameras.push_back(record);
  }
}

std::string DeviceLastError(tavik_driver_device* device) {
  if (device == nullptr || device->last_error_msg == nullptr) return {};
  const uns32 needed = device->last_error_msg(device, nullptr, 0);
  const uns32 size = needed > (1u << 20) ? (1u << 20) : needed;
  if (size <= 1) return {};
  std::vector<char> buffer(size, '\0');
  device->last_error_msg(device, buffer.data(), size);
  buffer.back() = '\0';
  return std::string(buffer.data());
}

CallOutcome Outcome(const std::string& call, tavik_driver_device* device, int16 code) {
  CallOutcome outcome;
  outcome.call = call;
  outcome.code = static_cast<uns16>(code);
  if (code != KZ_ERR_NONE) outcome.lastError = DeviceLastError(device);
  return outcome;
}

bool CheckOpenClose(const Ddi& ddi, ProbeReport& report) {
  report.openRequested = true;
  bool allGood = true;
  for (const CameraRecord& camera : report.cameras) {
    tavik_driver_device* device = ddi.devices[camera.index];
    OpenRecord record;
    record.camera = camera.index;
    if (device == nullptr || device->open == nullptr || device->close == nullptr) {
      record.open.call = "open";
      record.open.code = KZ_ERR_NULL_POINTER;
      record.open.lastError = "the camera list holds no usable device at this index";
      allGood = false;
      report.opens.push_back(record);
      continue;
    }
    record.open = Outcome("open", device, device->open(device));
    if (record.open.code == KZ_ERR_NONE) {
      record.closed = true;
      record.close = Outcome("close", device, device->close(device));
      if (record.close.code != KZ_ERR_NONE) allGood = false;
    } else {
      allGood = false;
    }
    report.opens.push_back(record);
  }
  return allGood;
}

}  // namespace probe
