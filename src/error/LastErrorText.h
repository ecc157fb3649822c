#pragma once

#include <tavik/tavik_types.h>

namespace kt {

// Copies the calling thread's last-error text out for a C caller. A null buffer or
// a size of 0 is a size query. A text that does not fit is cut and always
// terminated. Returns the size the whole text needs, terminator included.
uns32 CopyLastErrorText(char* buffer, uns32 size) noexcept;

} // namespace kt
