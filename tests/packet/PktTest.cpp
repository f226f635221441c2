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

#include "Pavo/Pkt.h"
#include "support/Errors.h"

namespace Pavo {
namespace {

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
    const std::string d1436(1436, 'd');
    const std::string d1533(1533, 'd');
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
        {"head: 4 into 3 bytes of 1536", 3, d1533, 0, false, 4, false, 1540, 3, 0},
        {"tail: all of the room", 3, "data", 5, true, 5, true, 12, 3, 0},
        {"tail: head room alone is enough", 6, "data", 5, true, 6, false, 15, 5, 0},
        {"tail: 10 with 100 bytes before", 100, d1436, 0, true, 10, false, 1536, 90, 0},
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

    std::memcpy(copy->newSharedHeadData(4), "head", 4);  // There is room: written in place.
    EXPECT_EQ(copy->sharedBuffer(), pkt->sharedBuffer());
    EXPECT_EQ(contents(pkt), "prishared");
    EXPECT_EQ(contents(globalPktManager()->newShallowCopy(pkt)), "prishared");

    std::memcpy(copy->newSharedTailData(3), "far", 3);  // No room: the copy leaves.
    EXPECT_NE(copy->sharedBuffer(), pkt->sharedBuffer());
    EXPECT_EQ(contents(copy), "ownheadsharedfar");
    EXPECT_EQ(contents(pkt), "prishared");

    const auto empty = globalPktManager()->newPkt();  // As an empty one leaves.
    const auto left = globalPktManager()->newShallowCopy(empty);
    left->newSharedTailData(1);
    EXPECT_EQ(empty->sharedBuffer()->headRoom(), 1536u);
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
        EXPECT_EQ(rangeErrorOf([&] { (void)pkt->iovec(i); }), "no such iovec");
    }
}

TEST(Pkt, IsAllHeadRoomAndWithoutATagWhereverItsMemoryComesFrom) {
    auto pkt = globalPktManager()->newPkt();
    pkt->newSeparateVlanTag(0xa123, 0x88a8);
    pkt->newPrivateHeadData(3);
    pkt->newSharedTailData(5);
    pkt = nullptr;
    for (const auto& [made, size] :
         {std::pair(globalPktManager()->newPkt(), 1536u), std::pair(pktFactory(), 10000u)}) {
        EXPECT_EQ(made->maxSharedData(), size);
        EXPECT_EQ(made->sharedBuffer()->headRoom(), size);
        EXPECT_EQ(contents(made), "");
        EXPECT_EQ(made->numIovecs(), 1u);
        EXPECT_FALSE(made->hasSeparateVlanTag());
        EXPECT_EQ(made->separateVlanTci(), 0);
        EXPECT_EQ(made->separateVlanTpid(), 0);
    }
}

// A packet beside its shared data. Of the packets on one buffer one is the owner, which alone
// changes the data; what the others hold must stay.
struct Modelled {
    Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt();
    std::string data;
    bool isOwner = true;
    // How far the owner's data reaches beyond that of all others, at each end. Below zero, in-place
    // growth would write over data that another packet still shows.
    int64_t ahead = 0, behind = 0;

    bool isAlone() const { return pkt->sharedBuffer()->references() == 1; }
};

class Model {
  public:
    void step() {
        Modelled& m = pkts_[below(6)];
        const Pkt::SharedBuffer* before = m.pkt->sharedBuffer().ptr();
        const uint32_t kind = below(4);
        if (kind == 0) {
            replace(m);
        } else if (m.isOwner) {
            kind == 1 ? shrink(m) : grow(m);
        }
        if (m.pkt->sharedBuffer().ptr() != before && m.isOwner) {
            m.ahead = m.behind = 0;  // A buffer of its own.
        }
        for (const Modelled& each : pkts_) {
            ASSERT_EQ(contents(each.pkt), each.data);
        }
    }

  private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }

    void grow(Modelled& m) {
        const std::string more(below(below(7) == 0 ? 700 : 24), static_cast<char>(random_()));
        const bool atTail = below(2) == 0;
        int64_t& over = atTail ? m.behind : m.ahead;
        if (over < 0 && !m.isAlone()) {
            return;
        }
        m.pkt->stringValueIs(Mox::String(more), atTail);
        m.data.insert(atTail ? m.data.size() : 0, more);
        over += static_cast<int64_t>(more.size());
    }

    void shrink(Modelled& m) {
        const uint32_t n = below(static_cast<uint32_t>(m.data.size()) + 1);
        if (below(2) == 0) {
            m.pkt->delSharedHeadData(n);
            m.data.erase(0, n);
            m.ahead -= n;
        } else {
            m.pkt->delSharedTailData(n);
            m.data.resize(m.data.size() - n);
            m.behind -= n;
        }
    }

    // The packet gives way to a new one, or to a copy of any.
    void replace(Modelled& m) {
        if (below(4) == 0) {
            m = Modelled();
            return;
        }
        Modelled& original = pkts_[below(6)];
        if (original.isAlone()) {
            original.ahead = original.behind = 0;
        }
        original.ahead = std::min<int64_t>(original.ahead, 0);
        original.behind = std::min<int64_t>(original.behind, 0);
        Modelled copy = original;
        copy.pkt = globalPktManager()->newShallowCopy(original.pkt);
        copy.isOwner = &m == &original && original.isOwner;  // It then takes the original's place.
        m = std::move(copy);
    }

    std::mt19937 random_;
    std::vector<Modelled> pkts_ = std::vector<Modelled>(6);
};

TEST(Pkt, ActsAsStringsOfWhichNoneChangesAnother) {
    Model model;
    for (int step = 0; step < 100000 && !HasFatalFailure(); ++step) {
        SCOPED_TRACE(step);
        model.step();
    }
}

TEST(Pkt, ShowsTheSeparateTagBehindTheAddresses) {
    const auto pkt = pktWith(0, "ddddddssssssTY", 0);
    pkt->newSeparateVlanTag(0xb123, 0x88a8);
    EXPECT_EQ(pkt->stringValueMaybeWithVlan(),
              "ddddddssssss"
              "\x88\xa8\xb1\x23TY");
}

TEST(PktDeath, DiesWithThePromisedText) {
    const char* const dataOut = "ptrWithinRegion\\( data_, buffer_, size_ \\)";
    const char* const endOut = "ptrWithinRegion\\( data_ \\+ dataBytes_, buffer_, size_ \\)";
    const auto buffer = [](uint32_t size) { return globalPktManager()->newSharedBuffer(size); };
    const struct {
        const char* text;
        std::function<void()> act;
    } cases[] = {
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->newSharedHeadData(0); }},
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->newSharedTailData(0); }},
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->delSharedHeadData(0); }},
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->delSharedTailData(0); }},
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->sharedBufferIs(nullptr); }},
        {"firstIoVec_ == maxIovecs_", [&] { pktFactory()->sharedBufferIs(buffer(4)); }},
        {"firstIoVec_ != maxIovecs_", [] { Mox::make<Pkt>()->updatePrivateIovec(); }},
        {"\\(firstIoVec_ == 0\\) \\|\\| \\(sharedBuffer_ == 0\\)",
         [] { pktFactory()->updatePrivateIovec(); }},
        {dataOut, [] { pktWith(1, "four", 1)->delSharedHeadData(6); }},
        {dataOut, [&] { buffer(4)->newHeadData(5); }},
        {dataOut, [&] { buffer(4)->newHeadData(0xffffffff); }},
        // Into the tail room: more than there is, though both ends stay in the buffer.
        {endOut, [] { pktWith(1, "four", 1)->delSharedHeadData(5); }},
        {endOut, [] { pktWith(1, "four", 1)->delSharedTailData(5); }},
        {endOut, [&] { buffer(4)->newTailData(1); }},
        // Two lengths that make a small one modulo 2^32.
        {endOut, [] { pktWith(0, "four", 4)->sharedBuffer()->newTailData(0xfffffffe); }},
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
