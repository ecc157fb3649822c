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
// The slots lie in one reserved range of address space. The first chunk's
// pages are ordinary ones, so that a log that never holds more than a few
// hundred entries stays small; from the second chunk on the slots lie on 2 MiB
// boundaries that the kernel may back with huge pages. A burst that fills the
// queue would otherwise take a page fault every dozen entries, thousands of them
// on the callers' path, each the price of many entries on a virtual machine, and
// each one interrupting the worker on the other core.
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
    // The pool grows by this many slots at a time.
    static constexpr size_t kSlotsPerChunk = 256;
    // Enough slots for every entry the overload rule lets the queue hold (the log
    // asserts it), so that a burst up to the threshold never falls back to the C
    // allocator on the caller's path: 16 MiB at most.
    static constexpr size_t kMaxChunks = 200;
    static constexpr size_t kMaxSlots = kSlotsPerChunk * kMaxChunks;

    // A slot's number, its place in the pool's one array of slots.
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
    static constexpr size_t kChunkBytes = kSlotSize * kSlotsPerChunk;

    bool Grow() noexcept;
    bool Reserve() noexcept;
    // Puts the chain from `first` to `last` (already linked) on top of the stack.
    void Push(SlotId first, SlotId last) noexcept;
    unsigned char* SlotAddress(SlotId id) const noexcept { return m_slots + size_t{id} * kSlotSize; }
    std::atomic<uint32_t>& Link(SlotId id) const noexcept { return m_links[id]; }

    // The stack's top: the low half is the top slot's number plus one (0 when the
    // stack is empty; links use the same encoding), the high half counts the
    // changes. A pop that read a top which was taken and given back meanwhile
    // fails its exchange on the count, and never installs a stale link (ABA).
    // Producers and the worker both change it: a line of its own, apart from the
    // addresses, which every producer reads.
    alignas(64) std::atomic<uint64_t> m_top{0};
    // Held only while the pool grows; the memory of new slots is published with
    // the stack's top that first holds them, so readers need no lock.
    std::mutex m_growMutex;
    alignas(64) std::atomic<size_t> m_chunkCount{0};
    // Address space for every slot the pool may ever hold and their links,
    // reserved when the first entry needs a slot; pages are only made when a
    // slot is first written.
    unsigned char* m_mapping = nullptr;
    size_t m_mappingSize = 0;
    unsigned char* m_slots = nullptr;
    std::atomic<uint32_t>* m_links = nullptr;
};

} // namespace kt
