#include "Pavo/packet/PktPool.h"

#include <new>

namespace Pavo {

namespace {

constexpr uint32_t maxKept = 256;
constexpr uint32_t maxKeptLarge = 64;

// Without a destructor, which every access would have to ask for: `Closer` stands in.
struct Lists {
    PktPool::PktList pkts{sizeof(Pkt), maxKept};
    PktPool::PktList largePkts{sizeof(Pkt), maxKeptLarge};
    PktPool::MemoryList memory[3] = {
        PktPool::MemoryList(sizeof(Pkt), maxKept),
        PktPool::MemoryList(sizeof(Pkt::SharedBuffer), maxKept),
        PktPool::MemoryList(Pkt::Manager::defaultBufferSize, maxKept),
    };
    bool closesAtExit = false;

    PktPool::PktList* pktsOn(uint32_t bufferSize) {
        return bufferSize == Pkt::Manager::defaultBufferSize ? &pkts
               : bufferSize == Pkt::largeBufferSize          ? &largePkts
                                                             : nullptr;
    }
};
[[gnu::tls_model("initial-exec")]] thread_local constinit Lists lists;

// Packets of static storage, and of other objects of the thread, end after this.
struct Closer {
    ~Closer() {
        for (const uint32_t size : {Pkt::Manager::defaultBufferSize, Pkt::largeBufferSize}) {
            lists.pktsOn(size)->close();
            while (const Pkt* pkt = PktPool::take(size)) {
                delete pkt;
            }
        }
        for (PktPool::MemoryList& each : lists.memory) {
            each.close();
            while (void* memory = each.take()) {
                ::operator delete(memory);
            }
        }
    }
    void made() const {}
};
thread_local Closer closer;

void closeAtExit() {
    if (!lists.closesAtExit) {
        lists.closesAtExit = true;
        closer.made();
    }
}

}  // namespace

Pkt* PktPool::take(uint32_t bufferSize) {
    PktList* const list = lists.pktsOn(bufferSize);
    Pkt* const pkt = list != nullptr ? list->take() : nullptr;
    if (pkt != nullptr) {
        ASAN_UNPOISON_MEMORY_REGION(pkt->sharedBuffer_->buffer_, bufferSize);
        pkt->takeBack();
        pkt->sharedBuffer_->takeBack();
    }
    return pkt;
}

bool PktPool::give(Pkt* pkt) {
    const uint32_t bufferSize = pkt->sharedBuffer_->size_;
    PktList* const list = lists.pktsOn(bufferSize);
    if (list == nullptr || list->isFull()) {
        return false;
    }
    closeAtExit();
    pkt->checkMagic();
    pkt->clear();
    pkt->putAside();
    pkt->sharedBuffer_->putAside();
    ASAN_POISON_MEMORY_REGION(pkt->sharedBuffer_->buffer_, bufferSize);
    list->give(pkt);
    return true;
}

void* PktPool::allocate(MemoryKind kind, std::size_t bytes) {
    void* const memory = lists.memory[kind].take();
    return memory != nullptr ? memory : ::operator new(bytes);
}

void PktPool::release(MemoryKind kind, void* memory) {
    closeAtExit();
    if (lists.memory[kind].isFull()) {
        ::operator delete(memory);
    } else {
        lists.memory[kind].give(new (memory) Memory);
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
