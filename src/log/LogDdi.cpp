#include "log/LogDdi.h"

#include <cstdlib>
#include <new>

#include "log/LogFileBound.h"
#include "log/LogSetupFile.h"

namespace kt {
namespace LogDdi {

namespace {

std::shared_ptr<LogSetup> CreateSetup() {
    const char* file = std::getenv("TAVIK_DDI_LOG_FILE");
    const char* level = std::getenv("TAVIK_DDI_LOG_LEVEL");
    try {
        // A program that runs with more rights than its caller (setuid or file
        // capabilities) must not let the caller choose what it deletes.
        const LogFileBound bound = LogFileBound::FromTexts(secure_getenv("TAVIK_DDI_LOG_MAX_SIZE"),
                                                           secure_getenv("TAVIK_DDI_LOG_MAX_FILES"));
        LogSetupFile* raw =
            new (std::nothrow) LogSetupFile(file, level != nullptr ? level : "", bound);
        return std::shared_ptr<LogSetup>(raw);
    } catch (...) {
        // Without a set-up the library runs untraced.
        return nullptr;
    }
}

// The destructors of static objects are registered with the C library as they
// are built, and once a process has made a few dozen registrations each one
// allocates; when that fails the destructor is silently never called, and the
// log's worker would outlive an unload, waiting in code that is no longer mapped.
// So the set-up is also released by a destructor function, which needs no
// registration. Which of the two runs first differs between dlclose and process
// exit, so the set-up's storage only ever releases the pointer and never ends
// its life, and releasing it twice is harmless.
union SetupStorage {
    SetupStorage() : setup(CreateSetup()) {}
    ~SetupStorage() { setup.reset(); }
    std::shared_ptr<LogSetup> setup;
};

} // namespace

// Built in this order when the library is loaded, torn down in reverse when it is
// unloaded: the load/unload flag is set around the set-up's construction and
// destruction, so no worker thread is started from a static initialiser or
// destructor (where the loader lock is held).
Log::LibInitHelper libPreInitHelper(Log::LibInitHelper::PreInit, Log::LibInitHelper::Immediate);
namespace {
SetupStorage g_setupStorage;
} // namespace
std::shared_ptr<LogSetup>& setup = g_setupStorage.setup;
Log::LibInitHelper libPostInitHelper(Log::LibInitHelper::PostInit, Log::LibInitHelper::Immediate);

namespace {

// Marks the unload first, as libPostInitHelper's destruction would.
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
