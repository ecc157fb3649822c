#include "log/LogDdi.h"

#include <pthread.h>

#include <cstdlib>
#include <new>

#include "log/LogFileBound.h"
#include "log/LogSetupFile.h"

namespace kt {
namespace LogDdi {

namespace {

void ForsakeLogInChild();

std::shared_ptr<LogSetup> CreateSetup() {
    // Without the fork handler a child would flush, write a footer into the
    // parent's file and join a worker it does not have: better no log at all.
    if (pthread_atfork(nullptr, nullptr, &ForsakeLogInChild) != 0) {
        return nullptr;
    }
    // In a program that runs with more rights than its user, that user must not
    // choose a file for it to create and write: such a program has no log.
    const char* file = secure_getenv("TAVIK_DDI_LOG_FILE");
    const char* level = secure_getenv("TAVIK_DDI_LOG_LEVEL");
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

// The child of a fork has no log. Its copy of the set-up is moved here and never
// destroyed: destroying it would flush, write a footer into the parent's file,
// join a worker that exists only in the parent and take mutexes that a parent
// thread may have held at the fork. Static storage keeps it reachable, so a leak
// checker at the child's exit does not count it.
alignas(std::shared_ptr<LogSetup>) unsigned char g_forsakenStorage[sizeof(std::shared_ptr<LogSetup>)];

void ForsakeLogInChild() {
    if (!setup) {
        return; // no log, or already forsaken in a child of this child
    }
    // The library's operations find no set-up from now on and run untraced.
    new (g_forsakenStorage) std::shared_ptr<LogSetup>(std::move(setup));
}

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
