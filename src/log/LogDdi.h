#pragma once

#include <memory>

#include "log/Log.h"
#include "log/LogFn.h"
#include "log/LogSetup.h"

namespace kt {
namespace LogDdi {

// The library's logging objects, built in this order at load and torn down in reverse.
extern Log::LibInitHelper libPreInitHelper;
extern std::shared_ptr<LogSetup> setup;
extern Log::LibInitHelper libPostInitHelper;

// The library's log, or empty when logging is not configured.
std::shared_ptr<Log> GetLog();

// The trace object of a library operation (category "DDI"), or null when there
// is no log or the object cannot be allocated; the operation then runs untraced.
std::unique_ptr<LogFn> CreateLogFn(const char* signature);

} // namespace LogDdi
} // namespace kt
