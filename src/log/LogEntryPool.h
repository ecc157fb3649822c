#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace kt {

// Memory for the log's entries, in slots of one size, reused for as long as the
// log lives. A burst of entries followed by a drain would otherwise grow the
// producers' allocator arenas page by page and let the allocator hand the pages
// back to the system once the backlog is gone, so that every burst took page
// faults on the caller's path again. The pool grows by chunks up to kMaxSlots and
// keeps them until it is destroyed; entries that are larger, or that arrive while
// every slot is taken, use the C allocator as before.
//
// The first chunk comes from the C allocator alone, so that a log that never
// holds more than a few hundred entries stays small. The others are cut from
// blocks of 2 MiB on 2 MiB boundaries that the kernel may back with huge pages:
// a burst that filled the queue took a page fault every dozen entries on the
// callers' path otherwise, thousands of them, each costing as much as many
// entries on a virtual machine.
//
// Taking a slot takes no lock. A producer holding the pool's lock could be
// preempted, and every other producer would then wait for the scheduler to bring
// it back; the free slots are instead a stack whose top is swapped with one
// compare-exchange. Each slot's link to the next free one lives beside the slots,
// not in them, so that a producer reading a link never races with the entry that
// another producer is writing into that slot, and so that a pop reads one array
// the worker wrote in a batch rather than a line of each slot it touched.
class LogEntryPool {
public:
    // An entry object takes 152 bytes, so a slot leaves 168 for the capture: room
    // for the dump line of a device read or write of 64 bytes (286 bytes in all),
    // which a 256-byte slot sent to the C allocator on every traced transfer.
    static constexpr size_t kSlotSize = 320;
    static constexpr size_t kSlotsPerChunk = 256;
    // Enough slots for every entry the overload rule lets the queue hold (the log
    // asserts it), so that a burst up to the threshold never falls back to the C
    // allocator on the caller's path: 16 MiB at most.
    static constexpr size_t kMaxChunks = 200;
    static constexpr size_t kMaxSlots = kSlotsPerChunk * kMaxChunks;

    // A slot's number: its chunk times kSlotsPerChunk plus its place in the chunk.
    using SlotId = uint32_t;

    LogEntryPool() noexcept = default;
    ~LogEntryPool();
    LogEntryPool(const LogEntryPool&) = delete;
    LogEntryPool& operator=(const LogEntryPool&) = delete;

    // A slot for `size` bytes, and its number in *id; null when the size does not
    // fit a slot, or when the pool is exhausted or cannot grow.
    void* Allocate(size_t size, SlotId* id) noexcept;
    // Gives back `count` (at least one) slots by their numbers, all in one step.
    void Release(const SlotId* ids, size_t count) noexcept;
    void Release(SlotId id) noexcept { Release(&id, 1); }

private:
    static constexpr size_t kSlotBytes = kSlotSize * kSlotsPerChunk;
    // A chunk's slots and their links.
    static constexpr size_t kChunkBytes = kSlotBytes + kSlotsPerChunk * sizeof(std::atomic<uint32_t>);
    static constexpr size_t kBlockBytes = 2 * 1024 * 1024;
    static constexpr size_t kChunksPerBlock = kBlockBytes / kChunkBytes;
    static constexpr size_t kMaxBlocks = (kMaxChunks - 1 + kChunksPerBlock - 1) / kChunksPerBlock;

    bool Grow() noexcept;
    // Memory for the chunk `index`; null when there is none (under m_growMutex).
    unsigned char* ChunkMemory(size_t index) noexcept;
    // Puts the chain from `first` to `last` (already linked) on top of the stack.
    void Push(SlotId first, SlotId last) noexcept;
    unsigned char* SlotAddress(SlotId id) const noexcept {
        return m_chunks[id / kSlotsPerChunk] + (id % kSlotsPerChunk) * kSlotSize;
    }
    std::atomic<uint32_t>& Link(SlotId id) const noexcept {
        return reinterpret_cast<std::atomic<uint32_t>*>(m_chunks[id / kSlotsPerChunk] +
                                                        kSlotBytes)[id % kSlotsPerChunk];
    }

    // The stack's top: the low half is the top slot's number plus one (0 when the
    // stack is empty; links use the same encoding), the high half counts the
    // changes. A pop that read a top which was taken and given back meanwhile
    // fails its exchange on the count, and never installs a stale link (ABA).
    // Producers and the worker both change it: a line of its own, apart from the
    // chunks' addresses, which every producer reads.
    alignas(64) std::atomic<uint64_t> m_top{0};
    // Held only while a chunk is added; a chunk's address is published with the
    // stack's top that first holds its slots, so readers need no lock.
    std::mutex m_growMutex;
    alignas(64) std::atomic<size_t> m_chunkCount{0};
    unsigned char* m_chunks[kMaxChunks] = {};
    unsigned char* m_blocks[kMaxBlocks] = {};
};

} // namespace kt
