#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <string>

#include "log/LogEntryPool.h"
#include "log/LogUtils.h"

namespace kt {

class LogCapture;

// One logged record; the worker turns it into the output line that the sinks write.
//
// An entry made from a capture (Create) carries the captured message in the same
// allocation, right behind the object, and has no text until the worker's
// FormatMessage renders it into m_message. Entries are allocated with the C
// allocator, so that creating one never throws.
class LogEntry {
public:
    enum Level : int32_t { Error = 0, Warning = 1, Info = 2, Debug = 3, Trace = 4 };

    LogEntry(const char* category, Level level, uint16_t depth, std::string message);
    // A copy holds the texts only, never the captured bytes behind the original:
    // sinks copy entries after the worker has formatted them.
    LogEntry(const LogEntry& other);
    LogEntry& operator=(const LogEntry& other);

    // An entry whose message is the capture's; null when memory ran out. The time
    // is now, or the given one when the caller has just read the clock itself.
    // The memory comes from the pool when the entry fits one of its slots.
    static LogEntry* Create(const char* category, Level level, uint16_t depth,
                            const LogCapture& message, const TimePoint* time = nullptr,
                            LogEntryPool* pool = nullptr) noexcept;
    // Destroys an entry and gives its memory back where it came from.
    static void Destroy(LogEntry* entry) noexcept;
    struct Deleter {
        void operator()(LogEntry* entry) const noexcept { Destroy(entry); }
    };

    LogEntry& FormatMessage();
    // Whether the message is rendered from a capture by FormatMessage.
    bool IsCaptured() const noexcept { return m_captureSize != 0; }
    const LogEntryPool* Pool() const noexcept { return m_pool; }
    LogEntryPool::SlotId PoolSlot() const noexcept { return m_poolSlot; }

    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void* operator new(std::size_t size, void* where) noexcept { (void)size; return where; }
    static void operator delete(void* p) noexcept;
    static void operator delete(void* p, const std::nothrow_t&) noexcept;
    static void operator delete(void*, void*) noexcept {}

    std::string m_formattedMessage;
    char m_levelChar;
    std::string m_category;
    Level m_level;
    uint32_t m_pid;
    uint32_t m_tid;

private:
    // Where m_pool holds the entry; declared here, where it fills what would
    // otherwise be padding, so that the captured bytes keep their room in a slot.
    LogEntryPool::SlotId m_poolSlot = 0;

public:
    TimePoint m_time;
    uint16_t m_depth;
    std::string m_message;

private:
    LogEntry(const char* category, Level level, uint16_t depth, size_t captureSize,
             const TimePoint* time);
    const unsigned char* Capture() const noexcept {
        return reinterpret_cast<const unsigned char*>(this + 1);
    }

    // Bytes of the captured message behind the object; 0 for an entry made with
    // its text.
    size_t m_captureSize = 0;
    // The pool that owns the entry's memory; null for the C allocator.
    LogEntryPool* m_pool = nullptr;
};

} // namespace kt
