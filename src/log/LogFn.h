#pragma once

#include <memory>
#include <string>

#include "log/LogEntry.h"

namespace kt {

class Log;

// Function-scope trace: an ENTER line on entry, a RETURN line with result,
// return values and elapsed microseconds when it is destroyed.
class LogFn {
public:
    LogFn(std::shared_ptr<Log> log, const char* category, const char* function);
    ~LogFn();
    LogFn(const LogFn&) = delete;
    LogFn& operator=(const LogFn&) = delete;

    bool WillBeLogged() const;
    bool WillBeLogged(LogEntry::Level level) const;
    void LogEnterMessage(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void DoLogEnterMessage(const std::string& args);
    void LogMessage(LogEntry::Level level, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    void DoLogMessage(LogEntry::Level level, const std::string& text);
    void SetReturnArgs(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void SetReturnResult(const char* format, ...) __attribute__((format(printf, 2, 3)));

private:
    TimePoint m_startTime;
    std::shared_ptr<Log> m_log;
    std::string m_category;
    std::string m_function;
    bool m_entered = false;
    std::string m_returnArgs;
    std::string m_returnResult;
};

} // namespace kt
