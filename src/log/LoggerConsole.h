#pragma once

#include <memory>

#include "log/ILogListener.h"
#include "log/Logger.h"

namespace kt {

// Writes each entry as "[L] message" to standard error (errors) or standard
// output (everything else), with a header and footer block on standard output.
class LoggerConsole : public Logger, public ILogListener {
public:
    explicit LoggerConsole(std::shared_ptr<Log> log);
    ~LoggerConsole() override;

    void OnLogEntryAdded(const LogEntry& entry) override;

private:
    // Only a handle for the log's weak reference; the sink's real owner is
    // whoever created it, so the deleter does nothing.
    std::shared_ptr<ILogListener> m_selfListener;
};

} // namespace kt
