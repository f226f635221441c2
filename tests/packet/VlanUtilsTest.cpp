#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/VlanUtils.h"
#include "packet/GuardedPkt.h"

namespace Pavo {
namespace {

std::string net(uint16_t number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

uint16_t numberAt(const std::string& bytes, uint32_t at) {
    return static_cast<uint16_t>(static_cast<uint8_t>(bytes[at]) << 8 |
                                 static_cast<uint8_t>(bytes[at + 1]));
}

// A packet as one string and one tag.
struct Model {
    std::string frame;
    bool hasTag = false;
    uint16_t tci = 0;
    uint16_t tpid = 0;

    bool startsWithTag(uint16_t wanted) const {
        return frame.size() >= 18 && numberAt(frame, 12) == wanted;
    }
    void insert(uint16_t newTci, uint16_t newTpid) {
        if (frame.size() >= 14) {
            frame.insert(12, net(newTpid) + net(newTci));
        }
    }
    void setTag(uint16_t newTci, uint16_t newTpid) {
        hasTag = true;
        tci = newTci;
        tpid = newTpid;
    }
    void strip(uint16_t wanted) {
        if (hasTag && tpid == wanted) {
            hasTag = false;
            tci = 0;
        } else if (!hasTag && startsWithTag(wanted)) {
            frame.erase(12, 4);
        }
    }
};

struct Operation {
    const char* name;
    std::function<void(const Mox::Ptr<Pkt>&)> act;
    std::function<void(Model&)> expected;
};

const std::vector<Operation> operations = {
    {"addTagToSharedHeadData", [](const auto& pkt) { addTagToSharedHeadData(pkt, 0xf123, 0x9100); },
     [](Model& m) { m.insert(0x0123, 0x9100); }},
    {"addPktVlanTag", [](const auto& pkt) { addPktVlanTag(pkt, 0x0456); },
     [](Model& m) {
         if (!m.hasTag) {
             m.insert(0x0456, 0x8100);
         } else if (m.frame.size() >= 14) {
             m.insert(m.tci & 0x0fff, m.tpid);
             m.setTag(0x0456, 0x8100);
         }
     }},
    {"stripPktVlanTag", [](const auto& pkt) { stripPktVlanTag(pkt); },
     [](Model& m) { m.strip(0x8100); }},
    {"stripPktVlanTagSet, of both",
     [](const auto& pkt) {
         stripPktVlanTagSet(pkt, {0x88a8, 0x8100});
     },
     [](Model& m) {
         m.strip((m.hasTag ? m.tpid : 0) == 0x88a8 || m.startsWithTag(0x88a8) ? 0x88a8 : 0x8100);
     }},
    {"stripPktVlanTagSet, of none", [](const auto& pkt) { stripPktVlanTagSet(pkt, {}); },
     [](Model&) {}},
    {"maybeOffloadAnyVlanTag", [](const auto& pkt) { maybeOffloadAnyVlanTag(pkt); },
     [](Model& m) {
         if (!m.hasTag && (m.startsWithTag(0x8100) || m.startsWithTag(0x88a8))) {
             m.setTag(numberAt(m.frame, 14), numberAt(m.frame, 12));
             m.frame.erase(12, 4);
         }
     }},
    {"fixupPktVlanTag", [](const auto& pkt) { fixupPktVlanTag(pkt, 0x0fed, /*rewrite=*/true); },
     [](Model& m) {
         if (m.hasTag && m.tpid == 0x8100) {
             m.tci = static_cast<uint16_t>((m.tci & 0xf000) | 0x0fed);
         } else if (!m.hasTag && m.startsWithTag(0x8100)) {
             m.frame.replace(14, 2, net((numberAt(m.frame, 14) & 0xf000) | 0x0fed));
         }
     }},
    {"fixupPktVlanTag, without rewriting",
     [](const auto& pkt) { fixupPktVlanTag(pkt, 0xffff, /*rewrite=*/false); }, [](Model&) {}},
    {"vlanIdFromEthPkt", [](const auto& pkt) { (void)vlanIdFromEthPkt(pkt); }, [](Model&) {}},
};

void expectIs(const Mox::Ptr<Pkt>& pkt, const Model& model) {
    EXPECT_EQ(std::string(pkt->stringValue()), model.frame);
    EXPECT_EQ(pkt->hasSeparateVlanTag(), model.hasTag);
    if (model.hasTag) {
        EXPECT_EQ(pkt->separateVlanTci(), model.tci);
        EXPECT_EQ(pkt->separateVlanTpid(), model.tpid);
    }
    const uint16_t dataId = model.startsWithTag(0x8100) ? numberAt(model.frame, 14) & 0xfff : 0;
    const uint16_t tagId = model.tpid == 0x8100 ? model.tci & 0xfff : 0;
    EXPECT_EQ(vlanIdFromEthPkt(pkt), model.hasTag ? tagId : dataId);
    pkt->checkMagic();
}

// Frames of every length, up to a page that must not be touched, split between private and shared
// data at every place.
TEST(VlanUtils, ActOnEverySplitAsOnOneString) {
    const struct {
        uint16_t type;
        bool hasTag;
        uint16_t tpid;
    } tags[] = {{0x8100, false, 0},
                {0x88a8, false, 0},
                {0x0800, false, 0},
                {0x8100, true, 0x8100},
                {0x8100, true, 0x88a8}};
    for (uint32_t bytes = 0; bytes <= 60; ++bytes) {
        for (const auto& tag : tags) {
            Model model;
            for (uint32_t i = 0; i < bytes; ++i) {
                model.frame += static_cast<char>(i == 14 ? 0xb1 : 'A' + i);
            }
            const std::string type = net(tag.type);
            for (uint32_t i = 12; i < std::min(bytes, 14u); ++i) {
                model.frame[i] = type[i - 12];
            }
            if (tag.hasTag) {
                model.setTag(0xb123, tag.tpid);
            }
            for (uint32_t priv = 0; priv <= bytes; ++priv) {
                for (const auto& operation : operations) {
                    const GuardedPkt guarded(reinterpret_cast<uint8_t*>(model.frame.data()), bytes,
                                             priv);
                    if (tag.hasTag) {
                        guarded.pkt()->newSeparateVlanTag(model.tci, model.tpid);
                    }
                    Model expected = model;
                    operation.act(guarded.pkt());
                    operation.expected(expected);
                    expectIs(guarded.pkt(), expected);
                    ASSERT_FALSE(HasFailure()) << operation.name << " " << bytes << " " << priv
                                               << std::hex << " " << tag.type << " " << tag.tpid;
                }
            }
        }
    }
}

// Up to a private area that has no room, in packets that have nothing else.
TEST(VlanUtils, LeavePacketsWithoutASharedBufferUntagged) {
    for (uint32_t bytes = 1; bytes <= Pkt::privateAreaBytes; ++bytes) {
        for (const auto& operation : operations) {
            const auto pkt = Mox::make<Pkt>();
            Model model{std::string(bytes, 'f')};
            for (uint32_t i = 12; i < std::min(bytes, 14u); ++i) {
                model.frame[i] = net(0x8100)[i - 12];
            }
            std::memcpy(pkt->newPrivateHeadData(bytes), model.frame.data(), bytes);
            if (std::string_view(operation.name).substr(0, 3) != "add") {
                operation.expected(model);
            }
            operation.act(pkt);
            expectIs(pkt, model);
            ASSERT_FALSE(HasFailure()) << operation.name << " " << bytes;
        }
    }
    const auto pkt = Mox::make<Pkt>();
    for (const auto& operation : operations) {
        operation.act(pkt);
        expectIs(pkt, Model());
    }
}

Mox::Ptr<Pkt> pktWith(const std::string& frame) {
    const auto pkt = globalPktManager()->newPkt();
    pkt->stringValueIs(Mox::String(frame), /*atTail=*/false);
    return pkt;
}

const std::string addresses = "ddddddssssss";

TEST(VlanUtils, MoveTheSeparateTagInwardsWithoutItsPriority) {
    const auto pkt = pktWith(addresses + net(0x0800) + "payload");
    pkt->newSeparateVlanTag(0xb123, 0x88a8);
    addPktVlanTag(pkt, 7);
    expectIs(pkt,
             {addresses + net(0x88a8) + net(0x0123) + net(0x0800) + "payload", true, 7, 0x8100});
    EXPECT_EQ(vlanIdFromEthPkt(pkt), 7);
    stripPktVlanTag(pkt);
    stripPktVlanTag(pkt);  // The tag in the frame has another TPID.
    maybeOffloadAnyVlanTag(pkt);
    expectIs(pkt, {addresses + net(0x0800) + "payload", true, 0x0123, 0x88a8});
    EXPECT_EQ(vlanIdFromEthPkt(pkt), 0);
}

TEST(VlanUtils, GrowABufferByTheFourBytesOfTheTag) {
    const auto pkt = Mox::make<Pkt>();
    pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(20));
    pkt->stringValueIs(Mox::String(addresses + net(0x0800) + "pay"), /*atTail=*/false);
    addPktVlanTag(pkt, 9);
    EXPECT_EQ(pkt->maxSharedData(), 24u);
    EXPECT_EQ(pkt->sharedBuffer()->tailRoom(), 0u);
    expectIs(pkt, {addresses + net(0x8100) + net(9) + net(0x0800) + "pay"});
}

TEST(VlanUtilsDeath, RefusesAnIdentifierAbove12Bits) {
    const auto inData = pktWith(addresses + net(0x8100) + net(1) + net(0x0800));
    const auto separate = pktWith(addresses + net(0x0800));
    separate->newSeparateVlanTag(1, 0x8100);
    for (const auto& pkt : {inData, separate}) {
        EXPECT_DEATH(fixupPktVlanTag(pkt, 0x1000, /*rewrite=*/true),
                     "\\( _tciVlanId & ~0x0fff\\) == 0");
    }
}

}  // namespace
}  // namespace Pavo
