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

protected:
    std::shared_ptr<Log> m_log;
};

} // namespace kt
