#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log/LogEntry.h"
#include "log/LogEntryPool.h"

namespace kt {

class ILogListener;
class LogCapture;

// Asynchronous log: callers queue entries, one lazily started worker formats
// and delivers them to the registered listeners.
class Log {
public:
    static constexpr size_t kOverloadThreshold = 50000;

    class LockGuard {
    public:
        explicit LockGuard(std::mutex& mutex);
        ~LockGuard();
        LockGuard(const LockGuard&) = delete;
        LockGuard& operator=(const LockGuard&) = delete;

    private:
        std::mutex& m_mutex;
        bool m_locked;
    };

    class LibInitHelper {
    public:
        enum Type : int32_t { PreInit = 0, PostInit = 1 };
        enum Mode : int32_t { Immediate = 0, Notified = 1 };
        LibInitHelper(Type type, Mode mode);
        ~LibInitHelper();
        static void NotifyLibProcessAttachDone();
        static void NotifyLibProcessDetachDone();

        Type m_type;
        Mode m_mode;
    };

    explicit Log(LogEntry::Level maxLevel);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    bool Start();
    void Stop();
    // Every logging call passes here first, so the answer for a running log is
    // inline: two loads and a comparison.
    bool WillBeLogged(LogEntry::Level level) {
        if (!m_hasListeners.load()) {
            return false;
        }
        const bool answer = level <= m_level;
        if (m_thread.load(std::memory_order_acquire) != nullptr) {
            return answer;
        }
        return StartLazily(answer);
    }
    void AddEntry(const char* category, LogEntry::Level level, std::string message);
    // The format must have static storage duration: the worker formats it later.
    void AddEntry(const char* category, LogEntry::Level level, const char* format, va_list args);
    void AddEntry(const char* category, LogEntry::Level level, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    // Queues an entry whose message the worker renders from the capture, without
    // testing the level (callers test first). The entry's time is now, or the given
    // one when the caller has just read the clock.
    void AddEntry(const char* category, LogEntry::Level level, const LogCapture& message,
                  const TimePoint* time = nullptr) noexcept;
    bool AddListener(const std::weak_ptr<ILogListener>& listener);
    bool RemoveListener(const std::weak_ptr<ILogListener>& listener);
    uint64_t Flush(uint64_t timeLimitMs);

    // Where every entry that callers handed over went, so that a long run can
    // account for each line: produced = dropped (while overloaded) + queued, and
    // each queued entry is delivered, discarded by a flush or lost on the way (it
    // could not be queued or formatted, or a sink could not keep it).
    // The overload reports, which the log queues itself, are counted apart.
    struct Counts {
        uint64_t produced, dropped, discarded, lost, reports;
    };
    Counts GetCounts();
    // A listener's word that it could not keep a delivered entry (a full disk).
    void CountLost(uint64_t entries) noexcept { m_lostTotal.fetch_add(entries); }

    static uint16_t& GetThreadDepth();
    static void IncreaseThreadDepth();
    static bool DecreaseThreadDepth();

private:
    bool StartLazily(bool answer);
    using EntryPtr = std::unique_ptr<LogEntry, LogEntry::Deleter>;
    // Appends the entry, or counts and destroys it while the log drops.
    void Enqueue(EntryPtr entry);
    struct ReturnedBlock;
    static void FreeBlocks(ReturnedBlock* blocks) noexcept;
    // While the log drops, counts the caller's entry before it is even captured
    // and returns true; false means the entry is to be made and queued.
    bool CountIfDropping();
    void NotifyListeners(const LogEntry& entry);
    void NotifyListenersIdle();
    void ThreadFunc();
    void QueueOverloadReport(const TimePoint& overloadStart);
    bool IsDrained() const { return m_queue.empty() && !m_delivering; }
    // Keeps m_nearThreshold in step with the queue's size (under m_queueMutex).
    void NoteQueueSize() {
        const bool near = m_queue.size() > kOverloadThreshold - kTakeBatch;
        if (m_nearThreshold.load(std::memory_order_relaxed) != near) {
            m_nearThreshold.store(near, std::memory_order_relaxed);
        }
    }
    // Whether the removal of the taken entry at `index` leaves the log overloaded.
    bool OverloadedAfterTaking(size_t index);
    // Counts what the worker has taken and not yet begun to deliver, and keeps it
    // from being delivered (under m_queueMutex).
    uint64_t DiscardTaken();

    // The members fall into groups by who writes them how often, each group on
    // cache lines of its own (kLine): a line that one core writes for every entry
    // and the other reads for every entry travels between them each time, and a
    // logging call paid several such trips, each longer than the rest of the call.
    // The group that producers read on every call is written almost never.
    static constexpr size_t kLine = 64;

    // Read on every call; written when a listener comes or goes.
    LogEntry::Level m_level;
    std::atomic<bool> m_hasListeners{false};
    // Read without the queue mutex by the level test on every logging call, so it
    // is atomic; created and cleared under m_queueMutex.
    std::atomic<std::thread*> m_thread{nullptr};
    // m_dropping for a look without the mutex: while the log drops, a caller
    // counts its entry without capturing it first.
    std::atomic<bool> m_droppingHint{false};
    // Whether the queue holds so many entries that the overload rule may apply to
    // the worker's next removal: below it, the queue and the taken entries together
    // stay within the threshold, and the worker need not look at the queue's size.
    std::atomic<bool> m_nearThreshold{false};
    // Set under m_queueMutex; atomic because the worker also looks at it between
    // taken entries, without the mutex.
    std::atomic<bool> m_stop{false};

    // The worker's, for every entry it delivers.
    alignas(kLine) std::vector<std::weak_ptr<ILogListener>> m_listeners;
    std::mutex m_listenersMutex;
    // The worker takes entries off the queue several at a time, so that it takes
    // the queue mutex once for many entries rather than for each: every time it
    // takes it, the producers' next lock finds the mutex's cache line on the other
    // core. Taken entries still count as queued: for the overload rule, for a flush
    // that discards what is left, and for Stop, which ends the delivery after the
    // entry at hand. The entries belong to the worker, which destroys them after
    // the batch; m_takenCount is guarded by m_queueMutex, and each entry from
    // m_takenNext on is claimed by one fetch_add, by the worker to deliver it or by
    // a flush to discard the rest, so a discarded entry is never delivered.
    static constexpr size_t kTakeBatch = 32;
    std::atomic<size_t> m_takenNext{0};
    size_t m_takenCount = 0;
    std::atomic<uint64_t> m_lostTotal{0};

    // Declared before the queue and the taken entries, so that entries still held
    // when the log is destroyed give their memory back before the pool frees it.
    // Its top sits on a line of its own.
    LogEntryPool m_pool;
    alignas(kLine) EntryPtr m_taken[kTakeBatch];
    static_assert(LogEntryPool::kMaxSlots > kOverloadThreshold + kTakeBatch + 1,
                  "a full queue and a taken batch fit the pool");

    // The producers', under the queue mutex, for every entry; the worker's once a
    // batch.
    alignas(kLine) std::mutex m_queueMutex;
    std::deque<EntryPtr> m_queue;
    bool m_dropping = false;
    // True while the worker delivers the entries it has taken off the queue: a flush
    // must not report an empty queue while the last line is still being written.
    bool m_delivering = false;
    // True while the worker waits for entries (guarded by m_queueMutex).
    bool m_workerWaiting = false;
    uint64_t m_droppedCount = 0;
    // Since the log was made, for GetCounts (guarded by m_queueMutex, except the
    // losses, which the worker and the sinks report without it).
    uint64_t m_producedTotal = 0, m_droppedTotal = 0, m_discardedTotal = 0, m_reportsTotal = 0;

    // The memory of delivered entries that the pool did not hold (long ones) on its
    // way back: the worker leaves it here and a producer frees it, at most two
    // blocks a call, after it has queued its own entry. Freeing then lands in the
    // producing thread's allocator cache, where its next long entry is allocated,
    // and the worker never contends with producers for the allocator's locks.
    // Guarded by m_queueMutex; the count is also read without it, as a hint.
    struct ReturnedBlock {
        ReturnedBlock* next;
    };
    static constexpr size_t kMaxReturned = 1024;
    ReturnedBlock* m_returned = nullptr;
    std::atomic<size_t> m_returnedCount{0};

    // Written when the worker waits or a flush waits, which a burst never does.
    alignas(kLine) std::condition_variable m_queueCond;
    std::condition_variable m_drainedCond;

    static std::atomic<bool> m_inLibLoadUnload;
};

} // namespace kt
