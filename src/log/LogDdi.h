#pragma once

#include <memory>

#include "log/Log.h"
#include "log/LogFn.h"
#include "log/LogSetup.h"

namespace kt {
namespace LogDdi {

// The library's logging objects, built in this order at load and torn down in reverse.
extern Log::LibInitHelper libPreInitHelper;
extern std::shared_ptr<LogSetup>& setup;
extern Log::LibInitHelper libPostInitHelper;

// The library's log, or empty when logging is not configured.
std::shared_ptr<Log> GetLog();

// The trace object of a library operation (category "DDI"), empty when there is
// no log; the operation then runs untraced. Every device operation passes here,
// so all of it is inline and none of it allocates: the trace lives in the
// caller's frame and borrows the set-up's log, which outlives every operation
// (it goes only when the library is unloaded). Forced inline: the compiler's own
// count of the trace's construction would otherwise make it a call of its own,
// one call level more for every untraced operation.
__attribute__((always_inline)) inline LogFnSlot CreateLogFn(const char* signature) {
    const LogSetup* current = setup.get();
    if (current == nullptr || !current->HasLog()) {
        return LogFnSlot();
    }
    return LogFnSlot(current->PeekLog(), "DDI", signature);
}

} // namespace LogDdi
} // namespace kt
