// VLAN operations on frames split anywhere, one after the other, beside a string and a tag.

#include <optional>
#include <set>

#include "Pavo/VlanUtils.h"

#include "fuzz/Frames.h"

namespace {

using Pavo::Pkt;

constexpr uint16_t tpids[] = {0x8100, 0x88a8, 0x9100, 0x0800};

struct Tag {
    uint16_t tci;
    uint16_t tpid;

    bool isDot1Q() const { return tpid == 0x8100; }
    uint16_t vlanId() const { return tci & 0x0fff; }
};

// The frame that a sequence of operations makes. A tag in it counts when a type field follows.
class Model {
  public:
    Model(std::string frame, bool hasBuffer) : frame_(std::move(frame)), hasBuffer_(hasBuffer) {}

    void addInFrame(uint16_t vlanId, uint16_t tpid) {
        if (takesTag()) {
            frame_.insert(12, 4, '\0');
            inFrameIs({static_cast<uint16_t>(vlanId & 0x0fff), tpid});
        }
    }
    void add(uint16_t vlanId) {
        if (!apart_) {
            addInFrame(vlanId, 0x8100);
        } else if (takesTag()) {
            addInFrame(apart_->tci, apart_->tpid);
            apart_ = Tag{vlanId, 0x8100};
        }
    }
    void strip(const std::set<uint16_t>& wanted) {
        if (!outermost() || !wanted.contains(outermost()->tpid)) {
            return;
        }
        if (apart_) {
            apart_.reset();
        } else {
            frame_.erase(12, 4);
        }
    }
    void offload() {
        const auto tag = inFrame();
        if (!apart_ && tag && (tag->isDot1Q() || tag->tpid == 0x88a8)) {
            frame_.erase(12, 4);
            apart_ = tag;
        }
    }
    void fixup(uint16_t vlanId, bool rewrite) {
        auto tag = outermost();
        if (!rewrite || !tag || !tag->isDot1Q()) {
            return;
        }
        tag->tci = static_cast<uint16_t>((tag->tci & 0xf000) | vlanId);
        if (apart_) {
            apart_ = tag;
        } else {
            inFrameIs(*tag);
        }
    }
    void apartIs(Tag tag) { apart_ = tag; }

    void requireSame(const Mox::Ptr<Pkt>& pkt) const {
        Mox::require(pkt->stringValue() == frame_, "the frame");
        Mox::require(pkt->hasSeparateVlanTag() == apart_.has_value(), "a separate tag or none");
        if (apart_) {
            Mox::require(pkt->separateVlanTci() == apart_->tci, "the separate tag");
            Mox::require(pkt->separateVlanTpid() == apart_->tpid, "the separate tag's protocol");
        }
        const auto tag = outermost();
        Mox::require(vlanIdFromEthPkt(pkt) == (tag && tag->isDot1Q() ? tag->vlanId() : 0),
                     "its VLAN");
    }

  private:
    bool takesTag() const { return hasBuffer_ && frame_.size() >= 14; }
    // Or what would be one, if its type were a TPID.
    std::optional<Tag> inFrame() const {
        if (frame_.size() < 18) {
            return std::nullopt;
        }
        return Tag{fuzz::loadAt<uint16_t>(frame_, 14), fuzz::loadAt<uint16_t>(frame_, 12)};
    }
    std::optional<Tag> outermost() const { return apart_ ? apart_ : inFrame(); }
    void inFrameIs(Tag tag) {
        auto* bytes = reinterpret_cast<uint8_t*>(frame_.data());
        Pavo::storeNet(bytes + 12, tag.tpid);
        Pavo::storeNet(bytes + 14, tag.tci);
    }

    std::string frame_;
    bool hasBuffer_;
    std::optional<Tag> apart_;
};

void step(const Mox::Ptr<Pkt>& pkt, Model& model, uint8_t op, uint16_t number) {
    const uint16_t vlanId = number & 0x0fff;
    const uint16_t tpid = tpids[number >> 14];
    const bool flag = (number & 0x1000) != 0;
    switch (op % 7) {
        case 0:
            Pavo::addTagToSharedHeadData(pkt, number, tpid);
            return model.addInFrame(number, tpid);
        case 1:
            addPktVlanTag(pkt, number);
            return model.add(number);
        case 2:
            stripPktVlanTagSet(pkt, {tpid, tpids[1]});
            return model.strip({tpid, tpids[1]});
        case 3:
            stripPktVlanTag(pkt);
            return model.strip({0x8100});
        case 4:
            maybeOffloadAnyVlanTag(pkt);
            return model.offload();
        case 5:
            fixupPktVlanTag(pkt, vlanId, flag);
            return model.fixup(vlanId, flag);
        default:
            pkt->newSeparateVlanTag(number, tpid);
            return model.apartIs({number, tpid});
    }
}

}  // namespace

// The split, the head room, the number of operations, the operations, the frame.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint32_t privateBytes = input.u8();
    const uint32_t headRoom = input.u8() % 16;
    const uint32_t steps = input.u8() % 16;
    fuzz::Input operations(input.bytes(3 * steps));
    const std::string frame(input.rest());
    const auto pkt = fuzz::pktOf(frame, privateBytes, headRoom);
    Model model(frame, pkt->sharedBuffer() != nullptr);
    model.requireSame(pkt);
    while (!operations.atEnd()) {
        const uint8_t op = operations.u8();
        step(pkt, model, op, operations.u16());
        model.requireSame(pkt);
    }
    pkt->checkMagic();
    return 0;
}
