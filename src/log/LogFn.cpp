#include "log/LogFn.h"

#include <cstdarg>
#include <exception>
#include <stdexcept>
#include <utility>

#include "log/Log.h"

namespace kt {

namespace {

std::string CategoryOrUnknown(const char* category) {
    return (category != nullptr && category[0] != '\0') ? std::string(category)
                                                        : std::string("???");
}

std::string FunctionText(const char* function) {
    if (function == nullptr) {
        throw std::logic_error("LogFn: null function signature");
    }
    return std::string(function);
}

// Formats on the caller's path without ever throwing; false leaves target as it was.
bool FormatInto(std::string& target, const char* format, va_list args) {
    try {
        target = LogUtils::FormatArgsToStdString(format, args);
        return true;
    } catch (...) {
        return false;
    }
}

TimePoint Now() {
    return std::chrono::time_point_cast<std::chrono::nanoseconds>(
        std::chrono::system_clock::now());
}

} // namespace

LogFn::LogFn(std::shared_ptr<Log> log, const char* category, const char* function)
    : m_startTime(Now()),
      m_log(std::move(log)),
      m_category(CategoryOrUnknown(category)),
      m_function(FunctionText(function)) {}

LogFn::~LogFn() {
    try {
        if (!WillBeLogged()) {
            return;
        }
        const auto elapsedUs = static_cast<unsigned long long>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Now() - m_startTime).count() /
            1000);
        if (!Log::DecreaseThreadDepth()) {
            DoLogMessage(LogEntry::Error, "Log indentation is incorrect");
        }
        if (std::uncaught_exceptions() > 0) {
            m_returnResult = "UNCAUGHT_EXCEPTION";
        }
        std::string text = "RETURN (";
        text += m_returnResult;
        if (!m_returnArgs.empty() && !m_returnResult.empty()) {
            text += ", ";
        }
        text += m_returnArgs;
        text += ") [";
        text += std::to_string(elapsedUs);
        text += "us]";
        DoLogMessage(LogEntry::Trace, text);
    } catch (...) {
        // Nothing may leave a destructor; the return line is lost.
    }
}

bool LogFn::WillBeLogged() const {
    return m_log && m_log->WillBeLogged(LogEntry::Trace);
}

bool LogFn::WillBeLogged(LogEntry::Level level) const {
    return m_log && m_log->WillBeLogged(level);
}

void LogFn::LogEnterMessage(const char* format, ...) {
    if (m_entered) {
        return;
    }
    std::string text;
    va_list args;
    va_start(args, format);
    const bool formatted = FormatInto(text, format, args);
    va_end(args);
    if (formatted) {
        DoLogEnterMessage(text);
    }
}

void LogFn::DoLogEnterMessage(const std::string& args) {
    m_entered = true;
    try {
        DoLogMessage(LogEntry::Trace, "ENTER (" + args + ")");
    } catch (...) {
    }
    // The depth goes up whether or not the line made it, so that the return line
    // (which always lowers it) keeps the thread's indentation balanced.
    Log::IncreaseThreadDepth();
}

void LogFn::LogMessage(LogEntry::Level level, const char* format, ...) {
    std::string text;
    va_list args;
    va_start(args, format);
    const bool formatted = FormatInto(text, format, args);
    va_end(args);
    if (formatted) {
        DoLogMessage(level, text);
    }
}

void LogFn::DoLogMessage(LogEntry::Level level, const std::string& text) {
    if (!m_log) {
        return;
    }
    m_log->AddEntry(m_category.c_str(), level, "%s: %s", m_function.c_str(), text.c_str());
}

void LogFn::SetReturnArgs(const char* format, ...) {
    va_list args;
    va_start(args, format);
    FormatInto(m_returnArgs, format, args);
    va_end(args);
}

void LogFn::SetReturnResult(const char* format, ...) {
    va_list args;
    va_start(args, format);
    FormatInto(m_returnResult, format, args);
    va_end(args);
}

} // namespace kt
