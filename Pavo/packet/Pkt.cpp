#include "Pavo/packet/Pkt.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "Mox/Exception.h"

#include "Pavo/base/NetOrder.h"
#include "Pavo/packet/PktPool.h"

namespace Pavo {

namespace {

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

Pkt::Pkt() {}

Pkt::~Pkt() {
    checkMagic();
}

void* Pkt::operator new(std::size_t bytes) {
    return PktPool::allocate(PktPool::pktMemory, bytes);
}

void Pkt::operator delete(void* memory, std::size_t) {
    PktPool::release(PktPool::pktMemory, memory);
}

void Pkt::throwNoSuchIovec() {
    Mox::throwRangeException("no such iovec");
}

uint32_t Pkt::totalBytes() const {
    return iovecs_[0].bytes + iovecs_[1].bytes;  // An entry that is not in use is empty.
}

void Pkt::linearize() {
    if (isLinear()) {
        return;
    }
    const uint32_t n = privateDataBytes_;
    if (n <= headRoom()) {
        unshare();  // Otherwise the buffer grows, and is then the packet's own.
    }
    copyBytes(newSharedHeadData(n), privateData_, n);
    delPrivateHeadData(n);
}

void Pkt::unshare() {
    if (sharedBuffer_ && sharedBuffer_->references() != 1) {
        growInto(sharedBuffer_->size(), tailRoom());
    }
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

uint8_t* Pkt::growHead(uint32_t n) {
    growInto(grownSize(sharedBuffer_->size(), n), /*tailRoom=*/0);
    return newSharedHeadData(n);
}

// Never moves data within the buffer, which another packet may share.
uint8_t* Pkt::growTail(uint32_t n) {
    const uint32_t size = sharedBuffer_->size();
    const bool fits = headRoom() >= n || tailRoom() >= n;
    growInto(fits ? size : grownSize(size, n), /*tailRoom=*/n);
    return newSharedTailData(n);
}

// Changes to a buffer of `size` bytes, in which the data ends `tailRoom` bytes before the end. The
// old buffer lives on where another packet holds it.
void Pkt::growInto(uint32_t size, uint32_t tailRoom) {
    Mox::Ptr<SharedBuffer> grown = SharedBuffer::create(size);
    grown->placeEmptyData(tailRoom);
    grown->newHeadData(iovecs_[1].bytes);
    copyBytes(grown->data(), iovecs_[1].data, iovecs_[1].bytes);
    sharedBuffer_ = std::move(grown);
    updateSharedIovec();
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
    : buffer_(PktPool::allocateBuffer(size)), size_(size), data_(buffer_ + size) {}

Pkt::SharedBuffer::~SharedBuffer() {
    PktPool::releaseBuffer(buffer_, size_);
}

void* Pkt::SharedBuffer::operator new(std::size_t bytes) {
    return PktPool::allocate(PktPool::bufferObjects, bytes);
}

void Pkt::SharedBuffer::operator delete(void* memory, std::size_t) {
    PktPool::release(PktPool::bufferObjects, memory);
}

Mox::Ptr<Pkt::SharedBuffer> Pkt::SharedBuffer::create(uint32_t size) {
    return {new SharedBuffer(size), Mox::AdoptReference()};
}

Pkt::Manager::Manager(Mox::String name) : name_(std::move(name)) {}

Mox::Ptr<Pkt> Pkt::Manager::newPkt(uint32_t bufferSize, uint32_t tailRoom) {
    Mox::Ptr<Pkt> pkt = newPkt(bufferSize);
    pkt->sharedBuffer_->placeEmptyData(tailRoom);
    pkt->updateSharedIovec();
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
    return globalPktManager()->newPkt(Pkt::largeBufferSize);
}

}  // namespace Pavo
