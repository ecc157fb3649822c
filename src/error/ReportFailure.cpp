#include "error/ReportFailure.h"

#include <cstdarg>
#include <exception>
#include <new>
#include <string>

#include <tavik/tavik_errors.h>

#include "error/LastError.h"
#include "error/tavik_error_strings.h"
#include "log/LogEntry.h"
#include "log/LogFn.h"
#include "log/LogUtils.h"

namespace kt {

int16 ReportFailure(LogFn* fn, int16 code, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text;
    try {
        text = LogUtils::FormatArgsToStdString(format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);

    LastError::SetDetails("%s", text.c_str());
    if (fn && fn->WillBeLogged(LogEntry::Error))
        fn->LogMessage(LogEntry::Error, "%s", LastError::GetDetails());
    if (fn && fn->WillBeLogged())
        fn->SetReturnResult("%s", GetErrCodeName(static_cast<uint16_t>(code)));
    return code;
}

int16 ReportException() noexcept {
    int16 code = KZ_ERR_UNKNOWN;
    try {
        throw;
    } catch (const std::bad_alloc&) {
        code = KZ_ERR_INSUFFICIENT_RESOURCES;
        try {
            LastError::SetDetails("Unexpected exception (%s)", "out of memory");
        } catch (...) {
        }
    } catch (const std::exception& e) {
        try {
            LastError::SetDetails("Unexpected exception (%s)", e.what());
        } catch (...) {
        }
    } catch (...) {
        try {
            LastError::SetDetails("Unexpected exception (%s)", "unknown");
        } catch (...) {
        }
    }
    return code;
}

} // namespace kt
