#include "log/LogFn.h"

#include <cstdarg>
#include <exception>
#include <stdexcept>
#include <utility>

namespace kt {

const char* LogFn::NullFunction() {
    throw std::logic_error("LogFn: null function signature");
}

TimePoint LogFn::Now() noexcept {
    return std::chrono::time_point_cast<std::chrono::nanoseconds>(
        std::chrono::system_clock::now());
}

void LogFn::LogReturn() noexcept {
    try {
        // A trace that was switched on while the call ran has no start time.
        const TimePoint now = Now();
        const TimePoint start = m_startTime.time_since_epoch().count() != 0 ? m_startTime : now;
        const auto elapsedUs = static_cast<unsigned long long>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(now - start).count() / 1000);
        if (!Log::DecreaseThreadDepth()) {
            LogCapture line;
            BeginLine(line);
            line.AddLiteral("Log indentation is incorrect");
            Queue(LogEntry::Error, line, &now);
        }
        LogCapture line;
        BeginLine(line);
        line.AddLiteral("RETURN (");
        // The separator stands between result and values only when both turn out
        // non-empty, which the worker decides once it has formatted them.
        if (std::uncaught_exceptions() > 0) {
            line.AddLiteral("UNCAUGHT_EXCEPTION");
        } else if (m_returnResult.Empty()) {
            line.AddText("", 0);
        } else {
            line.Append(m_returnResult);
        }
        line.AddJoin();
        if (m_returnArgs.Empty()) {
            line.AddText("", 0);
        } else {
            line.Append(m_returnArgs);
        }
        line.AddLiteral(") [");
        line.AddUnsigned(elapsedUs);
        line.AddLiteral("us]");
        Queue(LogEntry::Trace, line, &now);
    } catch (...) {
        // Nothing may leave a destructor; the return line is lost.
    }
}

void LogFn::BeginLine(LogCapture& line) const noexcept {
    // By address, as the formats are: a copy of the signature would take more room
    // than the rest of a typical line and push it out of the entry pool's slots.
    line.AddLiteral(m_function);
    line.AddLiteral(": ");
}

void LogFn::Queue(LogEntry::Level level, const LogCapture& line,
                  const TimePoint* time) const noexcept {
    // The log tests the level here, as for every other line of the trace.
    if (m_log && m_log->WillBeLogged(level)) {
        m_log->AddEntry(m_category, level, line, time);
    }
}

// Replaces what target holds; a format that cannot be formatted leaves it as it
// was. The first capture goes straight into target, a later one by way of a copy.
bool LogFn::CaptureInto(LogCapture& target, const char* format, va_list args) noexcept {
    if (target.Empty()) {
        if (target.AddFormat(format, args) && target.Ok()) {
            return true;
        }
        target.Clear();
        return false;
    }
    LogCapture captured;
    if (!captured.AddFormat(format, args) || !captured.Ok()) {
        return false;
    }
    target.Clear();
    target.Append(captured);
    return target.Ok();
}

void LogFn::LogEnterMessage(const char* format, ...) {
    if (m_entered) {
        return;
    }
    LogCapture line;
    BeginLine(line);
    line.AddLiteral("ENTER (");
    va_list args;
    va_start(args, format);
    const bool captured = line.AddFormat(format, args);
    va_end(args);
    if (!captured) {
        return; // an unformattable enter line is not logged, and the call is not entered
    }
    line.AddLiteral(")");
    m_entered = true;
    // The call was entered when the trace began: the enter line takes that time
    // rather than reading the clock again.
    Queue(LogEntry::Trace, line,
          m_startTime.time_since_epoch().count() != 0 ? &m_startTime : nullptr);
    // The depth goes up whether or not the line made it, so that the return line
    // (which always lowers it) keeps the thread's indentation balanced.
    Log::IncreaseThreadDepth();
}

void LogFn::DoLogEnterMessage(const std::string& args) {
    m_entered = true;
    LogCapture line;
    BeginLine(line);
    line.AddLiteral("ENTER (");
    line.AddText(args.data(), args.size());
    line.AddLiteral(")");
    Queue(LogEntry::Trace, line);
    Log::IncreaseThreadDepth();
}

void LogFn::LogMessage(LogEntry::Level level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    CaptureAndQueue(level, format, args, false, nullptr, 0);
    va_end(args);
}

void LogFn::LogDumpMessage(LogEntry::Level level, const unsigned char* data, unsigned long size,
                           const char* format, ...) {
    va_list args;
    va_start(args, format);
    CaptureAndQueue(level, format, args, true, data, size);
    va_end(args);
}

void LogFn::CaptureAndQueue(LogEntry::Level level, const char* format, va_list args, bool withDump,
                            const unsigned char* data, unsigned long size) {
    if (!WillBeLogged(level)) {
        return;
    }
    LogCapture line;
    BeginLine(line);
    if (!line.AddFormat(format, args)) {
        return;
    }
    if (withDump) {
        line.AddDump(data, size);
    }
    Queue(level, line);
}

void LogFn::DoLogMessage(LogEntry::Level level, const std::string& text) {
    LogCapture line;
    BeginLine(line);
    line.AddText(text.data(), text.size());
    Queue(level, line);
}

void LogFn::SetReturnArgs(const char* format, ...) {
    va_list args;
    va_start(args, format);
    CaptureInto(m_returnArgs, format, args);
    va_end(args);
}

void LogFn::SetReturnResult(const char* format, ...) {
    va_list args;
    va_start(args, format);
    CaptureInto(m_returnResult, format, args);
    va_end(args);
}

} // namespace kt
