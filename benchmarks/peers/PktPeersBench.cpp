// Packets beside those of a data plane, which are compiled for this machine's processor.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "Pavo/BuildPkt.h"
#include "Pavo/Pkt.h"
#include "Pavo/PktUtils.h"
#include "Pavo/UdpHdr.h"
#include "Pavo/VlanUtils.h"
#include "peers/DpdkPeers.h"

namespace {

using namespace Pavo;

constexpr std::size_t rounds = 64;
const IpAddr src("10.0.0.1");
const IpAddr dst("10.0.0.2");
const EthAddr srcMac("34:34:34:34:34:34");
const EthAddr dstMac("12:12:12:12:12:12");

template <class Hdr>
Hdr* newHeader(Pkt& pkt) {
    return new (pkt.newSharedHeadData(sizeof(Hdr))) Hdr;
}

void addPlainHeaders(Pkt& pkt) {
    std::memset(pkt.newSharedHeadData(sizeof(UdpHdr)), 0x45, sizeof(UdpHdr));
    std::memset(pkt.newSharedHeadData(sizeof(IpHdr)), 0x45, sizeof(IpHdr));
    std::memset(pkt.newSharedHeadData(sizeof(EthHdr)), 0x45, sizeof(EthHdr));
}

void addHeaders(Pkt& pkt, uint32_t payloadBytes) {
    auto* const udp = newHeader<UdpHdr>(pkt);
    const auto udpBytes = static_cast<uint16_t>(sizeof(UdpHdr) + payloadBytes);
    udp->srcPortIs(49152);
    udp->dstPortIs(3784);
    udp->udpLenIs(udpBytes);
    udp->checksumIs(udp->computedChecksum({src, dst, udpBytes}));
    auto* const ip = newHeader<IpHdr>(pkt);
    ip->versionIs(4);
    ip->headerLenIs(5);
    ip->totalLenIs(static_cast<uint16_t>(sizeof(IpHdr) + udpBytes));
    ip->ttlIs(255);
    ip->protocolNumIs(IpProtocolNumber::udp);
    ip->srcIs(src);
    ip->dstIs(dst);
    ip->checksumIs(ip->computedChecksum());
    auto* const eth = newHeader<EthHdr>(pkt);
    eth->dstIs(dstMac);
    eth->srcIs(srcMac);
    eth->typeIs(EthType::ip);
}

// `Work` in a loop of `rounds`.
template <class Work>
void run(benchmark::State& state, Work work) {
    if (!DpdkPeers::started()) {
        return state.SkipWithError("DPDK cannot be started here");
    }
    for (auto _ : state) {
        work();
    }
    state.SetItemsProcessed(static_cast<int64_t>(rounds) * state.iterations());
}

// Payloads that begin at each cache line of a page in turn. Where one begins a multiple of 4096
// bytes after the end of the packet before, the copy waits for its stores, which takes 10 ns.
class Payloads {
  public:
    const uint8_t* next() {
        place_ = (place_ + 64) % 4096;
        return bytes_.data() + place_;
    }

  private:
    std::vector<uint8_t> bytes_ = std::vector<uint8_t>(2 * 4096, 0x5a);
    std::size_t place_ = 0;
};

template <bool withChecksums>
void pavoLife(benchmark::State& state) {
    Payloads payloads;
    const auto bytes = static_cast<uint32_t>(state.range(0));
    const Mox::Ptr<Pkt::Manager> manager = globalPktManager();
    run(state, [&] {
        const uint8_t* const payload = payloads.next();
        for (std::size_t i = 0; i < rounds; ++i) {
            const Mox::Ptr<Pkt> pkt = manager->newPkt();
            std::memcpy(pkt->newSharedTailData(bytes), payload, bytes);
            if (withChecksums) {
                addHeaders(*pkt, bytes);
            } else {
                addPlainHeaders(*pkt);
            }
            benchmark::DoNotOptimize(pkt->frontData());
            benchmark::ClobberMemory();
        }
    });
}

template <bool withChecksums>
void dpdkLife(benchmark::State& state) {
    Payloads payloads;
    run(state, [&] {
        DpdkPeers::lives(payloads.next(), static_cast<uint16_t>(state.range(0)), withChecksums,
                         rounds);
    });
}

// With a payload of so many bytes.
Mox::Ptr<Pkt> frameOf(int64_t bytes) {
    return buildPkt(Eth{dstMac, srcMac}, Ip{.src = src, .dst = dst}, Udp{49152, 3784},
                    std::string(static_cast<std::size_t>(bytes), 'x'));
}

bool isGood(const Mox::Ptr<Pkt>& pkt) {
    EthHdr* eth;
    IpHdr* ip;
    if (checkEthIpHdr(pkt, eth, ip) != PktErrors::noError) {
        return false;
    }
    const auto udp = tryHdr<UdpHdr>(pkt, uint32_t{sizeof(EthHdr)} + ip->headerBytes());
    return udp && udp->udpLen() <= ip->payloadLen() &&
           udp->computedChecksum({ip->src(), ip->dst(), udp->udpLen()}) == IpChecksum(0xffff);
}

void pavoCheck(benchmark::State& state) {
    const Mox::Ptr<Pkt> pkt = frameOf(state.range(0));
    run(state, [&] {
        for (std::size_t i = 0; i < rounds; ++i) {
            benchmark::ClobberMemory();
            if (!isGood(pkt)) {
                return state.SkipWithError("a good frame was refused");
            }
        }
    });
}

void dpdkCheck(benchmark::State& state) {
    const Mox::Ptr<Pkt> pkt = frameOf(state.range(0));
    run(state, [&] {
        if (DpdkPeers::checks(pkt->frontData(), static_cast<uint16_t>(pkt->frontBytes()), rounds) !=
            rounds) {
            state.SkipWithError("a good frame was refused");
        }
    });
}

void pavoVlan(benchmark::State& state) {
    const Mox::Ptr<Pkt> pkt = frameOf(state.range(0));
    run(state, [&] {
        for (std::size_t i = 0; i < rounds; ++i) {
            addTagToSharedHeadData(pkt, 100, EthType::dot1Q);
            benchmark::ClobberMemory();
            stripPktVlanTag(pkt);
            benchmark::ClobberMemory();
        }
    });
}

void dpdkVlan(benchmark::State& state) {
    const Mox::Ptr<Pkt> pkt = frameOf(state.range(0));
    run(state, [&] {
        DpdkPeers::vlanTags(pkt->frontData(), static_cast<uint16_t>(pkt->frontBytes()), rounds);
    });
}

BENCHMARK(pavoLife<false>)->Name("DataPlanePkt64/pavo")->Arg(64);
BENCHMARK(dpdkLife<false>)->Name("DataPlanePkt64/dpdk")->Arg(64);
BENCHMARK(pavoLife<false>)->Name("DataPlanePkt1400/pavo")->Arg(1400);
BENCHMARK(dpdkLife<false>)->Name("DataPlanePkt1400/dpdk")->Arg(1400);
BENCHMARK(pavoLife<true>)->Name("DataPlanePktSums64/pavo")->Arg(64);
BENCHMARK(dpdkLife<true>)->Name("DataPlanePktSums64/dpdk")->Arg(64);
BENCHMARK(pavoLife<true>)->Name("DataPlanePktSums1400/pavo")->Arg(1400);
BENCHMARK(dpdkLife<true>)->Name("DataPlanePktSums1400/dpdk")->Arg(1400);
BENCHMARK(pavoCheck)->Name("DataPlaneCheck64/pavo")->Arg(64);
BENCHMARK(dpdkCheck)->Name("DataPlaneCheck64/dpdk")->Arg(64);
BENCHMARK(pavoCheck)->Name("DataPlaneCheck1400/pavo")->Arg(1400);
BENCHMARK(dpdkCheck)->Name("DataPlaneCheck1400/dpdk")->Arg(1400);
BENCHMARK(pavoVlan)->Name("DataPlaneVlan/pavo")->Arg(64);
BENCHMARK(dpdkVlan)->Name("DataPlaneVlan/dpdk")->Arg(64);

}  // namespace
