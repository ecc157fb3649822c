#include "log/LogEntryPool.h"

#include <sys/mman.h>

#include <cstdlib>
#include <new>

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

// The slot that the next entry will most likely take was last written by the
// worker, which formats into it and empties it, so its lines sit modified in the
// other core's cache, and every store of the entry's construction would wait for
// one of them to come over. Asked for now, they travel while this entry is made
// and its call goes on.
void PrefetchForWrite(const unsigned char* slot) noexcept {
    for (size_t offset = 0; offset < LogEntryPool::kSlotSize; offset += 64) {
#if defined(__x86_64__)
        asm volatile("prefetchw %0" : : "m"(slot[offset]));
#else
        __builtin_prefetch(slot + offset, 1);
#endif
    }
}

} // namespace

// A free slot is poisoned whole (its link is elsewhere), so that AddressSanitizer
// still reports a use of an entry after its memory went back to the pool.

LogEntryPool::~LogEntryPool() {
    const size_t count = m_chunkCount.load(std::memory_order_relaxed);
    for (size_t i = 0; i < count; ++i) {
        TAVIK_UNPOISON(m_chunks[i], kSlotBytes);
    }
    std::free(m_chunks[0]);
    for (unsigned char* block : m_blocks) {
        std::free(block);
    }
}

unsigned char* LogEntryPool::ChunkMemory(size_t index) noexcept {
    if (index == 0) {
        return static_cast<unsigned char*>(std::malloc(kChunkBytes));
    }
    const size_t block = (index - 1) / kChunksPerBlock;
    if (m_blocks[block] == nullptr) {
        void* memory = std::aligned_alloc(kBlockBytes, kBlockBytes);
        if (memory == nullptr) {
            return nullptr;
        }
        // Where the kernel makes huge pages only when asked (or never), this is
        // the ask (or a harmless failure): a block then costs one fault, not 512.
        ::madvise(memory, kBlockBytes, MADV_HUGEPAGE);
        m_blocks[block] = static_cast<unsigned char*>(memory);
    }
    return m_blocks[block] + (index - 1) % kChunksPerBlock * kChunkBytes;
}

bool LogEntryPool::Grow() noexcept {
    if (m_chunkCount.load(std::memory_order_relaxed) == kMaxChunks) {
        return false; // at its bound: no need to wait for the lock to learn it
    }
    try {
        Log::LockGuard lock(m_growMutex);
        if (static_cast<uint32_t>(m_top.load(std::memory_order_acquire)) != 0) {
            return true; // another producer grew the pool, or slots came back
        }
        const size_t index = m_chunkCount.load(std::memory_order_relaxed);
        if (index == kMaxChunks) {
            return false;
        }
        unsigned char* chunk = ChunkMemory(index);
        if (chunk == nullptr) {
            return false;
        }
        auto* links = reinterpret_cast<std::atomic<uint32_t>*>(chunk + kSlotBytes);
        const auto first = static_cast<SlotId>(index * kSlotsPerChunk);
        for (size_t i = 0; i < kSlotsPerChunk; ++i) {
            // Each slot links to the one after it; Push sets the last one's link.
            new (&links[i]) std::atomic<uint32_t>(static_cast<uint32_t>(first + i + 2));
        }
        TAVIK_POISON(chunk, kSlotBytes);
        m_chunks[index] = chunk;
        m_chunkCount.store(index + 1, std::memory_order_relaxed);
        Push(first, static_cast<SlotId>(first + kSlotsPerChunk - 1));
        return true;
    } catch (...) {
        return false; // a mutex that cannot be taken: the caller allocates
    }
}

void LogEntryPool::Push(SlotId first, SlotId last) noexcept {
    uint64_t top = m_top.load(std::memory_order_relaxed);
    uint64_t desired = 0;
    do {
        Link(last).store(static_cast<uint32_t>(top), std::memory_order_relaxed);
        desired = (((top >> 32) + 1) << 32) | (first + 1ULL);
        // Release: the links and the slots' last use come before anyone who takes them.
    } while (!m_top.compare_exchange_weak(top, desired, std::memory_order_release,
                                          std::memory_order_relaxed));
}

void* LogEntryPool::Allocate(size_t size, SlotId* id) noexcept {
    if (size > kSlotSize) {
        return nullptr;
    }
    uint64_t top = m_top.load(std::memory_order_acquire);
    for (;;) {
        const auto topSlot = static_cast<uint32_t>(top);
        if (topSlot == 0) {
            if (!Grow()) {
                return nullptr;
            }
            top = m_top.load(std::memory_order_acquire);
            continue;
        }
        // The link may be stale if the slot is taken meanwhile; the count in the
        // top then makes the exchange fail.
        const uint32_t next = Link(topSlot - 1).load(std::memory_order_relaxed);
        const uint64_t desired = (((top >> 32) + 1) << 32) | next;
        if (m_top.compare_exchange_weak(top, desired, std::memory_order_acquire,
                                        std::memory_order_acquire)) {
            *id = topSlot - 1;
            unsigned char* slot = SlotAddress(topSlot - 1);
            TAVIK_UNPOISON(slot, kSlotSize);
            if (next != 0) {
                PrefetchForWrite(SlotAddress(next - 1));
            }
            return slot;
        }
    }
}

void LogEntryPool::Release(const SlotId* ids, size_t count) noexcept {
    for (size_t i = 0; i < count; ++i) {
        TAVIK_POISON(SlotAddress(ids[i]), kSlotSize);
        if (i + 1 < count) {
            Link(ids[i]).store(ids[i + 1] + 1, std::memory_order_relaxed);
        }
    }
    Push(ids[0], ids[count - 1]);
}

} // namespace kt
