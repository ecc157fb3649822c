#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "log/Log.h"
#include "log/LogCapture.h"
#include "log/LogEntry.h"

namespace kt {

// Function-scope trace: an ENTER line on entry, a RETURN line with result,
// return values and elapsed microseconds when it is destroyed.
//
// Every line is captured, not formatted: the arguments are copied into the entry
// and the log's worker makes the text. The function signature is kept by address,
// in the trace and in each of its entries, so it must be a text of static storage
// duration (the library passes literals); the category is copied into each entry.
class LogFn {
public:
    // Inline, like the destructor: a call whose trace is filtered out pays for a
    // few stores and level tests, and reads no clock.
    LogFn(std::shared_ptr<Log> log, const char* category, const char* function)
        : m_startTime(),
          m_log(std::move(log)),
          m_category(category != nullptr && category[0] != '\0' ? category : "???"),
          m_function(function != nullptr ? function : NullFunction()),
          m_traced(m_log && m_log->WillBeLogged(LogEntry::Trace)) {
        if (m_traced) {
            m_startTime = Now();
        }
    }
    ~LogFn() {
        if (m_traced) {
            LogReturn();
        }
    }
    LogFn(const LogFn&) = delete;
    LogFn& operator=(const LogFn&) = delete;

    // The log's answer for Trace, taken once when the trace began: an operation
    // asks it before its enter line, its return values and its result, and at its
    // end, and the answer cannot change during a call (the log's level is fixed;
    // a sink that comes or goes meanwhile changes nothing for a call under way,
    // which would otherwise write a return line timed from a start never taken).
    bool WillBeLogged() const { return m_traced; }
    bool WillBeLogged(LogEntry::Level level) const {
        return m_log && m_log->WillBeLogged(level);
    }
    void LogEnterMessage(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void DoLogEnterMessage(const std::string& args);
    void LogMessage(LogEntry::Level level, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    // A message followed by the bytes as a hex dump ("0x01,0x02,..."); the bytes
    // are copied raw and turned into text by the worker.
    void LogDumpMessage(LogEntry::Level level, const unsigned char* data, unsigned long size,
                        const char* format, ...) __attribute__((format(printf, 5, 6)));
    void DoLogMessage(LogEntry::Level level, const std::string& text);
    void SetReturnArgs(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void SetReturnResult(const char* format, ...) __attribute__((format(printf, 2, 3)));

private:
    [[noreturn]] static const char* NullFunction();
    static TimePoint Now() noexcept;
    void LogReturn() noexcept;
    // Starts a line with "<function>: ".
    void BeginLine(LogCapture& line) const noexcept;
    void Queue(LogEntry::Level level, const LogCapture& line,
               const TimePoint* time = nullptr) const noexcept;
    bool CaptureInto(LogCapture& target, const char* format, va_list args) noexcept;
    // One message line, with the bytes as a dump behind it when withDump is set.
    void CaptureAndQueue(LogEntry::Level level, const char* format, va_list args, bool withDump,
                         const unsigned char* data, unsigned long size);

    TimePoint m_startTime;
    std::shared_ptr<Log> m_log;
    const char* m_category;
    const char* m_function;
    bool m_entered = false;
    LogCapture m_returnArgs;
    LogCapture m_returnResult;
    bool m_traced;
};

// Room for one trace object in the caller's frame, empty when the library has no
// log: what the library's operations keep their trace in, so that a trace costs
// no allocation. Used like a pointer.
class LogFnSlot {
public:
    // User-provided, so that an empty slot is not zero-filled: every untraced
    // operation makes one, and its storage is a few hundred bytes.
    LogFnSlot() noexcept {}
    // A trace over a log that outlives it (the set-up's), borrowed without
    // touching its reference count.
    LogFnSlot(Log* log, const char* category, const char* function) noexcept {
        if (log != nullptr && function != nullptr) {
            // An aliasing pointer without an owner: no reference count is touched,
            // on the promise that the log outlives the call.
            new (m_storage)
                LogFn(std::shared_ptr<Log>(std::shared_ptr<Log>(), log), category, function);
            m_engaged = true;
        }
    }
    ~LogFnSlot() {
        if (m_engaged) {
            get()->~LogFn();
        }
    }
    LogFnSlot(const LogFnSlot&) = delete;
    LogFnSlot& operator=(const LogFnSlot&) = delete;

    explicit operator bool() const noexcept { return m_engaged; }
    friend bool operator==(const LogFnSlot& slot, std::nullptr_t) noexcept { return !slot.m_engaged; }
    friend bool operator!=(const LogFnSlot& slot, std::nullptr_t) noexcept { return slot.m_engaged; }
    LogFn* get() noexcept { return m_engaged ? reinterpret_cast<LogFn*>(m_storage) : nullptr; }
    LogFn* operator->() noexcept { return get(); }

private:
    alignas(LogFn) unsigned char m_storage[sizeof(LogFn)];
    bool m_engaged = false;
};

} // namespace kt
