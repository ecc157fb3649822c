// The probe's own name tables. The library keeps its tables internal (nothing
// but the four entry points is exported), so a tool that wants to print a code
// by name has to carry its own copy, taken from the public headers.
#pragma once

#include <cstdint>

namespace probe {

// Symbolic name of an error code of <tavik/tavik_errors.h>; "<UNKNOWN>" for a
// value outside the table. Only the low 16 bits count, as an int16 result
// widened to a larger type keeps its 16-bit pattern.
const char* ErrorCodeName(std::uint32_t code);

// Name of a notification code; "<none>" for 0 and "<UNKNOWN>" for anything that
// is not exactly one of the codes of <tavik/tavik_driver.h>.
const char* NotificationName(std::uint32_t type);

// Short bus text ("PCI", "PCIe", "USB", "FireWire", "Virtual"); "<invalid>" otherwise.
const char* BusText(std::uint32_t type);

// "USER" or "KERNEL"; "<invalid>" otherwise.
const char* DriverModeText(std::uint32_t mode);

}  // namespace probe
