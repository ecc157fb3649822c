#pragma once

#include <tavik/tavik_types.h>

// Name of a camera bridge command code for log lines. Unlike the enumeration's
// own name table, this one also names the end marker QX_MAX_BRIDGE_COMMANDS.
const char* GetBridgeComDebugString(uns32 value) noexcept;
