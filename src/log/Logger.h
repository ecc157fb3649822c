#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kt {

class Log;

// Base of the sinks: binds a sink to the log it serves. An empty log makes the
// sink inert.
class Logger {
public:
    explicit Logger(std::shared_ptr<Log> log);
    virtual ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

protected:
    // The header and footer blocks that frame a sink's output.
    static std::string HeaderBlock();
    static std::string FooterBlock(uint64_t droppedCount);

    std::shared_ptr<Log> m_log;
};

} // namespace kt
