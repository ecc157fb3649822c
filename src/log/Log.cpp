#include "log/Log.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "log/ILogListener.h"
#include "log/LogCapture.h"
#include "log/LogUtils.h"

namespace kt {

std::atomic<bool> Log::m_inLibLoadUnload{false};

namespace {

// Every thread that logs reads its depth. The library is loaded with dlopen, and
// the C library allocates a thread's copy of such a library's dynamic TLS when the
// thread first touches it, ending the process if that fails; the static TLS that
// every thread gets at its creation costs nothing then and cannot fail.
__attribute__((tls_model("initial-exec"))) thread_local uint16_t t_depth = 0;

// Producers and the worker each hold the queue mutex for a few dozen
// instructions. Finding it taken, a thread that went to sleep at once would pay a
// system call and a trip through the scheduler, and make the holder pay another
// to wake it: microseconds for a wait of nanoseconds. So a locker first tries
// again a few times before it blocks. Only a few: every try takes the mutex's
// cache line away from the holder, which must fetch it back to unlock, and with
// two producers a longer spin kept that line travelling between the cores on
// nearly every entry (a median of 190 to 240 ns a call with 64 tries, 90 ns with 8).
constexpr int kLockSpins = 8;

constexpr size_t kReleaseBatch = 32;

// How long the worker waits for entries before it lets the listeners look after
// their destinations.
constexpr std::chrono::milliseconds kIdleTick{1000};

// How much of a taken batch the worker formats before it writes the first line,
// and the largest text buffer it keeps for the next batch.
constexpr size_t kFormatAheadBytes = 32 * 1024;
constexpr size_t kSpareBytes = 8 * 1024;

template <class Lockable>
void LockSpinning(Lockable& lockable) {
    for (int i = 0; i < kLockSpins; ++i) {
        if (lockable.try_lock()) {
            return;
        }
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    // std::mutex::lock reports a failing pthread_mutex_lock as std::system_error
    // carrying the error number.
    lockable.lock();
}

TimePoint Now() {
    return std::chrono::time_point_cast<std::chrono::nanoseconds>(
        std::chrono::system_clock::now());
}

} // namespace

// ---------------------------------------------------------------------------
// LockGuard

Log::LockGuard::LockGuard(std::mutex& mutex) : m_mutex(mutex), m_locked(false) {
    LockSpinning(m_mutex);
    m_locked = true;
}

Log::LockGuard::~LockGuard() {
    if (m_locked) {
        m_mutex.unlock();
    }
}

// ---------------------------------------------------------------------------
// LibInitHelper

Log::LibInitHelper::LibInitHelper(Type type, Mode mode) : m_type(type), m_mode(mode) {
    if (m_type == PreInit) {
        m_inLibLoadUnload.store(true);
    } else if (m_type == PostInit && m_mode == Immediate) {
        m_inLibLoadUnload.store(false);
    }
}

Log::LibInitHelper::~LibInitHelper() {
    if (m_type == PreInit || m_type == PostInit) {
        m_inLibLoadUnload.store(true);
    }
}

void Log::LibInitHelper::NotifyLibProcessAttachDone() {
    m_inLibLoadUnload.store(false);
}

void Log::LibInitHelper::NotifyLibProcessDetachDone() {
    m_inLibLoadUnload.store(true);
}

// ---------------------------------------------------------------------------
// Life cycle

Log::Log(LogEntry::Level maxLevel) : m_level(maxLevel) {}

Log::~Log() {
    try {
        Stop();
    } catch (...) {
        // A worker that cannot be stopped would run on a destroyed object.
        std::terminate();
    }
    FreeBlocks(m_returned);
}

bool Log::Start() {
    LockGuard lock(m_queueMutex);
    if (m_thread.load() != nullptr || m_stop) {
        return false;
    }
    std::thread* thread = new (std::nothrow) std::thread();
    if (thread == nullptr) {
        return false;
    }
    try {
        // The worker's first step takes m_queueMutex, so it waits until the
        // thread object is published below.
        *thread = std::thread(&Log::ThreadFunc, this);
    } catch (...) {
        delete thread;
        throw;
    }
    m_thread.store(thread, std::memory_order_release);
    return true;
}

void Log::Stop() {
    std::thread* thread = nullptr;
    {
        LockGuard lock(m_queueMutex);
        thread = m_thread.load();
        if (thread == nullptr) {
            return;
        }
        m_stop = true;
    }
    m_queueCond.notify_one();
    if (thread->joinable()) {
        thread->join();
    }
    delete thread;
    m_thread.store(nullptr);
}

// ---------------------------------------------------------------------------
// Producers

bool Log::StartLazily(bool answer) {
    if (m_inLibLoadUnload.load()) {
        return answer;
    }
    try {
        Start();
    } catch (...) {
        // The level test runs on the caller's path and must not throw. Entries
        // wait in the queue; the next level test tries to start the worker again.
    }
    return answer;
}

void Log::Enqueue(EntryPtr entry) {
    ReturnedBlock* returned = nullptr;
    bool wake = false;
    try {
        {
            LockGuard lock(m_queueMutex);
            ++m_producedTotal;
            if (m_dropping) {
                ++m_droppedCount;
                ++m_droppedTotal;
                return; // the entry is destroyed after the mutex is released
            }
            m_queue.push_back(std::move(entry));
            NoteQueueSize();
            wake = m_workerWaiting;
            for (int i = 0; i < 2 && m_returned != nullptr; ++i) {
                ReturnedBlock* block = m_returned;
                m_returned = block->next;
                block->next = returned;
                returned = block;
                m_returnedCount.store(m_returnedCount.load(std::memory_order_relaxed) - 1,
                                      std::memory_order_relaxed);
            }
        }
        // A worker that is not waiting finds the entry when it next looks at the
        // queue (under the mutex), so only a waiting one needs the signal.
        if (wake) {
            m_queueCond.notify_one();
        }
    } catch (...) {
        // Logging never throws on the caller's path; an entry that finds no room
        // in the queue is lost.
        CountLost(1);
    }
    FreeBlocks(returned);
}

void Log::FreeBlocks(ReturnedBlock* blocks) noexcept {
    while (blocks != nullptr) {
        ReturnedBlock* next = blocks->next;
        std::free(blocks);
        blocks = next;
    }
}

bool Log::CountIfDropping() {
    if (!m_droppingHint.load(std::memory_order_relaxed)) {
        return false;
    }
    try {
        LockGuard lock(m_queueMutex);
        if (m_dropping) {
            ++m_droppedCount;
            ++m_droppedTotal;
            ++m_producedTotal;
            return true;
        }
    } catch (...) {
        return true; // a mutex that cannot be taken: the entry is lost
    }
    return false;
}

void Log::AddEntry(const char* category, LogEntry::Level level, std::string message) {
    try {
        EntryPtr entry(
            new (std::nothrow) LogEntry(category, level, GetThreadDepth(), std::move(message)));
        if (!entry) {
            return;
        }
        Enqueue(std::move(entry));
    } catch (...) {
        // Logging never throws on the caller's path; a message that cannot be
        // allocated is lost.
    }
}

void Log::AddEntry(const char* category, LogEntry::Level level, const LogCapture& message,
                   const TimePoint* time) noexcept {
    if (CountIfDropping()) {
        return;
    }
    EntryPtr entry(LogEntry::Create(category, level, GetThreadDepth(), message, time, &m_pool));
    if (entry) {
        Enqueue(std::move(entry));
    }
}

void Log::AddEntry(const char* category, LogEntry::Level level, const char* format,
                   va_list args) {
    if (!WillBeLogged(level) || CountIfDropping()) {
        return;
    }
    LogCapture message;
    if (message.AddFormat(format, args)) {
        AddEntry(category, level, message);
    }
}

void Log::AddEntry(const char* category, LogEntry::Level level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    AddEntry(category, level, format, args);
    va_end(args);
}

// ---------------------------------------------------------------------------
// Listeners

bool Log::AddListener(const std::weak_ptr<ILogListener>& listener) {
    const std::shared_ptr<ILogListener> candidate = listener.lock();
    if (!candidate) {
        return false;
    }
    LockGuard lock(m_listenersMutex);
    for (const auto& registered : m_listeners) {
        if (registered.lock() == candidate) {
            return false;
        }
    }
    try {
        m_listeners.push_back(listener);
    } catch (const std::bad_alloc&) {
        return false;
    }
    m_hasListeners.store(!m_listeners.empty());
    return true;
}

bool Log::RemoveListener(const std::weak_ptr<ILogListener>& listener) {
    const std::shared_ptr<ILogListener> candidate = listener.lock();
    if (!candidate) {
        return false;
    }
    LockGuard lock(m_listenersMutex);
    for (auto it = m_listeners.begin(); it != m_listeners.end(); ++it) {
        if (it->lock() == candidate) {
            m_listeners.erase(it);
            m_hasListeners.store(!m_listeners.empty());
            return true;
        }
    }
    return false;
}

// Inlined into the worker's loop: each line's write() is a system call, after
// which every call level still open on the way back to the loop costs a return
// that the processor no longer predicts, and this one need not be open.
__attribute__((always_inline)) inline void Log::NotifyListeners(const LogEntry& entry) {
    LockGuard lock(m_listenersMutex);
    size_t i = 0;
    while (i < m_listeners.size()) {
        const std::shared_ptr<ILogListener> listener = m_listeners[i].lock();
        if (!listener) {
            // A dead listener is pruned in place; the others keep their order.
            m_listeners.erase(m_listeners.begin() + static_cast<std::ptrdiff_t>(i));
            continue;
        }
        try {
            listener->OnLogEntryAdded(entry);
        } catch (...) {
            // One failing sink must neither stop the worker nor starve the others.
        }
        ++i;
    }
}

void Log::NotifyListenersIdle() {
    try {
        LockGuard lock(m_listenersMutex);
        for (const auto& registered : m_listeners) {
            if (const std::shared_ptr<ILogListener> listener = registered.lock()) {
                listener->OnLogIdle();
            }
        }
    } catch (...) {
        // Housekeeping only: the next idle turn tries again.
    }
}

// ---------------------------------------------------------------------------
// Worker

void Log::QueueOverloadReport(const TimePoint& overloadStart) {
    const auto elapsedUs = static_cast<unsigned long long>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Now() - overloadStart).count() /
        1000);
    try {
        std::string text = "Too many messages in log queue, " + std::to_string(m_droppedCount) +
                           " new messages dropped during " + std::to_string(elapsedUs) +
                           "us while processing the queue";
        EntryPtr report(new (std::nothrow) LogEntry("***", LogEntry::Warning, 0, std::move(text)));
        if (report) {
            m_queue.push_back(std::move(report));
            NoteQueueSize();
            ++m_reportsTotal;
        }
    } catch (...) {
        // The report is lost; the overload state is left all the same.
    }
    m_dropping = false;
    m_droppingHint.store(false, std::memory_order_relaxed);
    m_droppedCount = 0;
}

bool Log::OverloadedAfterTaking(size_t index) {
    // The entries taken after this one are still queued.
    return m_queue.size() + (m_takenCount - index - 1) > kOverloadThreshold;
}

void Log::ThreadFunc() {
    std::unique_lock<std::mutex> lock(m_queueMutex, std::defer_lock);
    LockSpinning(lock);
    TimePoint overloadStart = Now();
    // Delivered entries' slots go back to the pool in batches: one exchange on the
    // pool's top for many entries, and their links written together.
    LogEntryPool::SlotId released[kReleaseBatch];
    size_t releasedCount = 0;
    const auto releaseBatch = [&] {
        if (releasedCount != 0) {
            m_pool.Release(released, releasedCount);
            releasedCount = 0;
        }
    };
    // Memory of the C allocator on its way back to the producers (see m_returned),
    // handed over under the mutex once the taken entries are delivered.
    ReturnedBlock* returned = nullptr;
    ReturnedBlock* returnedLast = nullptr;
    size_t returnedCount = 0;
    // The taken entries' texts borrow these buffers while they are formatted and
    // delivered, and hand them back: after the first batches formatting allocates
    // nothing. A buffer that a long line (a large dump) grew is not kept, so the
    // worker never sits on megabytes for the rare long line.
    std::string lines[kTakeBatch];
    std::string messages[kTakeBatch];
    bool formatted[kTakeBatch];
    // An entry that a flush discarded before it was formatted never borrowed its
    // buffer, and gives back none.
    const auto keep = [](std::string& spare, std::string&& text) {
        if (text.capacity() <= kSpareBytes && text.capacity() >= spare.capacity()) {
            spare = std::move(text);
        }
    };
    const auto format = [&](size_t i) {
        LogEntry& entry = *m_taken[i];
        entry.m_formattedMessage = std::move(lines[i]);
        if (entry.IsCaptured()) {
            entry.m_message = std::move(messages[i]);
        }
        try {
            entry.FormatMessage();
            formatted[i] = true;
            return entry.m_formattedMessage.size();
        } catch (...) {
            // An entry that cannot be formatted is skipped; the worker goes on.
            formatted[i] = false;
            return size_t{0};
        }
    };
    const auto destroy = [&](EntryPtr& owned, size_t i) {
        LogEntry* entry = owned.release();
        keep(lines[i], std::move(entry->m_formattedMessage));
        if (entry->IsCaptured()) {
            keep(messages[i], std::move(entry->m_message));
        }
        const bool pooled = entry->Pool() == &m_pool;
        const LogEntryPool::SlotId slot = entry->PoolSlot();
        entry->~LogEntry();
        if (pooled) {
            released[releasedCount++] = slot;
            if (releasedCount == kReleaseBatch) {
                releaseBatch();
            }
        } else if (m_returnedCount.load(std::memory_order_relaxed) + returnedCount >= kMaxReturned) {
            // Producers have not been back for a long while: free it here.
            std::free(entry);
        } else {
            returned = new (static_cast<void*>(entry)) ReturnedBlock{returned};
            returnedLast = returnedLast != nullptr ? returnedLast : returned;
            ++returnedCount;
        }
    };
    while (!m_stop) {
        if (returned != nullptr) {
            returnedLast->next = m_returned;
            m_returned = returned;
            m_returnedCount.store(m_returnedCount.load(std::memory_order_relaxed) + returnedCount,
                                  std::memory_order_relaxed);
            returned = returnedLast = nullptr;
            returnedCount = 0;
        }
        if (m_queue.empty()) {
            if (m_dropping) {
                QueueOverloadReport(overloadStart);
                continue;
            }
            releaseBatch();
            m_drainedCond.notify_all();
            m_workerWaiting = true;
            const bool woken = m_queueCond.wait_for(lock, kIdleTick,
                                                    [this] { return m_stop || !m_queue.empty(); });
            m_workerWaiting = false;
            if (m_stop) {
                break;
            }
            if (!woken) {
                // Nothing came for a while: the listeners may look after their
                // destinations (a file renamed or deleted by another program).
                lock.unlock();
                NotifyListenersIdle();
                LockSpinning(lock);
                continue;
            }
        }
        const size_t taken = std::min(m_queue.size(), kTakeBatch);
        for (size_t i = 0; i < taken; ++i) {
            m_taken[i] = std::move(m_queue.front());
            m_queue.pop_front();
        }
        m_takenCount = taken;
        m_takenNext.store(0, std::memory_order_relaxed);
        NoteQueueSize();
        m_delivering = true;
        lock.unlock();
        // The batch is formatted before its first line is written: each write is
        // a system call that leaves the caches and the address translations colder
        // than it found them, and formatting between two writes would meet the
        // entries, the format tables and their code cold each time. Long lines are
        // the exception: formatted ahead they would no longer be in the cache when
        // written, so formatting ahead stops once the batch's lines fill
        // kFormatAheadBytes, and the rest is formatted just before it is written.
        // An entry that a flush discards meanwhile was formatted for nothing,
        // which costs only time.
        size_t ready = 0;
        for (size_t bytes = 0; ready < taken && bytes < kFormatAheadBytes &&
                               !m_stop.load(std::memory_order_relaxed);
             ++ready) {
            bytes += format(ready);
        }
        for (;;) {
            if (m_stop.load(std::memory_order_relaxed)) {
                break; // what is left is destroyed with the log
            }
            const size_t index = m_takenNext.fetch_add(1, std::memory_order_relaxed);
            if (index >= taken) {
                break; // all delivered, or a flush discarded the rest
            }
            // Each taken entry leaves the queue only now, and the overload rule
            // looks at what its removal leaves, as it would have one by one.
            if (m_nearThreshold.load(std::memory_order_relaxed)) {
                LockSpinning(lock);
                if (OverloadedAfterTaking(index)) {
                    m_dropping = true;
                    m_droppingHint.store(true, std::memory_order_relaxed);
                    overloadStart = Now();
                }
                lock.unlock();
            }
            if (index >= ready) {
                format(index);
                ready = index + 1;
            }
            if (!formatted[index]) {
                CountLost(1);
                continue;
            }
            try {
                NotifyListeners(*m_taken[index]);
            } catch (...) {
                CountLost(1); // the listeners' mutex could not be taken
            }
        }
        if (!m_stop.load(std::memory_order_relaxed)) {
            // Delivered and discarded alike: a flush only counts what it discards
            // and leaves the entries to the worker, which may be formatting them.
            for (size_t i = 0; i < taken; ++i) {
                destroy(m_taken[i], i);
            }
        }
        LockSpinning(lock);
        m_delivering = false;
    }
    lock.unlock();
    releaseBatch();
    FreeBlocks(returned);
    m_drainedCond.notify_all();
}

// ---------------------------------------------------------------------------
// Flush

uint64_t Log::Flush(uint64_t timeLimitMs) {
    if (!WillBeLogged(m_level)) {
        return 0;
    }
    std::deque<EntryPtr> discarded;
    uint64_t count = 0;
    {
        std::unique_lock<std::mutex> lock(m_queueMutex);
        const auto start = std::chrono::system_clock::now();
        if (!IsDrained()) {
            if (timeLimitMs == 0) {
                // Without a worker (still in the load phase) nothing would ever
                // drain the queue; an unlimited wait would hang the caller.
                if (m_thread.load() != nullptr) {
                    m_drainedCond.wait(lock, [this] { return m_stop || IsDrained(); });
                }
            } else if (!m_stop) {
                const auto deadline = start + std::chrono::milliseconds(timeLimitMs);
                for (;;) {
                    m_drainedCond.wait_until(lock, deadline);
                    if (std::chrono::system_clock::now() >= deadline || m_stop) {
                        break;
                    }
                    if (IsDrained()) {
                        break;
                    }
                }
            }
        }
        count = m_queue.size();
        discarded.swap(m_queue);
        NoteQueueSize();
        count += DiscardTaken();
        m_discardedTotal += count;
    }
    // What is left is never delivered; it is freed outside the lock so that
    // producers are not held up by a large backlog.
    return count;
}

uint64_t Log::DiscardTaken() {
    // From here on the worker's claims fail: it delivers nothing more of what it
    // has taken (at most the entry it is delivering now), and destroys the rest.
    const size_t next = m_takenNext.exchange(kTakeBatch, std::memory_order_relaxed);
    return next < m_takenCount ? m_takenCount - next : 0;
}

Log::Counts Log::GetCounts() {
    std::lock_guard<std::mutex> lock(m_queueMutex);
    return Counts{m_producedTotal, m_droppedTotal, m_discardedTotal, m_lostTotal.load(),
                  m_reportsTotal};
}

// ---------------------------------------------------------------------------
// Per-thread depth

uint16_t& Log::GetThreadDepth() {
    return t_depth;
}

void Log::IncreaseThreadDepth() {
    ++t_depth;
}

bool Log::DecreaseThreadDepth() {
    if (t_depth == 0) {
        return false;
    }
    --t_depth;
    return true;
}

} // namespace kt
