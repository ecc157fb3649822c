#include "error/LastError.h"

#include <cstdarg>
#include <string>
#include <utility>

#include "log/LogUtils.h"

namespace kt {

namespace {

// One text per thread: created empty on first use, freed when the thread ends.
std::string& ThreadText() {
    thread_local std::string text;
    return text;
}

} // namespace

void LastError::SetDetails(const char* format, ...) {
    std::string& current = ThreadText();
    va_list args;
    va_start(args, format);
    try {
        // Formatting into a fresh string first lets the current text be one of
        // the arguments (to prefix or extend it).
        std::string formatted = LogUtils::FormatArgsToStdString(format, args);
        current.swap(formatted);
    } catch (...) {
        // Called on failure paths behind C entry points, so nothing may leave
        // here. A format the C library rejects (or exhausted memory) never got
        // as far as the swap: the thread keeps its previous text whole, which
        // is the best account of the failure that there is.
    }
    va_end(args);
}

const char* LastError::GetDetails() {
    return ThreadText().c_str();
}

void LastError::ClearDetails() {
    ThreadText().clear();
}

} // namespace kt
