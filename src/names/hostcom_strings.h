#pragma once

#include <tavik/tavik_types.h>

// Name of a host command code as the camera protocol spells it, for log lines;
// "<UNKNOWN>" for a code above the last command.
const char* GetHostComDebugString(uns32 value) noexcept;
