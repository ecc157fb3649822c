#include "log/LogEntryPool.h"

#include <cstdlib>

#include "log/Log.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define TAVIK_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define TAVIK_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define TAVIK_POISON(p, n) ((void)(p), (void)(n))
#define TAVIK_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace kt {

namespace {

// A free slot keeps its link readable and the rest poisoned, so that AddressSanitizer
// still reports a use of an entry after its memory went back to the pool.
void PoisonSlot(LogEntryPool::Slot* slot) {
    TAVIK_POISON(reinterpret_cast<unsigned char*>(slot) + sizeof(LogEntryPool::Slot),
                 LogEntryPool::kSlotSize - sizeof(LogEntryPool::Slot));
}

} // namespace

LogEntryPool::~LogEntryPool() {
    for (size_t i = 0; i < m_chunkCount; ++i) {
        TAVIK_UNPOISON(m_chunks[i], kSlotSize * kSlotsPerChunk);
        std::free(m_chunks[i]);
    }
}

bool LogEntryPool::Grow() noexcept {
    if (m_chunkCount == kMaxChunks) {
        return false;
    }
    auto* chunk = static_cast<unsigned char*>(std::malloc(kSlotSize * kSlotsPerChunk));
    if (chunk == nullptr) {
        return false;
    }
    m_chunks[m_chunkCount++] = chunk;
    for (size_t i = kSlotsPerChunk; i-- > 0;) {
        Slot* slot = reinterpret_cast<Slot*>(chunk + i * kSlotSize);
        slot->next = m_free;
        m_free = slot;
        PoisonSlot(slot);
    }
    return true;
}

void* LogEntryPool::Allocate(size_t size) noexcept {
    if (size > kSlotSize) {
        return nullptr;
    }
    try {
        Log::LockGuard lock(m_mutex);
        if (m_free == nullptr && !Grow()) {
            return nullptr;
        }
        Slot* slot = m_free;
        m_free = slot->next;
        TAVIK_UNPOISON(slot, kSlotSize);
        return slot;
    } catch (...) {
        return nullptr; // a mutex that cannot be taken: the caller allocates
    }
}

void LogEntryPool::Release(Slot* first, Slot* last) noexcept {
#if defined(__SANITIZE_ADDRESS__)
    for (Slot* slot = first; slot != last; slot = slot->next) {
        PoisonSlot(slot);
    }
    PoisonSlot(last);
#endif
    try {
        Log::LockGuard lock(m_mutex);
        last->next = m_free;
        m_free = first;
    } catch (...) {
        // The slots stay unused until the pool frees their chunks.
    }
}

} // namespace kt
