#include "peers/DpdkPeers.h"

#include <rte_eal.h>
#include <rte_ether.h>
#include <rte_ip.h>
#include <rte_mbuf.h>
#include <rte_memcpy.h>
#include <rte_udp.h>

#include <cstring>

namespace DpdkPeers {

namespace {

rte_mempool* newPool() {
    const char* arguments[] = {
        "peers-bench", "--no-huge", "--no-pci",       "--no-telemetry",           "--no-shconf",
        "-m",          "64",        "--iova-mode=va", "--log-level=lib.eal:error"};
    constexpr int count = sizeof(arguments) / sizeof(*arguments);
    if (rte_eal_init(count, const_cast<char**>(arguments)) < 0) {
        return nullptr;
    }
    return rte_pktmbuf_pool_create("packets", /*n=*/1023, /*cache_size=*/256, /*priv_size=*/0,
                                   RTE_MBUF_DEFAULT_BUF_SIZE, /*socket_id=*/0);
}

rte_mempool* pool() {
    static rte_mempool* const made = newPool();
    return made;
}

rte_mbuf* newPacket(const uint8_t* bytes, uint16_t length) {
    rte_mbuf* const packet = rte_pktmbuf_alloc(pool());
    rte_memcpy(rte_pktmbuf_append(packet, length), bytes, length);
    return packet;
}

template <class Hdr>
Hdr* newHeader(rte_mbuf* packet) {
    return reinterpret_cast<Hdr*>(rte_pktmbuf_prepend(packet, sizeof(Hdr)));
}

void addPlainHeaders(rte_mbuf* packet) {
    std::memset(newHeader<rte_udp_hdr>(packet), 0x45, sizeof(rte_udp_hdr));
    std::memset(newHeader<rte_ipv4_hdr>(packet), 0x45, sizeof(rte_ipv4_hdr));
    std::memset(newHeader<rte_ether_hdr>(packet), 0x45, sizeof(rte_ether_hdr));
}

void addHeaders(rte_mbuf* packet, uint16_t length) {
    auto* const udp = newHeader<rte_udp_hdr>(packet);
    udp->src_port = RTE_BE16(49152);
    udp->dst_port = RTE_BE16(3784);
    udp->dgram_len = rte_cpu_to_be_16(static_cast<uint16_t>(sizeof(*udp) + length));
    udp->dgram_cksum = 0;
    auto* const ip = newHeader<rte_ipv4_hdr>(packet);
    std::memset(ip, 0, sizeof(*ip));
    ip->version_ihl = 0x45;
    ip->total_length = rte_cpu_to_be_16(static_cast<uint16_t>(sizeof(*ip) + sizeof(*udp) + length));
    ip->time_to_live = 255;
    ip->next_proto_id = IPPROTO_UDP;
    ip->src_addr = RTE_BE32(0x0a000001);
    ip->dst_addr = RTE_BE32(0x0a000002);
    ip->hdr_checksum = rte_ipv4_cksum(ip);
    udp->dgram_cksum = rte_ipv4_udptcp_cksum(ip, udp);
    auto* const eth = newHeader<rte_ether_hdr>(packet);
    std::memset(&eth->dst_addr, 0x12, sizeof(eth->dst_addr));
    std::memset(&eth->src_addr, 0x34, sizeof(eth->src_addr));
    eth->ether_type = RTE_BE16(RTE_ETHER_TYPE_IPV4);
}

bool isGood(rte_mbuf* packet) {
    const uint32_t bytes = rte_pktmbuf_data_len(packet);
    const auto* const eth = rte_pktmbuf_mtod(packet, const rte_ether_hdr*);
    if (bytes < sizeof(*eth) + sizeof(rte_ipv4_hdr) ||
        eth->ether_type != RTE_BE16(RTE_ETHER_TYPE_IPV4)) {
        return false;
    }
    const auto* const ip = reinterpret_cast<const rte_ipv4_hdr*>(eth + 1);
    const uint32_t headerBytes = rte_ipv4_hdr_len(ip);
    const uint32_t totalBytes = rte_be_to_cpu_16(ip->total_length);
    if (ip->version_ihl >> 4 != 4 || headerBytes < sizeof(*ip) || headerBytes > totalBytes ||
        totalBytes > bytes - sizeof(*eth) || rte_raw_cksum(ip, headerBytes) != 0xffff) {
        return false;
    }
    const auto* const udp =
        rte_pktmbuf_mtod_offset(packet, const rte_udp_hdr*, sizeof(*eth) + headerBytes);
    const uint32_t udpBytes = rte_be_to_cpu_16(udp->dgram_len);
    return totalBytes - headerBytes >= sizeof(*udp) && udpBytes >= sizeof(*udp) &&
           udpBytes <= totalBytes - headerBytes && rte_ipv4_udptcp_cksum_verify(ip, udp) == 0;
}

void bytesMayChange(const void* bytes) {
    asm volatile("" ::"r"(bytes) : "memory");
}

}  // namespace

uint32_t checksums(const uint8_t* data, std::size_t length, std::size_t times) {
    uint32_t all = 0;
    for (std::size_t i = 0; i < times; ++i) {
        bytesMayChange(data);
        all += rte_raw_cksum(data, length);
    }
    return all;
}

bool started() {
    return pool() != nullptr;
}

void lives(const uint8_t* payload, uint16_t length, bool withChecksums, std::size_t times) {
    for (std::size_t i = 0; i < times; ++i) {
        rte_mbuf* const packet = newPacket(payload, length);
        if (withChecksums) {
            addHeaders(packet, length);
        } else {
            addPlainHeaders(packet);
        }
        bytesMayChange(packet);
        rte_pktmbuf_free(packet);
    }
}

std::size_t checks(const uint8_t* frame, uint16_t length, std::size_t times) {
    rte_mbuf* const packet = newPacket(frame, length);
    std::size_t good = 0;
    for (std::size_t i = 0; i < times; ++i) {
        bytesMayChange(packet);
        good += isGood(packet);
    }
    rte_pktmbuf_free(packet);
    return good;
}

void vlanTags(const uint8_t* frame, uint16_t length, std::size_t times) {
    rte_mbuf* packet = newPacket(frame, length);
    for (std::size_t i = 0; i < times; ++i) {
        packet->vlan_tci = 100;
        rte_vlan_insert(&packet);
        bytesMayChange(packet);
        rte_vlan_strip(packet);
        bytesMayChange(packet);
    }
    rte_pktmbuf_free(packet);
}

bool readEthAddr(const char* text, uint8_t* bytes) {
    return rte_ether_unformat_addr(text, reinterpret_cast<rte_ether_addr*>(bytes)) == 0;
}

}  // namespace DpdkPeers
