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

std::shared_ptr<Log> GetLog() {
    const LogSetup* current = setup.get();
    if (current == nullptr || !current->HasLog()) {
        return nullptr;
    }
    return current->GetLog();
}

} // namespace LogDdi
} // namespace kt
