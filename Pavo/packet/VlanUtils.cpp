#include "Pavo/packet/VlanUtils.h"

#include <algorithm>
#include <cstring>

#include "Mox/Assert.h"

#include "Pavo/base/NetOrder.h"
#include "Pavo/packet/EthHdr.h"

namespace Pavo {

namespace {

constexpr uint32_t addressBytes = 12;
constexpr uint32_t tagBytes = 4;
constexpr uint32_t untaggedBytes = addressBytes + 2;
constexpr uint32_t taggedBytes = untaggedBytes + tagBytes;

constexpr uint16_t vlanIdMask = 0x0fff;

// Visits the first `bytes` bytes of the packet, which has them, in one or two pieces: where each
// begins in the packet, at which place of the frame, and how long it is.
template <class Visit>
void forEachPiece(const Pkt& pkt, uint32_t bytes, Visit visit) {
    uint32_t done = 0;
    for (const Pkt::Iovec& iovec : pkt.iovecs()) {
        const uint32_t here = std::min(iovec.bytes, bytes - done);
        if (here != 0) {
            visit(iovec.data, done, here);
        }
        done += here;
    }
}

// A copy of the front of a frame, to be changed and written back: it need not lie in one piece, and
// all private bytes, which a tag may have to move, are in it.
class Front {
  public:
    Front(const Pkt& pkt, uint32_t bytes) {
        forEachPiece(pkt, bytes, [this](const uint8_t* data, uint32_t at, uint32_t here) {
            std::memcpy(bytes_ + at, data, here);
        });
    }

    void writeTo(const Pkt& pkt, uint32_t bytes) const {
        forEachPiece(pkt, bytes, [this](uint8_t* data, uint32_t at, uint32_t here) {
            std::memcpy(data, bytes_ + at, here);
        });
    }

    // The TPID of a tagged frame, the type field of any other.
    uint16_t type() const { return loadNet<uint16_t>(bytes_ + addressBytes); }
    uint16_t tci() const { return loadNet<uint16_t>(bytes_ + untaggedBytes); }
    void tciIs(uint16_t tci) { storeNet(bytes_ + untaggedBytes, tci); }

    // Moves what follows the addresses to both sides of a new tag; `bytes` were copied.
    void insertTag(uint32_t bytes, uint16_t tpid, uint16_t tci) {
        std::memmove(bytes_ + addressBytes + tagBytes, bytes_ + addressBytes, bytes - addressBytes);
        storeNet(bytes_ + addressBytes, tpid);
        tciIs(tci);
    }
    // The reverse.
    void removeTag(uint32_t bytes) {
        std::memmove(bytes_ + addressBytes, bytes_ + addressBytes + tagBytes,
                     bytes - addressBytes - tagBytes);
    }

  private:
    uint8_t bytes_[Pkt::privateAreaBytes + taggedBytes];
};

// Most frames lie in the shared data, in one piece, where a tag goes in and out by moving the
// addresses: 9 ns for both ways, where 31 are taken by way of a copy.
bool isInOnePiece(const Pkt& pkt) {
    return pkt.firstIoVec() == 1;
}

void moveAddresses(uint8_t* to, const uint8_t* from) {
    uint8_t addresses[addressBytes];
    std::memcpy(addresses, from, addressBytes);
    std::memcpy(to, addresses, addressBytes);
}

uint32_t privateBytes(const Pkt& pkt) {
    return pkt.firstIoVec() == 0 ? pkt.iovec(0).bytes : 0;
}

bool takesTag(const Pkt& pkt) {
    return pkt.sharedBuffer() != nullptr && pkt.totalBytes() >= untaggedBytes;
}

// The TPID of a tagged frame, the type field of any other.
uint16_t typeOf(const Pkt& pkt) {
    return isInOnePiece(pkt) ? loadNet<uint16_t>(pkt.frontData() + addressBytes)
                             : Front(pkt, untaggedBytes).type();
}

// Whether the frame begins with a tag whose TPID `isWanted`.
template <class IsWanted>
bool hasTagInData(const Pkt& pkt, IsWanted isWanted) {
    return pkt.totalBytes() >= taggedBytes && isWanted(typeOf(pkt));
}

bool isDot1Q(uint16_t tpid) {
    return tpid == EthType::dot1Q;
}

bool isAnyTpid(uint16_t tpid) {
    return tpid == EthType::dot1Q || tpid == EthType::dot1Ad;
}

// Of a frame that begins with a tag. What stands before the four bytes that go is moved over them,
// which is the two addresses alone unless the packet has more private bytes.
void removeTagFromData(const Mox::Ptr<Pkt>& pkt) {
    if (isInOnePiece(*pkt)) {
        uint8_t* const frame = pkt->frontData();
        pkt->delSharedHeadData(tagBytes);
        return moveAddresses(frame + tagBytes, frame);
    }
    const uint32_t copied = std::max(privateBytes(*pkt), addressBytes) + tagBytes;
    const uint32_t bytes = std::min(copied, pkt->totalBytes());
    Front front(*pkt, bytes);
    if (pkt->iovec(1).bytes >= tagBytes) {
        pkt->delSharedHeadData(tagBytes);
    } else {
        pkt->delPrivateHeadData(tagBytes);
    }
    front.removeTag(bytes);
    front.writeTo(*pkt, bytes - tagBytes);
}

template <class IsWanted>
void stripTag(const Mox::Ptr<Pkt>& pkt, IsWanted isWanted) {
    if (pkt->hasSeparateVlanTag()) {
        if (isWanted(pkt->separateVlanTpid())) {
            pkt->delSeparateVlanTag();
        }
    } else if (hasTagInData(*pkt, isWanted)) {
        removeTagFromData(pkt);
    }
}

}  // namespace

void addTagToSharedHeadData(const Mox::Ptr<Pkt>& pkt, uint16_t vlanId, uint16_t tpid) {
    if (!takesTag(*pkt)) {
        return;
    }
    if (isInOnePiece(*pkt)) {
        uint8_t* const frame = pkt->newSharedHeadData(tagBytes);
        moveAddresses(frame, frame + tagBytes);
        storeNet(frame + addressBytes, tpid);
        return storeNet<uint16_t>(frame + untaggedBytes, vlanId & vlanIdMask);
    }
    const uint32_t bytes = std::max(privateBytes(*pkt), addressBytes);
    Front front(*pkt, bytes);
    pkt->newSharedHeadData(tagBytes);
    front.insertTag(bytes, tpid, vlanId & vlanIdMask);
    front.writeTo(*pkt, bytes + tagBytes);
}

void addPktVlanTag(const Mox::Ptr<Pkt>& pkt, uint16_t vlanId) {
    if (!pkt->hasSeparateVlanTag()) {
        addTagToSharedHeadData(pkt, vlanId, EthType::dot1Q);
        return;
    }
    if (!takesTag(*pkt)) {
        return;
    }
    addTagToSharedHeadData(pkt, pkt->separateVlanTci(), pkt->separateVlanTpid());
    pkt->newSeparateVlanTag(vlanId, EthType::dot1Q);
}

void stripPktVlanTagSet(const Mox::Ptr<Pkt>& pkt, const std::set<uint16_t>& tpids) {
    stripTag(pkt, [&tpids](uint16_t tpid) { return tpids.count(tpid) != 0; });
}

void stripPktVlanTag(const Mox::Ptr<Pkt>& pkt) {
    stripTag(pkt, isDot1Q);
}

void maybeOffloadAnyVlanTag(const Mox::Ptr<Pkt>& pkt) {
    if (pkt->hasSeparateVlanTag() || !hasTagInData(*pkt, isAnyTpid)) {
        return;
    }
    const Front tagged(*pkt, taggedBytes);
    removeTagFromData(pkt);
    pkt->newSeparateVlanTag(tagged.tci(), tagged.type());
}

Mox::Ptr<Pkt> pktWithTagInFrame(const Mox::Ptr<Pkt>& pkt) {
    if (!pkt->hasSeparateVlanTag() || pkt->totalBytes() < untaggedBytes) {
        return pkt;
    }
    const uint32_t before = privateBytes(*pkt);
    const uint32_t bytes = std::max(before, addressBytes);
    if (bytes + tagBytes > Pkt::privateAreaBytes) {
        const Mox::Ptr<Pkt> copy = globalPktManager()->newPkt(pkt->totalBytes() + tagBytes);
        copy->stringValueIs(pkt->stringValueMaybeWithVlan(), /*atTail=*/true);
        return copy;
    }
    Front front(*pkt, bytes);
    front.insertTag(bytes, pkt->separateVlanTpid(), pkt->separateVlanTci());
    const Mox::Ptr<Pkt> tagged = globalPktManager()->newShallowCopy(pkt);
    tagged->delSeparateVlanTag();
    if (bytes > before) {
        tagged->delSharedHeadData(bytes - before);
    }
    tagged->newPrivateHeadData(bytes + tagBytes - before);
    front.writeTo(*tagged, bytes + tagBytes);
    return tagged;
}

void fixupPktVlanTag(const Mox::Ptr<Pkt>& pkt, uint16_t vlanId, bool rewrite) {
    if (!rewrite) {
        return;
    }
    if (pkt->hasSeparateVlanTag()) {
        if (isDot1Q(pkt->separateVlanTpid())) {
            pkt->tciVlanIdIs(vlanId);
        }
        return;
    }
    if (!hasTagInData(*pkt, isDot1Q)) {
        return;
    }
    Mox::require((vlanId & ~vlanIdMask) == 0, "( _tciVlanId & ~0x0fff) == 0");
    Front front(*pkt, taggedBytes);
    front.tciIs(static_cast<uint16_t>((front.tci() & ~vlanIdMask) | vlanId));
    front.writeTo(*pkt, taggedBytes);
}

uint16_t vlanIdFromEthPkt(const Mox::Ptr<Pkt>& pkt) {
    if (pkt->hasSeparateVlanTag()) {
        return isDot1Q(pkt->separateVlanTpid()) ? pkt->separateVlanTci() & vlanIdMask : 0;
    }
    return hasTagInData(*pkt, isDot1Q) ? Front(*pkt, taggedBytes).tci() & vlanIdMask : 0;
}

}  // namespace Pavo
