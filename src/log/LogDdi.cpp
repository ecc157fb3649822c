#include "log/LogDdi.h"

#include <cstdlib>
#include <new>

#include "log/LogSetupFile.h"

namespace kt {
namespace LogDdi {

namespace {

std::shared_ptr<LogSetup> CreateSetup() {
    const char* file = std::getenv("TAVIK_DDI_LOG_FILE");
    const char* level = std::getenv("TAVIK_DDI_LOG_LEVEL");
    try {
        LogSetupFile* raw = new (std::nothrow) LogSetupFile(file, level != nullptr ? level : "");
        return std::shared_ptr<LogSetup>(raw);
    } catch (...) {
        // Without a set-up the library runs untraced.
        return nullptr;
    }
}

} // namespace

// Built in this order when the library is loaded, torn down in reverse when it is
// unloaded: the load/unload flag is set around the set-up's construction and
// destruction, so no worker thread is started from a static initialiser or
// destructor (where the loader lock is held).
Log::LibInitHelper libPreInitHelper(Log::LibInitHelper::PreInit, Log::LibInitHelper::Immediate);
std::shared_ptr<LogSetup> setup = CreateSetup();
Log::LibInitHelper libPostInitHelper(Log::LibInitHelper::PostInit, Log::LibInitHelper::Immediate);

namespace {

// The destructors of the objects above are registered with the C library as they
// are built, and once a process has made a few dozen registrations each one
// allocates; when that fails the destructor is silently never called, and the
// log's worker would outlive the unload, waiting in code that is no longer
// mapped. So the unload releases the set-up here, which needs no registration
// and runs before the destructors of static objects (they then find it
// released), with the unload marked first as libPostInitHelper's destruction
// would mark it.
__attribute__((destructor)) void ReleaseSetupAtUnload() {
    const Log::LibInitHelper unloading(Log::LibInitHelper::PreInit, Log::LibInitHelper::Immediate);
    setup.reset();
}

} // namespace

std::shared_ptr<Log> GetLog() {
    const LogSetup* current = setup.get();
    if (current == nullptr || !current->HasLog()) {
        return nullptr;
    }
    return current->GetLog();
}

} // namespace LogDdi
} // namespace kt
