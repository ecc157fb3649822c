#pragma once

#include <tavik/tavik_types.h>

// Combined name of a driver capability mask for log lines: "<none>" for 0, the
// member name for one bit, "KZ_DRIVERCAPS_(A|B...)" for several, "<UNKNOWN>"
// for any other mask. Only the low 16 bits of the argument are the mask.
const char* GetDriverComCapsString(uns32 value) noexcept;
