#include "Pavo/packet/Pkt.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "Mox/Exception.h"
#include "Mox/FwkType.h"

#include "Pavo/base/NetOrder.h"

namespace Pavo {

namespace {

// AddressSanitizer finds a use after the last reference only in memory that was really freed.
#if defined(__SANITIZE_ADDRESS__)
constexpr uint32_t maxRecycled = 0;
#elif defined(__has_feature)
constexpr uint32_t maxRecycled = __has_feature(address_sanitizer) ? 0 : 256;
#else
constexpr uint32_t maxRecycled = 256;
#endif
constexpr uint32_t maxRecycledLarge = maxRecycled / 4;

// Pieces of memory of one size that wait to be used again; bounded, so that a thread that only ends
// packets does not hoard.
class FreeList {
  public:
    // Null when none is left.
    void* take() {
        Node* node = first_;
        if (node != nullptr) {
            first_ = node->next;
            --count_;
        }
        return node;
    }

    // Returns whether the list took it.
    bool give(void* memory) {
        if (count_ >= limit_) {
            return false;
        }
        first_ = new (memory) Node{first_};
        ++count_;
        return true;
    }

    // Frees all, and takes nothing from now on.
    void close() {
        limit_ = 0;
        while (void* memory = take()) {
            ::operator delete(memory);
        }
    }

  private:
    struct Node {
        Node* next;
    };

    Node* first_ = nullptr;
    uint32_t count_ = 0;
    uint32_t limit_ = maxRecycled;
};

// The lists of one thread, so that a packet may end on another thread than the one it began on
// without a lock.
struct FreeLists {
    FreeList packets;
    FreeList sharedBuffers;
    FreeList buffers;  // Of the manager's default size.
    bool closeAtExit = false;
};

}  // namespace

// Whole packets, with their buffers of one size, that wait to be used again: those of one thread.
class UsedPkts {
  public:
    explicit constexpr UsedPkts(uint32_t limit) : limit_(limit) {}

    // The list for packets on buffers of a size, or null.
    static UsedPkts* of(uint32_t bufferSize);

    // Null when none is left.
    Pkt* take() {
        Pkt* pkt = first_;
        if (pkt != nullptr) {
            first_ = pkt->nextUsed_;
            --count_;
            pkt->takeBack();
            pkt->sharedBuffer_->takeBack();
        }
        return pkt;
    }

    bool isFull() const { return count_ >= limit_; }
    void give(Pkt* pkt) {
        pkt->putAside();
        pkt->sharedBuffer_->putAside();
        pkt->nextUsed_ = first_;
        first_ = pkt;
        ++count_;
    }

    // Ends all, and takes nothing from now on.
    void close() {
        limit_ = 0;
        while (const Pkt* pkt = take()) {
            delete pkt;
        }
    }

  private:
    Pkt* first_ = nullptr;
    uint32_t count_ = 0;
    uint32_t limit_;
};

namespace {

[[gnu::tls_model("initial-exec")]] thread_local constinit UsedPkts usedPkts(maxRecycled);
[[gnu::tls_model("initial-exec")]] thread_local constinit UsedPkts usedLargePkts(maxRecycledLarge);

// Without a destructor, which every access would have to ask for: `Closer` stands in.
[[gnu::tls_model("initial-exec")]] thread_local constinit FreeLists freeLists;

// Packets of static storage, and of other objects of the thread, end after this.
struct Closer {
    ~Closer() {
        usedPkts.close();
        usedLargePkts.close();
        freeLists.packets.close();
        freeLists.sharedBuffers.close();
        freeLists.buffers.close();
    }
    void made() const {}
};
thread_local Closer closer;

void* allocate(FreeList* list, std::size_t bytes) {
    void* memory = list->take();
    return memory != nullptr ? memory : ::operator new(bytes);
}

void closeListsAtExit() {
    if (!freeLists.closeAtExit) {
        freeLists.closeAtExit = true;
        closer.made();
    }
}

void release(FreeList* list, void* memory) {
    closeListsAtExit();
    if (!list->give(memory)) {
        ::operator delete(memory);
    }
}

uint8_t* allocateBuffer(uint32_t size) {
    return static_cast<uint8_t*>(size == Pkt::Manager::defaultBufferSize
                                     ? allocate(&freeLists.buffers, size)
                                     : ::operator new(size));
}

void releaseBuffer(uint8_t* buffer, uint32_t size) {
    if (size == Pkt::Manager::defaultBufferSize) {
        release(&freeLists.buffers, buffer);
    } else {
        ::operator delete(buffer);
    }
}

uint32_t grownSize(uint32_t size, uint32_t n) {
    if (n > std::numeric_limits<uint32_t>::max() - size) {
        throw std::bad_array_new_length();
    }
    return size + n;
}

void copyBytes(uint8_t* to, const void* from, uint32_t bytes) {
    if (bytes != 0) {  // An empty value may have no address.
        std::memcpy(to, from, bytes);
    }
}

}  // namespace

UsedPkts* UsedPkts::of(uint32_t bufferSize) {
    return bufferSize == Pkt::Manager::defaultBufferSize ? &usedPkts
           : bufferSize == Pkt::largeBufferSize          ? &usedLargePkts
                                                         : nullptr;
}

void Pkt::zeroReferencesIs(bool zero) {
    const bool sole = sharedBuffer_ && sharedBuffer_->references() == 1;
    UsedPkts* list = sole ? UsedPkts::of(sharedBuffer_->size()) : nullptr;
    if (!zero || list == nullptr || list->isFull()) {
        PtrInterface::zeroReferencesIs(zero);
        return;
    }
    closeListsAtExit();
    checkMagic();
    clear();
    list->give(this);
}

// Back to what a new packet is.
void Pkt::clear() {
    privateData_ = privateArea_ + privateAreaBytes;
    privateDataBytes_ = 0;
    iovecs_[0] = {};
    firstIoVec_ = 1;
    sharedBuffer_->placeEmptyData(/*tailRoom=*/0);
    updateSharedIovec();
    separateVlanTci_ = 0;
    separateVlanTpid_ = 0;
    hasSeparateVlanTag_ = false;
}

Pkt::Pkt() {}

Pkt::~Pkt() {
    checkMagic();
}

void* Pkt::operator new(std::size_t bytes) {
    return allocate(&freeLists.packets, bytes);
}

void Pkt::operator delete(void* memory, std::size_t) {
    release(&freeLists.packets, memory);
}

void Pkt::throwNoSuchIovec() {
    Mox::throwRangeException("no such iovec");
}

uint32_t Pkt::totalBytes() const {
    uint32_t total = 0;
    for (const Iovec& each : iovecs()) {
        total += each.bytes;
    }
    return total;
}

void Pkt::sharedBufferIs(const Mox::Ptr<SharedBuffer>& buffer) {
    Mox::require(firstIoVec_ == maxIovecs_, "firstIoVec_ == maxIovecs_");
    sharedBuffer_ = buffer;
    firstIoVec_ = 1;
    updateSharedIovec();
}

uint32_t Pkt::maxSharedData() const {
    return sharedBuffer_ ? sharedBuffer_->size() : 0;
}

void Pkt::growHead(uint32_t n) {
    growInto(grownSize(sharedBuffer_->size(), n), /*tailRoom=*/0);
}

// Never moves data within the buffer, which another packet may share.
void Pkt::growTail(uint32_t n) {
    const uint32_t size = sharedBuffer_->size();
    if (sharedBuffer_->headRoom() < n) {
        growInto(grownSize(size, n), /*tailRoom=*/n);
    } else if (sharedBuffer_->dataBytes() == 0 && sharedBuffer_->references() == 1) {
        sharedBuffer_->placeEmptyData(/*tailRoom=*/n);
    } else {
        growInto(size, /*tailRoom=*/n);
    }
}

// Changes to a buffer of `size` bytes, in which the data ends `tailRoom` bytes before the end. The
// old buffer lives on where another packet holds it.
void Pkt::growInto(uint32_t size, uint32_t tailRoom) {
    Mox::Ptr<SharedBuffer> grown = SharedBuffer::create(size);
    grown->placeEmptyData(tailRoom);
    grown->newHeadData(sharedBuffer_->dataBytes());
    copyBytes(grown->data(), sharedBuffer_->data(), sharedBuffer_->dataBytes());
    sharedBuffer_ = std::move(grown);
}

uint8_t* Pkt::newPrivateHeadData(uint32_t n) {
    Mox::require(n <= privateAreaBytes - privateDataBytes_,
                 "ptrWithinRegion( privateData_, privateArea_, privateAreaBytes )");
    privateData_ -= n;
    privateDataBytes_ += n;
    if (privateDataBytes_ == 0) {
        return privateData_;  // An empty first iovec would hide the shared data from headers.
    }
    firstIoVec_ = 0;
    updatePrivateIovec();
    return privateData_;
}

void Pkt::delPrivateHeadData(uint32_t n) {
    Mox::require(n <= privateDataBytes_, "n <= privateDataBytes_");
    privateData_ += n;
    privateDataBytes_ -= n;
    if (privateDataBytes_ != 0) {
        updatePrivateIovec();
        return;
    }
    iovecs_[0] = {};
    firstIoVec_ = sharedBuffer_ ? 1 : maxIovecs_;
}

void Pkt::updatePrivateIovec() {
    Mox::require(firstIoVec_ != maxIovecs_, "firstIoVec_ != maxIovecs_");
    Mox::require((firstIoVec_ == 0) || (sharedBuffer_ == nullptr),
                 "(firstIoVec_ == 0) || (sharedBuffer_ == 0)");
    iovecs_[0] = {privateData_, privateDataBytes_};
}

Mox::String Pkt::stringValue() const {
    std::string all;
    all.reserve(totalBytes());
    for (const Iovec& each : iovecs()) {
        all.append(reinterpret_cast<const char*>(each.data), each.bytes);
    }
    return Mox::String(std::move(all));
}

Mox::Bytes Pkt::bytesValue() const {
    Mox::Bytes all;
    for (const Iovec& each : iovecs()) {
        all.append(each.data, each.bytes);
    }
    return all;
}

Mox::String Pkt::stringValueMaybeWithVlan() const {
    const Mox::String all = stringValue();
    if (!hasSeparateVlanTag_) {
        return all;
    }
    uint8_t tag[4];
    storeNet(tag, separateVlanTpid_);
    storeNet(tag + 2, separateVlanTci_);
    std::string tagged(all.view());
    tagged.insert(std::min<std::size_t>(12, tagged.size()), reinterpret_cast<const char*>(tag),
                  sizeof(tag));
    return Mox::String(std::move(tagged));
}

void Pkt::stringValueIs(const Mox::String& value, bool atTail) {
    const uint32_t bytes = value.bytes();
    copyBytes(atTail ? newSharedTailData(bytes) : newSharedHeadData(bytes), value.data(), bytes);
}

void Pkt::bytesValueIs(const Mox::Bytes& value, bool atTail) {
    const uint32_t bytes = value.bytes();
    copyBytes(atTail ? newSharedTailData(bytes) : newSharedHeadData(bytes), value.data(), bytes);
}

void Pkt::newSeparateVlanTag(uint16_t tci, uint16_t tpid) {
    separateVlanTci_ = tci;
    separateVlanTpid_ = tpid;
    hasSeparateVlanTag_ = true;
}

void Pkt::delSeparateVlanTag() {
    separateVlanTci_ = 0;
    hasSeparateVlanTag_ = false;
}

void Pkt::tciVlanIdIs(uint16_t vlanId) {
    Mox::require((vlanId & ~0x0fff) == 0, "( _tciVlanId & ~0x0fff) == 0");
    separateVlanTci_ = static_cast<uint16_t>((separateVlanTci_ & 0xf000) | vlanId);
}

void Pkt::checkMagic() const {
    Mox::require(magicBarrier0_ == magicValue && magic_ == magicValue, "magicBarrier0_ == magic_");
}

void Pkt::copyPrivateAndTag(const Pkt& other) {
    if (other.privateDataBytes_ != 0) {
        copyBytes(newPrivateHeadData(other.privateDataBytes_), other.privateData_,
                  other.privateDataBytes_);
    }
    separateVlanTci_ = other.separateVlanTci_;
    separateVlanTpid_ = other.separateVlanTpid_;
    hasSeparateVlanTag_ = other.hasSeparateVlanTag_;
}

Pkt::SharedBuffer::SharedBuffer(uint32_t size)
    : buffer_(allocateBuffer(size)), size_(size), data_(buffer_ + size) {}

Pkt::SharedBuffer::~SharedBuffer() {
    releaseBuffer(buffer_, size_);
}

void* Pkt::SharedBuffer::operator new(std::size_t bytes) {
    return allocate(&freeLists.sharedBuffers, bytes);
}

void Pkt::SharedBuffer::operator delete(void* memory, std::size_t) {
    release(&freeLists.sharedBuffers, memory);
}

Mox::Ptr<Pkt::SharedBuffer> Pkt::SharedBuffer::create(uint32_t size) {
    return {new SharedBuffer(size), Mox::AdoptReference()};
}

Pkt::Manager::Manager(Mox::String name) : name_(std::move(name)) {}

Mox::Ptr<Pkt> Pkt::Manager::newPkt() {
    return newPkt(defaultBufferSize_);
}

Mox::Ptr<Pkt> Pkt::Manager::newPkt(uint32_t bufferSize) {
    UsedPkts* list = UsedPkts::of(bufferSize);
    if (Pkt* used = list != nullptr ? list->take() : nullptr) {
        used->PtrInterface::hasNotificationActiveIs(true);
        return {used, Mox::AdoptReference()};
    }
    Mox::Ptr<Pkt> pkt = Mox::make<Pkt>();
    pkt->sharedBufferIs(newSharedBuffer(bufferSize));
    return pkt;
}

Mox::Ptr<Pkt::SharedBuffer> Pkt::Manager::newSharedBuffer(uint32_t size) {
    return SharedBuffer::create(size);
}

Mox::Ptr<Pkt> Pkt::Manager::newShallowCopy(const Mox::Ptr<Pkt>& pkt) {
    Mox::Ptr<Pkt> copy = Mox::make<Pkt>();
    if (pkt->sharedBuffer_) {
        copy->sharedBufferIs(pkt->sharedBuffer_);
        // Where a third packet has moved the data of the buffer, the copy sees what `pkt` sees.
        copy->iovecs_[1] = pkt->iovecs_[1];
    }
    copy->copyPrivateAndTag(*pkt);
    return copy;
}

const Mox::Ptr<Pkt::Manager>& globalPktManager() {
    // Never destroyed: packets of static storage may end after it would be.
    static const auto& manager =
        *new const Mox::Ptr<Pkt::Manager>(Mox::make<Pkt::Manager>("Pkt::Manager"));
    return manager;
}

Mox::Ptr<Pkt> pktFactory() {
    Mox::Ptr<Pkt> pkt = Mox::make<Pkt>();
    pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(Pkt::largeBufferSize));
    return pkt;
}

}  // namespace Pavo
