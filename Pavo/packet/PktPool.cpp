#include "Pavo/packet/PktPool.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace Pavo {

namespace {

// Without a destructor, for which every access would have to ask: `Closer` stands in.
struct Lists {
    PktPool::PktList pkts{sizeof(Pkt)};
    PktPool::PktList largePkts{sizeof(Pkt)};
    PktPool::MemoryList memory[3] = {
        PktPool::MemoryList(sizeof(Pkt)),
        PktPool::MemoryList(sizeof(Pkt::SharedBuffer)),
        PktPool::MemoryList(Pkt::Manager::defaultBufferSize),
    };
    bool wereOpened = false;

    PktPool::PktList* pktsOn(uint32_t bufferSize) {
        if (__builtin_expect(bufferSize == Pkt::Manager::defaultBufferSize, 1)) {
            return &pkts;
        }
        return bufferSize == Pkt::largeBufferSize ? &largePkts : nullptr;
    }
    void limitsAre(uint32_t limit, uint32_t largeLimit) {
        pkts.limitIs(limit);
        largePkts.limitIs(largeLimit);
        for (PktPool::MemoryList& each : memory) {
            each.limitIs(limit);
        }
    }
};
[[gnu::tls_model("initial-exec")]] thread_local constinit Lists lists;

// Empties the lists at the thread's end. Packets of static storage, and of objects of the thread
// that were made earlier, end after this.
struct Closer {
    Closer() { lists.limitsAre(/*limit=*/256, /*largeLimit=*/64); }
    ~Closer() {
        lists.limitsAre(0, 0);
        for (const uint32_t size : {Pkt::Manager::defaultBufferSize, Pkt::largeBufferSize}) {
            while (const Pkt* pkt = PktPool::take(size)) {
                delete pkt;
            }
        }
        for (PktPool::MemoryList& each : lists.memory) {
            while (void* memory = each.take()) {
                ::operator delete(memory);
            }
        }
    }
    void made() const {}
};
thread_local Closer closer;

// Opens the lists of this thread, once: after they were closed, they stay so.
[[gnu::noinline, gnu::cold]] void openOnce() {
    if (!lists.wereOpened) {
        lists.wereOpened = true;
        closer.made();
    }
}

// Whether it has room.
template <class List>
bool mayGive(const List& list) {
    if (__builtin_expect(list.isFull(), 0)) {
        openOnce();
    }
    return !list.isFull();
}

// Apart, so that a recycled packet does not save registers for this.
[[gnu::noinline]] Mox::Ptr<Pkt> newlyAllocatedPkt(uint32_t bufferSize) {
    Mox::Ptr<Pkt> pkt = Mox::make<Pkt>();
    pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(bufferSize));
    return pkt;
}

}  // namespace

inline Pkt* PktPool::take(uint32_t bufferSize) {
    PktList* const list = lists.pktsOn(bufferSize);
    Pkt* const pkt = list != nullptr ? list->take() : nullptr;
    if (pkt != nullptr) {
        ASAN_UNPOISON_MEMORY_REGION(pkt->sharedBuffer_->buffer_, bufferSize);
        pkt->renew();
        Pkt::takeBack(/*objects=*/2);
    }
    return pkt;
}

inline void PktPool::clear(Pkt* pkt) {
    if (pkt->firstIoVec_ == 0) {
        pkt->delPrivateHeadData(pkt->privateDataBytes_);
    }
    Pkt::SharedBuffer& buffer = *pkt->sharedBuffer_;
    pkt->sharedDataIs(buffer.buffer_ + buffer.size_, 0, /*movesBuffersRange=*/true);
    pkt->separateVlanTci_ = 0;
    pkt->separateVlanTpid_ = 0;
    pkt->hasSeparateVlanTag_ = false;
}

inline bool PktPool::give(Pkt* pkt) {
    const uint32_t bufferSize = pkt->sharedBuffer_->size_;
    PktList* const list = lists.pktsOn(bufferSize);
    if (list == nullptr || !mayGive(*list)) {
        return false;
    }
    pkt->checkMagic();
    clear(pkt);
    Pkt::putAside(/*objects=*/2);  // The packet and its buffer, which keeps its one reference.
    ASAN_POISON_MEMORY_REGION(pkt->sharedBuffer_->buffer_, bufferSize);
    list->give(pkt);
    return true;
}

// The two ends of a packet's life are here, so that the lists are looked at without a call.
Mox::Ptr<Pkt> Pkt::Manager::newPkt() {
    return newPkt(defaultBufferSize);
}

Mox::Ptr<Pkt> Pkt::Manager::newPkt(uint32_t bufferSize) {
    if (Pkt* const recycled = PktPool::take(bufferSize)) {
        return {recycled, Mox::AdoptReference()};
    }
    return newlyAllocatedPkt(bufferSize);
}

Mox::Ptr<Pkt> Pkt::Manager::newPktWith(std::span<const uint8_t> bytes) {
    const auto count = static_cast<uint32_t>(bytes.size());
    Mox::require(count == bytes.size(), "count == bytes.size()");
    Mox::Ptr<Pkt> pkt =
        newPkt(count <= defaultBufferSize ? defaultBufferSize : std::max(count, largeBufferSize));
    if (count != 0) {
        uint8_t* const data = pkt->iovecs_[1].data - count;  // The buffer is all head room.
        pkt->sharedDataIs(data, count, /*movesBuffersRange=*/true);
        std::memcpy(data, bytes.data(), count);
    }
    return pkt;
}

void Pkt::zeroReferencesIs(bool zero) {
    const bool isSole = sharedBuffer_ && sharedBuffer_->references() == 1;
    if (!zero || !isSole || !PktPool::give(this)) {
        PtrInterface::zeroReferencesIs(zero);
    }
}

void* PktPool::allocate(MemoryKind kind, std::size_t bytes) {
    void* const memory = lists.memory[kind].take();
    return memory != nullptr ? memory : ::operator new(bytes);
}

void PktPool::release(MemoryKind kind, void* memory) {
    if (mayGive(lists.memory[kind])) {
        lists.memory[kind].give(new (memory) Memory);
    } else {
        ::operator delete(memory);
    }
}

uint8_t* PktPool::allocateBuffer(uint32_t size) {
    return static_cast<uint8_t*>(size == Pkt::Manager::defaultBufferSize
                                     ? allocate(bufferBytes, size)
                                     : ::operator new(size));
}

void PktPool::releaseBuffer(uint8_t* buffer, uint32_t size) {
    if (size == Pkt::Manager::defaultBufferSize) {
        release(bufferBytes, buffer);
    } else {
        ::operator delete(buffer);
    }
}

}  // namespace Pavo
