/// @file
/// The packet buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Mox/Assert.h"
#include "Mox/FwkType.h"
#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"

namespace Pavo {

struct PktPool;

/// The bytes of one frame or datagram, in at most two pieces: private bytes inside the object, then
/// bytes of a buffer that other packets may share. Headers are prepended by moving the start of the
/// data towards the start of its buffer, without copying what is there:
///
///     Pkt                                       Pkt::SharedBuffer
///     +----------------------+-----------+      +-----------+------------------+-----------+
///     | private head room    | private   |      | head room | shared data      | tail room |
///     | (64 bytes in all)    | data      |      |           |                  |           |
///     +----------------------+-----------+      +-----------+------------------+-----------+
///                            ^ iovec(0)                     ^ iovec(1)
///
/// What a reader sees is the private data followed by the shared data. A fresh buffer is all head
/// room. Bytes that an operation adds are not initialised: the caller writes them.
///
/// Packets that share a buffer each keep a range of their own in it. Removing bytes moves only the
/// packet's own range. Appending goes on in the buffer where the packet is its only holder, or
/// where its range is the buffer's own and pointers are not thread-safe; else it copies the
/// packet's bytes into a buffer of its own. So neither changes a byte of another packet. Prepending
/// writes in place: nothing is to be prepended to a shared buffer while another packet is still in
/// use; the private head data is there for that.
///
/// Beside its bytes a packet may carry one VLAN tag, the outermost, as devices deliver it. A packet
/// is used by one thread at a time.
class PAVO_EXPORT Pkt final : public Mox::Described<Pkt> {
  public:
    class SharedBuffer;
    class Manager;

    /// One piece of the data. Not the system's `iovec`, whose length has another width.
    struct Iovec {
        /// Where it begins.
        uint8_t* data = nullptr;
        /// Its length.
        uint32_t bytes = 0;

        /// All of it.
        std::span<uint8_t> span() const { return {data, bytes}; }
    };

    /// Entry 0 of the iovec table is the private data, entry 1 the shared.
    static constexpr uint8_t maxIovecs_ = 2;
    /// The most private bytes that a packet has.
    static constexpr uint32_t privateAreaBytes = 64;
    /// A size of buffers for whole messages, recycled as those of the default size are.
    static constexpr uint32_t largeBufferSize = 10000;

    /// A packet without data and without a buffer.
    Pkt();
    ~Pkt() override;
    /// Keeps a packet that alone holds a buffer of the default or the large size, for the manager
    /// to hand out again; deletes any other.
    void zeroReferencesIs(bool zero) override;

    /// Memory is recycled as the manager recycles buffers.
    /// @{
    static void* operator new(std::size_t bytes);
    static void operator delete(void* memory, std::size_t bytes);
    /// @}
    static constexpr auto description() { return Mox::classRecord("Pavo::Pkt"); }

    /// The first entry of the iovec table in use: 2 while there is no data, 1 with shared data
    /// only, 0 with private data.
    uint8_t firstIoVec() const { return firstIoVec_; }
    /// Entries in use, from `firstIoVec()` to the last.
    uint32_t numIovecs() const { return maxIovecs_ - firstIoVec_; }
    /// Entry `i` of the table, in use or not.
    /// @throws Mox::RangeException "no such iovec" from `maxIovecs_` on.
    const Iovec& iovec(uint32_t i) const MOX_LIFETIME_BOUND {
        if (i >= maxIovecs_) {
            throwNoSuchIovec();
        }
        return iovecs_[i];
    }
    /// @throws Mox::RangeException "no such iovec"
    [[noreturn]] static void throwNoSuchIovec();
    /// The entries in use, in the order of their bytes.
    std::span<const Iovec> iovecs() const MOX_LIFETIME_BOUND {
        return {iovecs_ + firstIoVec_, numIovecs()};
    }
    /// Writes them into a table of `{data, bytes}` records as system calls take it, such as `iovec`
    /// (readv(2)), and returns how many.
    template <class Piece>
    uint32_t copyIovecs(Piece (&table)[maxIovecs_]) const {
        uint32_t count = 0;
        for (const Iovec& each : iovecs()) {
            table[count++] = {each.data, each.bytes};
        }
        return count;
    }

    /// The start of the first iovec in use, null without data.
    uint8_t* frontData() MOX_LIFETIME_BOUND {
        return firstIoVec_ == maxIovecs_ ? nullptr : iovecs_[firstIoVec_].data;
    }
    const uint8_t* frontData() const MOX_LIFETIME_BOUND {
        return firstIoVec_ == maxIovecs_ ? nullptr : iovecs_[firstIoVec_].data;
    }
    /// The length of the first iovec in use, 0 without data: how far a header may reach.
    uint32_t frontBytes() const {
        return firstIoVec_ == maxIovecs_ ? 0 : iovecs_[firstIoVec_].bytes;
    }
    /// The length of the packet.
    uint32_t totalBytes() const;

    /// Whether all bytes lie in the first iovec in use, as after `linearize()`.
    bool isLinear() const { return frontBytes() == totalBytes(); }
    /// All bytes of a packet in one piece. Fatal for one in two: "isLinear()". The bytes of one
    /// piece are `iovec(i).span()`.
    std::span<uint8_t> span() MOX_LIFETIME_BOUND {
        requireLinear();
        return {frontData(), frontBytes()};
    }
    std::span<const uint8_t> span() const MOX_LIFETIME_BOUND {
        requireLinear();
        return {frontData(), frontBytes()};
    }
    /// Moves the private bytes to the shared data, where there are both. Like
    /// `newSharedHeadData`, it takes a larger buffer where the head room is short; it copies a
    /// buffer that another packet shares. Pointers into the packet are then no longer valid.
    void linearize();
    /// Copies the shared data into a buffer of the same size, head room and tail room, if another
    /// packet shares the present one. Then all operations, prepending included, change this packet
    /// only. A copy that shares nothing is made by `newShallowCopy` and this.
    void unshare();

    /// Null for a packet without one.
    const Mox::Ptr<SharedBuffer>& sharedBuffer() const { return sharedBuffer_; }
    /// Gives a packet without data its buffer, whose data becomes the packet's. Fatal with data:
    /// "firstIoVec_ == maxIovecs_".
    void sharedBufferIs(const Mox::Ptr<SharedBuffer>& buffer);
    /// The size of the shared buffer, 0 without one: the most that it holds without growing.
    uint32_t maxSharedData() const;

    // Head and tail of the shared data. All are fatal without a shared buffer: "sharedBuffer_ !=
    // 0".

    /// Makes room for `n` more bytes before the data and returns where they begin. Where the head
    /// room is short, the data moves to the end of a new buffer that is larger by exactly `n`.
    inline uint8_t* newSharedHeadData(uint32_t n);
    /// Removes `n` bytes from the front.
    inline void delSharedHeadData(uint32_t n);
    /// Makes room for `n` more bytes after the data and returns where they begin. Where the tail
    /// room is short, or the packet shares its buffer and may not go on in it (see above), the
    /// data moves to `n` bytes before the end of a new buffer: of the same
    /// size if head room or tail room alone is at least `n`, else larger by `n`. A buffer that
    /// holds no data and is not shared is used as it is where its size is the right one.
    inline uint8_t* newSharedTailData(uint32_t n);
    /// Removes `n` bytes from the end.
    inline void delSharedTailData(uint32_t n);
    /// Publishes the shared buffer's data as iovec 1. Fatal without data:
    /// "firstIoVec_ != maxIovecs_".
    inline void updateSharedIovec();

    // Head of the packet inside the object, for headers that must not touch a shared buffer.

    /// Makes room for `n` more private bytes before all data and returns where they begin.
    /// Fatal past the private area: "ptrWithinRegion( privateData_, privateArea_,
    /// privateAreaBytes )".
    uint8_t* newPrivateHeadData(uint32_t n);
    /// Removes `n` private bytes from the front. Fatal where there are fewer:
    /// "n <= privateDataBytes_".
    void delPrivateHeadData(uint32_t n);
    /// Publishes the private bytes as iovec 0. Fatal without data, "firstIoVec_ != maxIovecs_", and
    /// with shared data only, "(firstIoVec_ == 0) || (sharedBuffer_ == 0)".
    void updatePrivateIovec();

    // Contents as values.

    /// All bytes of the packet.
    Mox::String stringValue() const;
    /// All bytes of the packet.
    Mox::Bytes bytesValue() const;
    /// As `stringValue()`, with the separate VLAN tag, if there is one, after the first 12 bytes
    /// (the two MAC addresses), or at the end of a shorter packet: TPID, then TCI, in network
    /// order.
    Mox::String stringValueMaybeWithVlan() const;
    /// Adds bytes to the shared data, after it or before it. The bytes that are there are kept.
    void stringValueIs(const Mox::String& value, bool atTail);
    void bytesValueIs(const Mox::Bytes& value, bool atTail);

    // The separate VLAN tag (IEEE 802.1Q-2018, 9.6), in host order.

    /// Set by `newSeparateVlanTag`, cleared by `delSeparateVlanTag`.
    bool hasSeparateVlanTag() const { return hasSeparateVlanTag_; }
    /// Priority in the top 3 bits, then DEI, then the 12-bit VLAN identifier.
    uint16_t separateVlanTci() const { return separateVlanTci_; }
    /// The EtherType of the tag: 0x8100, or 0x88a8 for a service tag.
    uint16_t separateVlanTpid() const { return separateVlanTpid_; }
    /// Sets the tag, in place of one that is there.
    void newSeparateVlanTag(uint16_t tci, uint16_t tpid);
    /// The TPID stays as it was.
    void delSeparateVlanTag();
    /// Replaces the VLAN identifier in the TCI. Fatal above 12 bits:
    /// "( _tciVlanId & ~0x0fff) == 0".
    void tciVlanIdIs(uint16_t vlanId);

    /// Fatal when a word that fences the private area was overwritten: "magicBarrier0_ == magic_".
    void checkMagic() const {
        Mox::require(magicBarrier0_ == magicValue && magic_ == magicValue,
                     "magicBarrier0_ == magic_");
    }

  private:
    friend struct PktPool;

    void requireSharedBuffer() const {
        Mox::require(sharedBuffer_ != nullptr, "sharedBuffer_ != 0");
    }
    void requireLinear() const { Mox::require(isLinear(), "isLinear()"); }
    // The packet's own range in its buffer, which is always within the buffer.
    inline uint32_t headRoom() const;
    inline uint32_t tailRoom() const;
    inline bool mayMoveBuffersRange() const;
    inline void sharedDataIs(uint8_t* data, uint32_t bytes, bool movesBuffersRange);
    // What `newSharedHeadData` and `newSharedTailData` do where they cannot add in place.
    uint8_t* growHead(uint32_t n);
    uint8_t* growTail(uint32_t n);
    void growInto(uint32_t size, uint32_t tailRoom);
    void copyPrivateAndTag(const Pkt& other);

    static constexpr uint32_t magicValue = 0xbeefcafe;

    Iovec iovecs_[maxIovecs_];
    uint8_t firstIoVec_ = maxIovecs_;
    Mox::Ptr<SharedBuffer> sharedBuffer_;
    uint8_t* privateData_ = privateArea_ + privateAreaBytes;
    uint32_t privateDataBytes_ = 0;
    uint32_t magicBarrier0_ = magicValue;
    uint8_t privateArea_[privateAreaBytes];
    uint32_t magic_ = magicValue;
    [[maybe_unused]] uint32_t reserved_ = 0;
    uint16_t separateVlanTci_ = 0;
    uint16_t separateVlanTpid_ = 0;
    bool hasSeparateVlanTag_ = false;
    Pkt* nextFree_ = nullptr;  // In a free list.
};

/// An allocation, and the range of data in it. Fresh, it is all head room. The operations move the
/// range; none allocates or writes a byte. A range that leaves the allocation is fatal:
/// "ptrWithinRegion( data_, buffer_, size_ )" for its start,
/// "ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )" for its end.
class PAVO_EXPORT Pkt::SharedBuffer final : public Mox::Described<Pkt::SharedBuffer> {
  public:
    ~SharedBuffer() override;
    /// Memory is recycled.
    /// @{
    static void* operator new(std::size_t bytes);
    static void operator delete(void* memory, std::size_t bytes);
    /// @}
    static constexpr auto description() { return Mox::classRecord("Pavo::Pkt::SharedBuffer"); }

    /// Bytes allocated.
    uint32_t size() const { return size_; }
    /// Where the data begins.
    uint8_t* data() { return data_; }
    const uint8_t* data() const { return data_; }
    /// The length of the data.
    uint32_t dataBytes() const { return dataBytes_; }
    /// Bytes before the data.
    uint32_t headRoom() const { return static_cast<uint32_t>(data_ - buffer_); }
    /// Bytes after the data.
    uint32_t tailRoom() const { return size_ - headRoom() - dataBytes_; }

    /// Moves the start or the end of the data by `n` bytes.
    /// @{
    void newHeadData(uint32_t n) { rangeIs(headRoom() - int64_t{n}, dataBytes_ + int64_t{n}); }
    void delHeadData(uint32_t n) { rangeIs(headRoom() + int64_t{n}, dataBytes_ - int64_t{n}); }
    void newTailData(uint32_t n) { rangeIs(headRoom(), dataBytes_ + int64_t{n}); }
    void delTailData(uint32_t n) { rangeIs(headRoom(), dataBytes_ - int64_t{n}); }
    /// @}

  private:
    friend class Pkt;
    friend struct PktPool;

    explicit SharedBuffer(uint32_t size);
    static Mox::Ptr<SharedBuffer> create(uint32_t size);
    // Puts the range, which is empty, `tailRoom` bytes before the end.
    void placeEmptyData(uint32_t tailRoom) { rangeIs(int64_t{size_} - tailRoom, 0); }
    // In numbers wide enough for any `n`, before a pointer is made of them.
    void rangeIs(int64_t headRoom, int64_t dataBytes) {
        requireRange(headRoom, dataBytes);
        data_ = buffer_ + headRoom;
        dataBytes_ = static_cast<uint32_t>(dataBytes);
    }
    void requireRange(int64_t headRoom, int64_t dataBytes) const {
        Mox::require(headRoom >= 0 && headRoom <= size_,
                     "ptrWithinRegion( data_, buffer_, size_ )");
        Mox::require(dataBytes >= 0 && headRoom + dataBytes <= size_,
                     "ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )");
    }

    uint8_t* buffer_;
    uint32_t size_;
    uint8_t* data_;
    uint32_t dataBytes_ = 0;
};

inline void Pkt::updateSharedIovec() {
    requireSharedBuffer();
    Mox::require(firstIoVec_ != maxIovecs_, "firstIoVec_ != maxIovecs_");
    iovecs_[1] = {sharedBuffer_->data(), sharedBuffer_->dataBytes()};
}

inline uint32_t Pkt::headRoom() const {
    return static_cast<uint32_t>(iovecs_[1].data - sharedBuffer_->buffer_);
}

inline uint32_t Pkt::tailRoom() const {
    return sharedBuffer_->size_ - headRoom() - iovecs_[1].bytes;
}

// The buffer has no other holder, or its range is the packet's own. With thread-safe pointers the
// other holder may be moving that range on another thread, so it is not looked at.
inline bool Pkt::mayMoveBuffersRange() const {
    const SharedBuffer& buffer = *sharedBuffer_;
    if (__builtin_expect(buffer.references() == 1, 1)) {
        return true;
    }
    return !threadSafePointers() && buffer.data_ == iovecs_[1].data &&
           buffer.dataBytes_ == iovecs_[1].bytes;
}

inline void Pkt::sharedDataIs(uint8_t* data, uint32_t bytes, bool movesBuffersRange) {
    SharedBuffer* const buffer = sharedBuffer_.ptr();
    iovecs_[1] = {data, bytes};
    if (__builtin_expect(movesBuffersRange, 1)) {
        buffer->data_ = data;
        buffer->dataBytes_ = bytes;
    }
}

inline uint8_t* Pkt::newSharedHeadData(uint32_t n) {
    requireSharedBuffer();
    const bool movesBuffersRange = mayMoveBuffersRange();
    if (__builtin_expect(n > headRoom(), 0)) {
        return growHead(n);
    }
    uint8_t* const data = iovecs_[1].data - n;
    sharedDataIs(data, iovecs_[1].bytes + n, movesBuffersRange);
    return data;
}

inline void Pkt::delSharedHeadData(uint32_t n) {
    requireSharedBuffer();
    sharedBuffer_->requireRange(int64_t{headRoom()} + n, int64_t{iovecs_[1].bytes} - n);
    sharedDataIs(iovecs_[1].data + n, iovecs_[1].bytes - n, sharedBuffer_->references() == 1);
}

inline uint8_t* Pkt::newSharedTailData(uint32_t n) {
    requireSharedBuffer();
    const bool mayStay = mayMoveBuffersRange();
    const uint32_t before = iovecs_[1].bytes;
    uint8_t* data = iovecs_[1].data;
    if (!mayStay || n > tailRoom()) {
        if (before != 0 || n > headRoom() || sharedBuffer_->references() != 1) {
            return growTail(n);
        }
        data = sharedBuffer_->buffer_ + (sharedBuffer_->size_ - n);
    }
    sharedDataIs(data, before + n, /*movesBuffersRange=*/true);
    return data + before;
}

inline void Pkt::delSharedTailData(uint32_t n) {
    requireSharedBuffer();
    sharedBuffer_->requireRange(headRoom(), int64_t{iovecs_[1].bytes} - n);
    sharedDataIs(iovecs_[1].data, iovecs_[1].bytes - n, sharedBuffer_->references() == 1);
}

/// Where packets come from. Packets with a buffer of the default size or of `largeBufferSize` are
/// recycled, and so is the memory of other packets and buffers, so that a
/// steady flow of packets does not reach the allocator; each thread keeps its own.
class PAVO_EXPORT Pkt::Manager : public Mox::Described<Pkt::Manager> {
  public:
    /// The size of the buffer that a new packet gets.
    static constexpr uint32_t defaultBufferSize = 1536;

    /// The name serves callers only.
    explicit Manager(Mox::String name);
    static constexpr auto description() { return Mox::classRecord("Pavo::Pkt::Manager"); }

    /// As it was made with.
    const Mox::String& name() const { return name_; }

    /// A packet without data, on a fresh buffer of the default size.
    Mox::Ptr<Pkt> newPkt();
    /// The same on a buffer of another size.
    Mox::Ptr<Pkt> newPkt(uint32_t bufferSize);
    /// The same, with `tailRoom` bytes of the buffer reserved for appending: the head room is the
    /// rest. Fatal where that is more than the buffer: "ptrWithinRegion( data_, buffer_, size_ )".
    Mox::Ptr<Pkt> newPkt(uint32_t bufferSize, uint32_t tailRoom);
    /// A packet with a copy of the bytes, which end where its buffer ends. That has the default
    /// size, else `largeBufferSize`, else the number of bytes, the first of these that is enough.
    Mox::Ptr<Pkt> newPktWith(std::span<const uint8_t> bytes);
    /// A fresh buffer, without data, of `size` or of the default size.
    /// @{
    Mox::Ptr<SharedBuffer> newSharedBuffer() { return newSharedBuffer(defaultBufferSize); }
    Mox::Ptr<SharedBuffer> newSharedBuffer(uint32_t size);
    /// @}
    /// A packet with the same bytes, which shares the buffer of `pkt`; private bytes and separate
    /// VLAN tag are copied.
    Mox::Ptr<Pkt> newShallowCopy(const Mox::Ptr<Pkt>& pkt);

  private:
    Mox::String name_;
};

/// The manager of the process, "Pkt::Manager", made at the first call and held to the end.
PAVO_EXPORT const Mox::Ptr<Pkt::Manager>& globalPktManager();

/// A packet without data, on a buffer of its own of `largeBufferSize` bytes.
PAVO_EXPORT Mox::Ptr<Pkt> pktFactory();

}  // namespace Pavo
