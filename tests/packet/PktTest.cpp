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
#include "Pavo/VlanUtils.h"
#include "support/Errors.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

// A packet on a buffer of `head + data.size() + tail` bytes.
Mox::Ptr<Pkt> pktWith(uint32_t head, const std::string& data, uint32_t tail) {
    const auto size = static_cast<uint32_t>(head + data.size() + tail);
    auto pkt = globalPktManager()->newPkt(size, tail);
    pkt->stringValueIs(data, /*atTail=*/false);
    return pkt;
}

std::string contents(const Mox::Ptr<Pkt>& pkt) {
    return std::string(pkt->stringValue());
}

// Random programs in which packets share buffers, and each keeps the bytes that it has to have.
TEST(Pkt, HoldersOfOneBufferDoNotChangeEachOther) {
    struct Holder {
        Mox::Ptr<Pkt> pkt;
        std::string bytes;
    };
    uint32_t inPlace = 0, programs = 0;
    for (const uint32_t seed : PavoTest::Seeds(500)) {
        ++programs;
        std::mt19937 random(seed);
        const auto below = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
        std::vector<Holder> holders;
        for (int step = 0; step < 60; ++step) {
            if (holders.empty() || random() % 16 == 0) {
                const bool isRecycled = random() % 2 == 0;
                holders.push_back(
                    {isRecycled ? globalPktManager()->newPkt() : pktWith(below(9), "", below(40)),
                     ""});
            }
            const std::size_t at = random() % holders.size();
            auto& [pkt, bytes] = holders[at];
            const uint32_t mine = pkt->iovec(1).bytes;
            const uint32_t n = below(mine + 1);
            const std::string more(random() % 12, static_cast<char>('a' + step % 26));
            const bool isShared = pkt->sharedBuffer()->references() != 1;
            switch (random() % 9) {
                case 0:
                    pkt->delSharedHeadData(n);
                    bytes.erase(bytes.size() - mine, n);
                    break;
                case 1:
                    pkt->delSharedTailData(n);
                    bytes.erase(bytes.size() - n);
                    break;
                case 2: {
                    const Pkt::SharedBuffer* const before = pkt->sharedBuffer().ptr();
                    pkt->stringValueIs(more, /*atTail=*/true);
                    bytes += more;
                    inPlace += isShared && !more.empty() && pkt->sharedBuffer().ptr() == before;
                    break;
                }
                case 3:
                    if (!isShared) {
                        pkt->stringValueIs(more, /*atTail=*/false);
                        bytes.insert(bytes.size() - mine, more);
                    } else if (pkt->firstIoVec() == 1 && !more.empty()) {
                        std::memcpy(pkt->newPrivateHeadData(static_cast<uint32_t>(more.size())),
                                    more.data(), more.size());
                        bytes.insert(0, more);
                    }
                    break;
                case 4:
                    pkt->linearize();
                    ASSERT_EQ(std::string(pkt->span().begin(), pkt->span().end()), bytes);
                    break;
                case 5:
                    pkt->unshare();
                    EXPECT_EQ(pkt->sharedBuffer()->references(), 1u);
                    break;
                case 6:
                    holders.erase(holders.begin() + static_cast<std::ptrdiff_t>(at));
                    break;
                default:
                    if (holders.size() < 5) {
                        const Holder copy{globalPktManager()->newShallowCopy(pkt), bytes};
                        EXPECT_EQ(copy.pkt->sharedBuffer(), pkt->sharedBuffer());
                        holders.push_back(copy);
                    }
            }
            for (const Holder& each : holders) {
                ASSERT_EQ(contents(each.pkt), each.bytes) << "step " << step;
            }
        }
    }
    EXPECT_GE(inPlace, programs / 5);  // Sharing alone copies nothing.
}

TEST(Pkt, HasNothingOfTheOneBeforeInItsMemory) {
    auto pkt = globalPktManager()->newPkt();
    pkt->newSeparateVlanTag(0xa123, 0x88a8);
    pkt->newPrivateHeadData(3);
    pkt->newSharedTailData(5);
    pkt = nullptr;
    pkt = globalPktManager()->newPkt();
    EXPECT_EQ(pkt->sharedBuffer()->headRoom(), 1536u);
    EXPECT_EQ(contents(pkt), "");
    EXPECT_EQ(pkt->numIovecs(), 1u);
    EXPECT_FALSE(pkt->hasSeparateVlanTag() || pkt->separateVlanTci() || pkt->separateVlanTpid());
    EXPECT_EQ(rangeErrorOf([&] { (void)pkt->iovec(2); }), "no such iovec");
}

TEST(PktDeath, StopsTheProcessWithThePromisedText) {
    const char* const dataOut = "ptrWithinRegion\\( data_, buffer_, size_ \\)";
    const char* const endOut = "ptrWithinRegion\\( data_ \\+ dataBytes_, buffer_, size_ \\)";
    const char* const idOut = "\\( _tciVlanId & ~0x0fff\\) == 0";
    const auto pkt = pktWith(1, "four", 1);
    const auto tagged = pktWith(0, std::string("ddddddssssss\x81\0\0\0\0\0", 18), 0);
    const struct {
        const char* text;
        std::function<void()> act;
    } cases[] = {
        {"sharedBuffer_ != 0", [] { Mox::make<Pkt>()->newSharedHeadData(0); }},
        {"firstIoVec_ == maxIovecs_", [&] { pktFactory()->sharedBufferIs(pkt->sharedBuffer()); }},
        {"firstIoVec_ != maxIovecs_", [] { Mox::make<Pkt>()->updatePrivateIovec(); }},
        {dataOut, [&] { pkt->sharedBuffer()->newHeadData(0xffffffff); }},
        // Into the tail room: more than there is, though both ends stay in the buffer.
        {endOut, [&] { pkt->delSharedHeadData(5); }},
        {endOut, [&] { pkt->delSharedTailData(5); }},
        // Two lengths that make a small one modulo 2^32.
        {endOut, [&] { pkt->sharedBuffer()->newTailData(0xfffffffe); }},
        {"ptrWithinRegion\\( privateData_, privateArea_, privateAreaBytes \\)",
         [&] { pkt->newPrivateHeadData(65); }},
        {"n <= privateDataBytes_", [&] { pkt->delPrivateHeadData(1); }},
        {idOut, [&] { pkt->tciVlanIdIs(0x1000); }},
        {idOut, [&] { fixupPktVlanTag(tagged, 0x1000, /*rewrite=*/true); }},
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

TEST(Pkt, MayEndOnAnotherThreadAndAfterItsOwnThread) {
    (void)globalPktManager();  // It stays, and must not be counted as a leak.
    const uint32_t before = Mox::liveObjects();
    std::vector<Mox::Ptr<Pkt>> pkts;
    for (int round = 0; round < 3; ++round) {
        std::thread([&pkts] {
            // It ends after the free lists of the thread.
            thread_local const Mox::Ptr<Pkt> last = globalPktManager()->newPkt();
            EXPECT_EQ(last->references(), 1u);
            pkts.clear();  // Made by the previous thread.
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

// One thread looks, appends or strips while the other does, and the last one to let go recycles.
TEST(PktThreads, HoldersOfOneBufferMayBeOnTwoThreads) {
    Mox::PtrInterface::threadSafePointersIs(true);
    for (uint32_t round = 0; round < 400; ++round) {
        auto mine = globalPktManager()->newPkt();
        mine->newSharedTailData(69);
        mine->delSharedTailData(64);  // Tail room, in which either might append.
        std::memcpy(mine->frontData(), "frame", 5);
        auto yours = globalPktManager()->newShallowCopy(mine);
        const auto use = [](Mox::Ptr<Pkt> pkt, uint32_t how, const std::string& more) {
            pkt->delSharedHeadData(how % 2);
            if (how % 4 < 2) {
                pkt->stringValueIs(more, /*atTail=*/true);
            }
            ASSERT_EQ(contents(pkt),
                      std::string("frame").substr(how % 2) + (how % 4 < 2 ? more : ""));
            pkt = nullptr;
            std::memcpy(globalPktManager()->newPkt()->newSharedTailData(69), "reuse", 5);
        };
        std::thread other(use, std::exchange(yours, nullptr), round, "yours");
        use(std::exchange(mine, nullptr), round / 4, "mine");
        other.join();
    }
    Mox::PtrInterface::threadSafePointersIs(false);
}

#ifdef PAVO_ADDRESS_SANITIZER
// Recycling stays on, so the packet's memory is still there.
TEST(PktDeath, IsFoundWhenItIsUsedAfterItsEnd) {
    auto pkt = globalPktManager()->newPkt();
    const uint8_t* const byte = pkt->newSharedTailData(1);
    const Pkt* const gone = std::exchange(pkt, nullptr).ptr();
    EXPECT_DEATH((void)*static_cast<const volatile uint8_t*>(byte), "use-after-poison");
    EXPECT_DEATH((void)gone->totalBytes(), "use-after-poison");
    EXPECT_EQ(globalPktManager()->newPkt().ptr(), gone);
}
#endif

}  // namespace
}  // namespace Pavo
