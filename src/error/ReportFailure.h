#pragma once

#include <tavik/tavik_types.h>

namespace kt {

class LogFn;

// How every failing operation reports: the calling thread's last-error text is set
// first, the same text is logged at Error through the trace object (when there is
// one and Error passes), the trace result becomes the code's name, and the code is
// returned so that callers can write `return ReportFailure(...)`.
int16 ReportFailure(LogFn* fn, int16 code, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// For the catch-all at an exported function or device operation: no exception may
// cross into the C caller. Must be called from inside a catch handler. Leaves a
// last-error text and returns KZ_ERR_INSUFFICIENT_RESOURCES for an allocation
// failure, KZ_ERR_UNKNOWN for anything else.
int16 ReportException() noexcept;

} // namespace kt
