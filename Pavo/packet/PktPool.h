/// @file
/// The free lists of packets and of their memory. For `Pkt`; an agent does not need it.
#pragma once

#include <sanitizer/asan_interface.h>

#include <cstddef>
#include <cstdint>

#include "Pavo/packet/Pkt.h"

namespace Pavo {

/// Objects or pieces of memory of one size, linked by their member `next`; bounded, so that a
/// thread that only releases packets does not hoard. While they are in the list, their bytes are
/// poisoned for AddressSanitizer, which so finds a use after the last reference.
template <class Node, Node* Node::*next>
class FreeList {
  public:
    /// Closed until `limitIs`.
    explicit constexpr FreeList(std::size_t nodeBytes) : nodeBytes_(nodeBytes) {}

    /// The most that it keeps; 0 closes it, and it takes nothing from then on.
    void limitIs(uint32_t limit) { limit_ = limit; }
    bool isFull() const { return count_ >= limit_; }
    /// @pre not full
    void give(Node* node) {
        node->*next = first_;
        first_ = node;
        ++count_;
        ASAN_POISON_MEMORY_REGION(node, nodeBytes_);
    }
    /// Null when none is left.
    Node* take() {
        Node* const node = first_;
        if (node != nullptr) {
            ASAN_UNPOISON_MEMORY_REGION(node, nodeBytes_);
            first_ = node->*next;
            --count_;
        }
        return node;
    }

  private:
    Node* first_ = nullptr;
    std::size_t nodeBytes_;
    uint32_t count_ = 0;
    uint32_t limit_ = 0;
};

/// The free lists of each thread: whole packets on buffers of the default and of the large size,
/// and the memory of other packets, of buffer objects, and of buffers of the default size. A packet
/// goes to the lists of the thread that drops its last reference, so there is no lock.
struct PktPool {
    struct Memory {
        Memory* next;
    };
    using MemoryList = FreeList<Memory, &Memory::next>;
    using PktList = FreeList<Pkt, &Pkt::nextFree_>;

    /// A recycled packet on a buffer of that size, empty and with one reference; or null.
    static Pkt* take(uint32_t bufferSize);
    /// Keeps a packet without references that alone holds its buffer. False, with nothing changed,
    /// where no list has room for it.
    static bool give(Pkt* pkt);

    enum MemoryKind { pktMemory, bufferObjects, bufferBytes };
    static void* allocate(MemoryKind kind, std::size_t bytes);
    static void release(MemoryKind kind, void* memory);
    static uint8_t* allocateBuffer(uint32_t size);
    static void releaseBuffer(uint8_t* buffer, uint32_t size);

    /// Makes a packet on a buffer of its own what a new one is.
    static void clear(Pkt* pkt);

    ~PktPool() = delete;
};

}  // namespace Pavo
