#pragma once

namespace kt {

class LogEntry;

// What the log's worker calls for every delivered entry, after the entry's output
// line has been formatted. Listeners are held by weak reference and never deleted
// through this interface, hence no virtual destructor.
class ILogListener {
public:
    virtual void OnLogEntryAdded(const LogEntry& entry) = 0;
    // Called by the worker when no entry has come for a while (about a second), so
    // that a listener can look after its destination while nothing is written.
    virtual void OnLogIdle() {}

protected:
    ~ILogListener() = default;
};

} // namespace kt
