#pragma once

#include <memory>

#include "log/Log.h"

namespace kt {

class LogSetup {
public:
    explicit LogSetup(const char* levelText);
    virtual ~LogSetup();
    bool Initialize(const char* levelText);
    std::shared_ptr<Log> GetLog() const;
    // Lets the callers' fast path test for a log without touching its reference count.
    bool HasLog() const noexcept { return static_cast<bool>(m_log); }
    // The log without a new reference, for users that the set-up outlives.
    Log* PeekLog() const noexcept { return m_log.get(); }

protected:
    std::shared_ptr<Log> m_log;
};

} // namespace kt
