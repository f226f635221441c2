#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Mox/Exception.h"

#include "Pavo/Pkt.h"

namespace Pavo {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool recycles = false;
#elif defined(__has_feature)
constexpr bool recycles = !__has_feature(address_sanitizer);
#else
constexpr bool recycles = true;
#endif

// A packet on a buffer of `head + data.size() + tail` bytes.
Mox::Ptr<Pkt> pktWith(uint32_t head, const std::string& data, uint32_t tail) {
    const auto pkt = Mox::make<Pkt>();
    const auto size = static_cast<uint32_t>(head + data.size() + tail);
    pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(size));
    pkt->newSharedHeadData(static_cast<uint32_t>(data.size()) + tail);
    pkt->delSharedTailData(tail);
    if (!data.empty()) {
        std::memcpy(pkt->frontData(), data.data(), data.size());
    }
    return pkt;
}

std::string contents(const Mox::Ptr<Pkt>& pkt) {
    return std::string(pkt->stringValue());
}

TEST(Pkt, GrowsByTheStatedNumberOfBytes) {
    const std::string full(1536 - 100, 'd');
    const struct {
        const char* what;
        uint32_t head;
        std::string data;
        uint32_t tail;
        bool atTail;
        uint32_t n;
        bool sameBuffer;
        uint32_t size, headAfter, tailAfter;
    } cases[] = {
        {"head: all of the room", 3, "data", 5, false, 3, true, 12, 0, 5},
        {"head: one byte short", 3, "data", 5, false, 4, false, 16, 8, 0},
        {"head: 4 into 3 bytes of 1536", 3, std::string(1533, 'd'), 0, false, 4, false, 1540, 3, 0},
        {"head: nothing", 0, "data", 0, false, 0, true, 4, 0, 0},
        {"tail: all of the room", 3, "data", 5, true, 5, true, 12, 3, 0},
        {"tail: head room alone is enough", 6, "data", 5, true, 6, false, 15, 5, 0},
        {"tail: only both rooms together are enough", 5, "data", 5, true, 6, false, 20, 10, 0},
        {"tail: 10 with 100 bytes before", 100, full, 0, true, 10, false, 1536, 90, 0},
        {"tail: 10 with 5 bytes before", 5, full + std::string(95, 'd'), 0, true, 10, false, 1546,
         5, 0},
        {"tail: the whole of an empty buffer", 12, "", 0, true, 12, true, 12, 0, 0},
        {"tail: more than an empty buffer", 12, "", 0, true, 13, false, 25, 12, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto pkt = pktWith(c.head, c.data, c.tail);
        const Pkt::SharedBuffer* before = pkt->sharedBuffer().ptr();
        const std::string added(c.n, 'n');
        uint8_t* fresh = c.atTail ? pkt->newSharedTailData(c.n) : pkt->newSharedHeadData(c.n);
        if (c.n != 0) {
            std::memcpy(fresh, added.data(), c.n);
        }
        const Pkt::SharedBuffer& after = *pkt->sharedBuffer();
        EXPECT_EQ(&after == before, c.sameBuffer);
        EXPECT_EQ(after.size(), c.size);
        EXPECT_EQ(after.headRoom(), c.headAfter);
        EXPECT_EQ(after.tailRoom(), c.tailAfter);
        EXPECT_EQ(contents(pkt), c.atTail ? c.data + added : added + c.data);
    }
}

TEST(Pkt, IsMadeAllHeadRoom) {
    const struct {
        Mox::Ptr<Pkt> pkt;
        uint32_t size;
    } cases[] = {{globalPktManager()->newPkt(), 1536}, {pktFactory(), 10000}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.pkt->maxSharedData(), c.size);
        EXPECT_EQ(c.pkt->sharedBuffer()->headRoom(), c.size);
        EXPECT_EQ(c.pkt->numIovecs(), 1u);
        EXPECT_EQ(contents(c.pkt), "");
        EXPECT_FALSE(c.pkt->hasSeparateVlanTag());
    }
}

TEST(Pkt, SharesABufferWithItsShallowCopyUntilThatRunsOutOfRoom) {
    const auto pkt = pktWith(4, "shared", 2);
    pkt->newSeparateVlanTag(0xa123, 0x88a8);
    std::memcpy(pkt->newPrivateHeadData(3), "pri", 3);
    const auto copy = globalPktManager()->newShallowCopy(pkt);
    EXPECT_EQ(copy->sharedBuffer(), pkt->sharedBuffer());
    EXPECT_EQ(contents(copy), "prishared");
    EXPECT_EQ(copy->separateVlanTci(), 0xa123);
    EXPECT_EQ(copy->separateVlanTpid(), 0x88a8);
    EXPECT_TRUE(copy->hasSeparateVlanTag());

    std::memcpy(copy->frontData(), "own", 3);  // The private bytes are each packet's own.
    EXPECT_EQ(contents(pkt), "prishared");

    uint8_t* head = copy->newSharedHeadData(4);  // There is room: written in place.
    EXPECT_EQ(copy->sharedBuffer(), pkt->sharedBuffer());
    EXPECT_EQ(head + 4, pkt->iovec(1).data);
    std::memcpy(head, "head", 4);
    EXPECT_EQ(contents(pkt), "prishared");
    EXPECT_EQ(contents(globalPktManager()->newShallowCopy(pkt)), "prishared");

    std::memcpy(copy->newSharedTailData(3), "far", 3);  // No room: the copy leaves.
    EXPECT_NE(copy->sharedBuffer(), pkt->sharedBuffer());
    EXPECT_EQ(contents(copy), "ownheadsharedfar");
    EXPECT_EQ(contents(pkt), "prishared");
}

TEST(Pkt, LeavesAnEmptyBufferThatAnotherPacketHolds) {
    const auto pkt = globalPktManager()->newPkt();
    const auto copy = globalPktManager()->newShallowCopy(pkt);
    copy->newSharedTailData(1);
    EXPECT_NE(copy->sharedBuffer(), pkt->sharedBuffer());
    EXPECT_EQ(pkt->sharedBuffer()->headRoom(), 1536u);
}

TEST(Pkt, OutlivesTheOriginalOfItsBuffer) {
    auto pkt = pktWith(0, "kept", 0);
    const auto copy = globalPktManager()->newShallowCopy(pkt);
    pkt = nullptr;
    EXPECT_EQ(contents(copy), "kept");
}

TEST(Pkt, FillsThePrivateAreaFromItsEnd) {
    const auto pkt = Mox::make<Pkt>();
    EXPECT_EQ(pkt->frontData(), nullptr);
    uint8_t* first = pkt->newPrivateHeadData(1);
    *first = 'z';
    EXPECT_EQ(pkt->newPrivateHeadData(63), first - 63);
    std::memset(pkt->frontData(), 'a', 63);
    EXPECT_EQ(contents(pkt), std::string(63, 'a') + 'z');
    pkt->checkMagic();

    pkt->delPrivateHeadData(63);
    EXPECT_EQ(contents(pkt), "z");
    pkt->delPrivateHeadData(1);
    EXPECT_EQ(pkt->firstIoVec(), 2);
    pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(8));  // It counts as empty again.

    pkt->newPrivateHeadData(2);
    EXPECT_EQ(pkt->firstIoVec(), 0);
    pkt->delPrivateHeadData(2);
    EXPECT_EQ(pkt->firstIoVec(), 1);
}

TEST(Pkt, ThrowsForAnIovecThatIsNotInTheTable) {
    const auto pkt = pktWith(0, "data", 0);
    EXPECT_EQ(pkt->iovec(0).bytes, 0u);
    EXPECT_EQ(pkt->iovec(1).bytes, 4u);
    for (const uint32_t i : {2u, 0xffffffffu}) {
        try {
            (void)pkt->iovec(i);
            ADD_FAILURE() << i;
        } catch (const Mox::RangeException& e) {
            EXPECT_EQ(e.message(), "no such iovec");
        }
    }
}

// A packet beside one string for its private and one for its shared data. Of the packets on one
// buffer one is the owner, which alone changes shared data; what the others hold must stay.
struct Modelled {
    Mox::Ptr<Pkt> pkt;
    std::string priv, shared;
    bool hasTag = false;
    uint16_t tci = 0, tpid = 0;
    bool isOwner = true;
    // How far the owner's data reaches beyond that of all others, at each end. Below zero, in-place
    // growth would write over data that another packet still shows.
    int64_t ahead = 0, behind = 0;

    bool isAlone() const { return pkt->sharedBuffer()->references() == 1; }
    std::string contents() const { return priv + shared; }
};

class Model {
  public:
    explicit Model(uint32_t seed) : random_(seed), pkts_(6) {
        for (auto& each : pkts_) {
            each.pkt = manager_->newPkt();
        }
    }

    void step() {
        Modelled& m = pkts_[below(static_cast<uint32_t>(pkts_.size()))];
        const Pkt::SharedBuffer* before = m.pkt->sharedBuffer().ptr();
        change(m);
        if (m.pkt->sharedBuffer().ptr() != before && m.isOwner) {
            m.ahead = m.behind = 0;  // A buffer of its own.
        }
        std::string tagged = m.contents();
        if (m.hasTag) {
            tagged.insert(std::min<std::size_t>(12, tagged.size()), net(m.tpid) + net(m.tci));
        }
        ASSERT_EQ(m.pkt->stringValueMaybeWithVlan(), tagged);
        ASSERT_EQ(m.pkt->totalBytes(), m.contents().size());
        ASSERT_EQ(m.pkt->frontBytes(), m.pkt->firstIoVec() == 0 ? m.priv.size() : m.shared.size());
        for (const Modelled& each : pkts_) {
            ASSERT_EQ(contents(each.pkt), each.contents());
        }
    }

  private:
    static std::string net(uint16_t number) {
        return {static_cast<char>(number >> 8), static_cast<char>(number)};
    }
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    uint32_t upTo(const std::string& text) { return below(static_cast<uint32_t>(text.size()) + 1); }
    std::string text() {
        std::string made(below(below(7) == 0 ? 700 : 24), ' ');
        for (auto& c : made) {
            c = static_cast<char>(random_());
        }
        return made;
    }

    void change(Modelled& m) {
        switch (below(5)) {
            case 0:
                return grow(m);
            case 1:
                return shrink(m);
            case 2:
                return changePrivate(m);
            case 3:
                return changeTag(m);
            case 4:
                return replace(m);
        }
    }

    void grow(Modelled& m) {
        const std::string more = text();
        const auto n = static_cast<uint32_t>(more.size());
        const bool atTail = below(2) == 0;
        int64_t& over = atTail ? m.behind : m.ahead;
        if (!m.isOwner || (over < 0 && !m.isAlone())) {
            return;
        }
        switch (below(3)) {
            case 0:
                m.pkt->stringValueIs(Mox::String(more), atTail);
                break;
            case 1:
                m.pkt->bytesValueIs(Mox::Bytes(more.data(), n), atTail);
                break;
            case 2:
                std::memcpy(atTail ? m.pkt->newSharedTailData(n) : m.pkt->newSharedHeadData(n),
                            more.data(), n);
                break;
        }
        m.shared.insert(atTail ? m.shared.size() : 0, more);
        over += n;
    }

    void shrink(Modelled& m) {
        if (!m.isOwner) {
            return;
        }
        const uint32_t n = upTo(m.shared);
        if (below(2) == 0) {
            m.pkt->delSharedHeadData(n);
            m.shared.erase(0, n);
            m.ahead -= n;
        } else {
            m.pkt->delSharedTailData(n);
            m.shared.resize(m.shared.size() - n);
            m.behind -= n;
        }
    }

    void changePrivate(Modelled& m) {
        const uint32_t n = below(24);
        if (below(2) == 0) {
            const uint32_t gone = upTo(m.priv);
            m.pkt->delPrivateHeadData(gone);
            m.priv.erase(0, gone);
        } else if (m.priv.size() + n <= Pkt::privateAreaBytes) {
            const std::string more(n, static_cast<char>(random_()));
            std::memcpy(m.pkt->newPrivateHeadData(n), more.data(), n);
            m.priv.insert(0, more);
        }
    }

    void changeTag(Modelled& m) {
        const auto number = static_cast<uint16_t>(random_());
        switch (below(3)) {
            case 0:
                m.pkt->newSeparateVlanTag(number, 0x88a8);
                m.hasTag = true;
                m.tci = number;
                m.tpid = 0x88a8;
                break;
            case 1:
                m.pkt->delSeparateVlanTag();
                m.hasTag = false;
                m.tci = 0;
                break;
            case 2:
                m.pkt->tciVlanIdIs(number & 0x0fff);
                m.tci = static_cast<uint16_t>((m.tci & 0xf000) | (number & 0x0fff));
                break;
        }
    }

    // The packet gives way to a new one, or to a copy of any.
    void replace(Modelled& m) {
        if (below(4) == 0) {
            m = Modelled();
            m.pkt = manager_->newPkt();
            return;
        }
        Modelled& original = pkts_[below(static_cast<uint32_t>(pkts_.size()))];
        if (original.isAlone()) {
            original.ahead = original.behind = 0;
        }
        original.ahead = std::min<int64_t>(original.ahead, 0);
        original.behind = std::min<int64_t>(original.behind, 0);
        Modelled copy = original;
        copy.pkt = manager_->newShallowCopy(original.pkt);
        copy.isOwner = &m == &original && original.isOwner;  // It then takes the original's place.
        m = std::move(copy);
    }

    Mox::Ptr<Pkt::Manager> manager_ = globalPktManager();
    std::mt19937 random_;
    std::vector<Modelled> pkts_;
};

TEST(Pkt, ActsAsStringsOfWhichNoneChangesAnother) {
    Model model(20000);
    for (int step = 0; step < 100000 && !HasFatalFailure(); ++step) {
        SCOPED_TRACE(step);
        model.step();
    }
}

TEST(Pkt, ShowsTheSeparateTagBehindTheAddressesHoweverTheyAreSpread) {
    const std::string frame = "ddddddssssssTYpayload";
    const std::string tag("\x88\xa8\xb1\x23", 4);
    for (uint32_t length = 0; length <= frame.size(); ++length) {
        for (uint32_t priv = 0; priv <= length; ++priv) {
            const auto pkt = pktWith(4, frame.substr(priv, length - priv), 0);
            if (priv != 0) {
                std::memcpy(pkt->newPrivateHeadData(priv), frame.data(), priv);
            }
            std::string expected = frame.substr(0, length);
            EXPECT_EQ(pkt->stringValueMaybeWithVlan(), expected);
            pkt->newSeparateVlanTag(0xb123, 0x88a8);
            expected.insert(std::min<std::size_t>(12, length), tag);
            EXPECT_EQ(pkt->stringValueMaybeWithVlan(), expected) << length << " " << priv;
        }
    }
}

TEST(Pkt, ChangesOnlyItsBitsOfTheSeparateTag) {
    const auto pkt = globalPktManager()->newPkt();
    pkt->newSeparateVlanTag(0xffff, 0x8100);
    pkt->tciVlanIdIs(0x0abc);
    EXPECT_EQ(pkt->separateVlanTci(), 0xfabc);
    pkt->delSeparateVlanTag();
    EXPECT_FALSE(pkt->hasSeparateVlanTag());
    EXPECT_EQ(pkt->separateVlanTci(), 0);
    EXPECT_EQ(pkt->separateVlanTpid(), 0x8100);
    pkt->tciVlanIdIs(0x0fff);
    EXPECT_EQ(pkt->separateVlanTci(), 0x0fff);
}

TEST(PktDeath, DiesWithThePromisedText) {
    const struct {
        const char* text;
        std::function<void()> act;
    } cases[] = {
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->newSharedHeadData(0); }},
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->delSharedHeadData(0); }},
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->newSharedTailData(0); }},
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->delSharedTailData(0); }},
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->stringValueIs("", true); }},
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->sharedBufferIs(nullptr); }},
        {"firstIoVec_ == maxIovecs_",
         [] { pktFactory()->sharedBufferIs(globalPktManager()->newSharedBuffer()); }},
        {"firstIoVec_ != maxIovecs_", [] { Mox::make<Pkt>()->updatePrivateIovec(); }},
        {"\\(firstIoVec_ == 0\\) \\|\\| \\(sharedBuffer_ == 0\\)",
         [] { pktFactory()->updatePrivateIovec(); }},
        {"ptrWithinRegion\\( data_, buffer_, size_ \\)",
         [] { pktWith(1, "four", 1)->delSharedHeadData(6); }},
        {"ptrWithinRegion\\( data_, buffer_, size_ \\)",
         [] { globalPktManager()->newSharedBuffer(4)->newHeadData(5); }},
        {"ptrWithinRegion\\( data_, buffer_, size_ \\)",
         [] { globalPktManager()->newSharedBuffer(4)->newHeadData(0xffffffff); }},
        // Into the tail room: more than there is, though both ends stay in the buffer.
        {"ptrWithinRegion\\( data_ \\+ dataBytes_, buffer_, size_ \\)",
         [] { pktWith(1, "four", 1)->delSharedHeadData(5); }},
        {"ptrWithinRegion\\( data_ \\+ dataBytes_, buffer_, size_ \\)",
         [] { pktWith(1, "four", 1)->delSharedTailData(5); }},
        {"ptrWithinRegion\\( data_ \\+ dataBytes_, buffer_, size_ \\)",
         [] { globalPktManager()->newSharedBuffer(4)->newTailData(1); }},
        // Two lengths that make a small one modulo 2^32.
        {"ptrWithinRegion\\( data_ \\+ dataBytes_, buffer_, size_ \\)",
         [] { pktWith(0, "four", 4)->sharedBuffer()->newTailData(0xfffffffe); }},
        {"ptrWithinRegion\\( privateData_, privateArea_, privateAreaBytes \\)",
         [] { pktFactory()->newPrivateHeadData(65); }},
        {"n <= privateDataBytes_", [] { pktFactory()->delPrivateHeadData(1); }},
        {"\\( _tciVlanId & ~0x0fff\\) == 0", [] { pktFactory()->tciVlanIdIs(0x1000); }},
        {"magicBarrier0_ == magic_", [] { *(pktFactory()->newPrivateHeadData(64) - 1) ^= 1; }},
        {"magicBarrier0_ == magic_", [] { *(pktFactory()->newPrivateHeadData(64) + 64) ^= 1; }},
    };
    for (const auto& c : cases) {
        EXPECT_DEATH(c.act(), std::string("assertion failed: ") + c.text);
    }
}

TEST(Pkt, FailsToGrowPast32Bits) {
    const auto pkt = pktWith(0, "data", 0);
    EXPECT_THROW(pkt->newSharedHeadData(0xfffffffc), std::bad_alloc);
    EXPECT_THROW(pkt->newSharedTailData(0xffffffff), std::bad_alloc);
    EXPECT_EQ(contents(pkt), "data");
}

// Except under AddressSanitizer, which looks for uses of memory that was freed.
TEST(Pkt, UsesTheMemoryOfAnEndedPacketAgain) {
    const auto places = [](bool grow) {
        const auto pkt = globalPktManager()->newPkt();
        pkt->newSharedHeadData(8);
        if (grow) {
            pkt->newSharedTailData(8);  // Into a second buffer of the default size.
        }
        return std::pair(pkt.ptr(), pkt->frontData());
    };
    (void)places(true);
    EXPECT_EQ(places(false) == places(false), recycles);
    const auto grown = places(true);
    EXPECT_EQ(grown.second == places(true).second || grown.second == places(true).second, recycles);
}

TEST(Pkt, MayEndOnAnotherThreadAndAfterItsOwn) {
    (void)globalPktManager();  // Lives on, and must not be taken for a leak.
    const uint32_t before = Mox::liveObjects();
    std::vector<Mox::Ptr<Pkt>> pkts;
    for (int round = 0; round < 3; ++round) {
        std::thread([&pkts] {
            pkts.clear();  // Made by the thread before.
            for (int i = 0; i < 400; ++i) {
                pkts.push_back(globalPktManager()->newPkt());
                pkts.back()->stringValueIs("made on a thread that ends", /*atTail=*/true);
            }
        }).join();
    }
    EXPECT_EQ(contents(pkts.back()), "made on a thread that ends");
    pkts.clear();
    EXPECT_EQ(Mox::liveObjects(), before);
}

}  // namespace
}  // namespace Pavo
