#pragma once

#include <cstddef>
#include <mutex>

namespace kt {

// Memory for the log's entries, in slots of one size, reused for as long as the
// log lives. A burst of entries followed by a drain would otherwise grow the
// producers' allocator arenas page by page and let the allocator hand the pages
// back to the system once the backlog is gone, so that every burst took page
// faults on the caller's path again. The pool grows by chunks up to kMaxSlots and
// keeps them until it is destroyed; entries that are larger, or that arrive while
// every slot is taken, use the C allocator as before.
class LogEntryPool {
public:
    static constexpr size_t kSlotSize = 256;
    static constexpr size_t kSlotsPerChunk = 256;
    static constexpr size_t kMaxChunks = 128;
    static constexpr size_t kMaxSlots = kSlotsPerChunk * kMaxChunks;

    // A batch of released slots, linked through their first bytes.
    struct Slot {
        Slot* next;
    };

    LogEntryPool() noexcept = default;
    ~LogEntryPool();
    LogEntryPool(const LogEntryPool&) = delete;
    LogEntryPool& operator=(const LogEntryPool&) = delete;

    // A slot for `size` bytes; null when the size does not fit a slot, or when
    // the pool is exhausted or cannot grow.
    void* Allocate(size_t size) noexcept;
    // Gives back a batch of slots from `first` to `last` (linked through Slot).
    void Release(Slot* first, Slot* last) noexcept;
    void Release(void* slot) noexcept {
        Slot* s = static_cast<Slot*>(slot);
        s->next = nullptr;
        Release(s, s);
    }

private:
    bool Grow() noexcept;

    // Held for a handful of instructions by producers taking a slot and by the
    // worker giving back a batch.
    std::mutex m_mutex;
    Slot* m_free = nullptr;
    size_t m_chunkCount = 0;
    void* m_chunks[kMaxChunks] = {};
};

} // namespace kt
