// The operating-system half of the log utilities: error texts, file names of the
// running program and its modules, process and thread ids.
#include "log/LogUtils.h"

#include <atomic>

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kt {

std::string LogUtils::GetErrorString(int errorNumber) {
    // strerror's buffer may be shared; the GNU strerror_r returns a pointer that is
    // either a constant text or the given buffer, and is safe from any thread.
    char buffer[256];
    const char* text = strerror_r(errorNumber, buffer, sizeof(buffer));
    return std::string(text != nullptr ? text : "");
}

std::string LogUtils::GetDynLibErrorString() {
    const char* text = dlerror();
    return std::string(text != nullptr ? text : "Unknown error");
}

std::string LogUtils::GetLibFullFileName() {
    static const std::string cached = [] {
        Dl_info info{};
        if (dladdr(reinterpret_cast<void*>(&LogUtils::GetLibFullFileName), &info) != 0 &&
            info.dli_fname != nullptr) {
            return std::string(info.dli_fname);
        }
        return "Failed to get library full name (" + GetDynLibErrorString() + ")";
    }();
    return cached;
}

std::string LogUtils::GetLibFullFileNameByHandle(void* handle) {
    if (handle == nullptr) {
        return std::string("Failed to get library full name (invalid handle)");
    }
    struct link_map* map = nullptr;
    if (dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr && map->l_name != nullptr) {
        return std::string(map->l_name);
    }
    return "Failed to get library full name (" + GetDynLibErrorString() + ")";
}

std::string LogUtils::GetAppFullFileName() {
    static const std::string cached = [] {
        char buffer[4096];
        const ssize_t len = readlink("/proc/self/exe", buffer, sizeof(buffer));
        if (len >= 0) {
            const size_t end = static_cast<size_t>(len) > sizeof(buffer) - 1
                                   ? sizeof(buffer) - 1
                                   : static_cast<size_t>(len);
            buffer[end] = '\0';
            return std::string(buffer);
        }
        void* self = dlopen(nullptr, RTLD_LAZY);
        if (self != nullptr) {
            struct link_map* map = nullptr;
            if (dlinfo(self, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr &&
                map->l_name != nullptr) {
                std::string name(map->l_name);
                dlclose(self);
                return name;
            }
            dlclose(self);
        }
        return "Failed to get application full name (" + GetDynLibErrorString() + ")";
    }();
    return cached;
}

namespace {

// Every log entry carries both ids; asking the kernel twice per entry would be
// the largest part of a caller's cost. Ids never change for a thread's life,
// except in the child of a fork, whose only thread is the forking one: the
// child handler forgets both there.
std::atomic<uint32_t> g_pid{0};
// In static TLS, like the trace depth (see Log.cpp).
__attribute__((tls_model("initial-exec"))) thread_local uint32_t t_tid = 0;

void ForgetIdsInChild() {
    g_pid.store(0, std::memory_order_relaxed);
    t_tid = 0;
}

const int g_atforkRegistered = pthread_atfork(nullptr, nullptr, &ForgetIdsInChild);

} // namespace

uint32_t LogUtils::GetCurrentProcessId() {
    uint32_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = static_cast<uint32_t>(getpid());
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

uint32_t LogUtils::GetCurrentThreadId() {
    if (t_tid == 0) {
        t_tid = static_cast<uint32_t>(syscall(SYS_gettid));
    }
    return t_tid;
}

} // namespace kt
