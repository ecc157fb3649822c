#include "error/LastError.h"

#include <pthread.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include "log/LogUtils.h"

namespace kt {

namespace {

// The library is loaded with dlopen. A thread-local with a destructor would make
// the C library allocate, when a thread first touches it, both the thread's copy
// and the destructor's registration, and a failure of either ends the process;
// the registration also keeps the library mapped until the thread ends. So the
// record that finds a thread's text is plain data in the static TLS that every
// thread gets when it is created, the text itself is ordinary heap memory that
// may fail to grow like any other, and a thread-specific key frees it when the
// thread ends. Keys below the first 32 need no allocation to be set.
struct ThreadText {
    char* data;
    size_t capacity;
};

__attribute__((tls_model("initial-exec"))) thread_local ThreadText t_text{nullptr, 0};

pthread_key_t g_textKey;
bool g_haveTextKey = false;

void FreeText(void* data) {
    std::free(data);
}

__attribute__((constructor(101))) void CreateTextKey() {
    g_haveTextKey = pthread_key_create(&g_textKey, &FreeText) == 0;
}

// At unload the unloading thread's text goes with the key. Other threads that
// still hold a text and outlive the library lose only its memory: their ending
// must not call into code that is no longer mapped.
__attribute__((destructor(101))) void DeleteTextKey() {
    if (g_haveTextKey) {
        pthread_key_delete(g_textKey);
        g_haveTextKey = false;
    }
    std::free(t_text.data);
    t_text = ThreadText{nullptr, 0};
}

// Makes room for size bytes without touching the current text; false when the
// memory or the key that would free it is not to be had.
bool Reserve(size_t size) {
    if (size <= t_text.capacity) {
        return true;
    }
    if (!g_haveTextKey) {
        return false;
    }
    char* grown = static_cast<char*>(std::malloc(size));
    if (grown == nullptr || pthread_setspecific(g_textKey, grown) != 0) {
        std::free(grown);
        return false;
    }
    std::free(t_text.data);
    t_text = ThreadText{grown, size};
    return true;
}

} // namespace

void LastError::SetDetails(const char* format, ...) {
    va_list args;
    va_start(args, format);
    try {
        // Formatted whole first, so the current text may be one of the arguments
        // (to prefix or extend it), and so that a format the C library rejects, or
        // memory that runs out, leaves the previous text as it was: the best
        // account of the failure that there is. Nothing may leave here, as this
        // runs on failure paths behind C entry points.
        const std::string formatted = LogUtils::FormatArgsToStdString(format, args);
        if (Reserve(formatted.size() + 1)) {
            std::memcpy(t_text.data, formatted.c_str(), formatted.size() + 1);
        }
    } catch (...) {
    }
    va_end(args);
}

const char* LastError::GetDetails() {
    return t_text.data != nullptr ? t_text.data : "";
}

void LastError::ClearDetails() {
    if (t_text.data != nullptr) {
        t_text.data[0] = '\0';
    }
}

} // namespace kt
