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

// The trace object of a library operation (category "DDI") for a library that
// has a log; null when it cannot be allocated.
std::unique_ptr<LogFn> CreateTracedLogFn(const char* signature);

// The trace object of a library operation, or null when there is no log or the
// object cannot be allocated; the operation then runs untraced. Every device
// operation passes here, so the untraced answer is inline: a load and a test,
// no call, no reference counting and no allocation.
inline std::unique_ptr<LogFn> CreateLogFn(const char* signature) {
    const LogSetup* current = setup.get();
    if (current == nullptr || !current->HasLog()) {
        return nullptr;
    }
    return CreateTracedLogFn(signature);
}

} // namespace LogDdi
} // namespace kt
