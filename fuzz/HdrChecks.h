/// @file
/// The checks of control messages and tunnels, beside plain ones that look at bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Pavo/ArpHdr.h"
#include "Pavo/GreHdr.h"
#include "Pavo/Icmp6NdHdr.h"
#include "Pavo/IgmpHdr.h"
#include "Pavo/IpMsg.h"
#include "Pavo/MimHdr.h"
#include "Pavo/PimHdr.h"
#include "Pavo/PwControlWord.h"
#include "Pavo/VrrpHdr.h"
#include "Pavo/VxlanHdr.h"

#include "fuzz/Frames.h"

namespace fuzz {

using enum Pavo::PktErrors;

inline uint8_t byteAt(std::string_view bytes, std::size_t i) {
    return static_cast<uint8_t>(bytes[i]);
}

/// What an IP packet holds, found by plain looks at its bytes.
struct PlainMsg {
    Pavo::PktErrors error = noError;
    std::string_view bytes = {}, src = {}, dst = {};
    uint32_t proto = 0, ttl = 0;
    uint32_t front = 0;  ///< As many of `bytes` are in the first piece.

    bool isIp6() const { return dst.size() == 16; }
    /// The checksum over the first `n` bytes, which is 0 where it is right.
    uint16_t sum(std::size_t n, bool hasPseudo) const {
        const uint32_t pseudo = plainSum(src, plainSum(dst, proto + static_cast<uint32_t>(n)));
        return folded(plainSum(bytes.substr(0, n), hasPseudo ? pseudo : 0));
    }
    bool isWhole(std::size_t least) const { return front == bytes.size() && front >= least; }
};

inline PlainMsg plainIp4(std::string_view ip, uint32_t front) {
    if (front < 20) {
        return {.error = pktTooShort};
    }
    const uint32_t header = byteAt(ip, 0) % 16 * 4;
    const uint32_t total = loadAt<uint16_t>(ip, 2);
    if (header < 20 || header > total || total > ip.size()) {
        return {.error = badIpPayloadLen};
    }
    if (header > front) {
        return {.error = pktTooShort};
    }
    if (folded(plainSum(ip.substr(0, header), 0)) != 0) {
        return {.error = badIpHdrChecksum};
    }
    if (loadAt<uint16_t>(ip, 6) % 0x4000 != 0) {
        return {.error = ipFragment};
    }
    return {.bytes = ip.substr(header, total - header),
            .src = ip.substr(12, 4),
            .dst = ip.substr(16, 4),
            .proto = byteAt(ip, 9),
            .ttl = byteAt(ip, 8),
            .front = std::min(front, total) - header};
}

inline PlainMsg plainIp6(std::string_view ip, uint32_t front) {
    if (front < 40) {
        return {.error = pktTooShort};
    }
    const uint32_t end = 40u + loadAt<uint16_t>(ip, 4);
    if (end > ip.size()) {
        return {.error = badIp6PayloadLen};
    }
    uint32_t at = 40;
    uint32_t next = byteAt(ip, 6);
    while (next == 0 || next == 43 || next == 60) {
        if (at + 2 > end) {
            return {.error = badIp6PayloadLen};
        }
        if (at + 2 > front) {
            return {.error = pktTooShort};
        }
        const uint32_t bytes = byteAt(ip, at + 1) * 8u + 8u;
        if (at + bytes > end) {
            return {.error = badIp6PayloadLen};
        }
        next = byteAt(ip, at);
        at += bytes;
    }
    if (next == 44) {
        return {.error = ipFragment};
    }
    return {.bytes = ip.substr(at, end - at),
            .src = ip.substr(8, 16),
            .dst = ip.substr(24, 16),
            .proto = next,
            .ttl = byteAt(ip, 7),
            .front = std::max(at, std::min(front, end)) - at};
}

inline PlainMsg plainIp(std::string_view ip, uint32_t front) {
    const uint32_t version = front == 0 ? 0 : byteAt(ip, 0) >> 4;
    return front == 0     ? PlainMsg{.error = pktTooShort}
           : version == 4 ? plainIp4(ip, front)
           : version == 6 ? plainIp6(ip, front)
                          : PlainMsg{.error = nonIpHdr};
}

inline bool isLinkLocal(std::string_view address) {
    return loadAt<uint16_t>(address, 0) >> 6 == 0xfe80 >> 6;
}

inline Pavo::PktErrors plainVrrp(const PlainMsg& msg, Pavo::VrrpSum sum) {
    const std::string_view group =
        msg.isIp6() ? std::string_view("\xff\x02\0\0\0\0\0\0\0\0\0\0\0\0\0\x12", 16)
                    : std::string_view("\xe0\0\0\x12", 4);
    if (msg.proto != 112 || msg.ttl != 255 || msg.dst != group) {
        return msg.proto != 112 ? nonVrrpProto : msg.ttl != 255 ? nonOnLink : nonVrrpDstAddr;
    }
    if (!msg.isWhole(8)) {
        return pktTooShort;
    }
    const std::string_view bytes = msg.bytes;
    const int version = byteAt(bytes, 0) / 16;
    const std::size_t rest = bytes.size() - (version == 2 ? 16 : 8);
    const std::size_t count = byteAt(bytes, 3);
    if ((version != 2 && version != 3) || byteAt(bytes, 0) % 16 != 1) {
        return version == 2 || version == 3 ? badVrrpType : badVrrpVersion;
    }
    if (count == 0 || (version == 2 && bytes.size() < 16) || count * 4 > rest) {
        return badVrrpLen;
    }
    if (msg.isIp6() && (version == 2 || count * 16 > rest)) {
        return version == 2 ? badVrrpVersion : badVrrpLen;
    }
    const bool with = msg.sum(bytes.size(), true) == 0;
    const bool without = msg.sum(bytes.size(), false) == 0;
    const bool isGood = msg.isIp6()                       ? with
                        : version == 2                    ? without
                        : sum == Pavo::VrrpSum::pseudoHdr ? with
                        : sum == Pavo::VrrpSum::message   ? without
                                                          : with || without;
    if (!isGood) {
        return badVrrpChecksum;
    }
    if (version == 2 && bytes[4] != 0) {
        return badVrrpAuth;
    }
    return msg.isIp6() && !(isLinkLocal(msg.src) && isLinkLocal(bytes.substr(8))) ? badVrrpLinkLocal
                                                                                  : noError;
}

inline Pavo::PktErrors plainIgmp(const PlainMsg& msg) {
    if (msg.proto != 2 || msg.isIp6()) {
        return nonIgmpProto;
    }
    if (!msg.isWhole(8)) {
        return pktTooShort;
    }
    const std::string_view bytes = msg.bytes;
    if (msg.sum(bytes.size(), false) != 0) {
        return badIgmpChecksum;
    }
    const auto isGroup = [&](std::size_t at) { return byteAt(bytes, at) / 16 == 0xe; };
    const uint8_t type = byteAt(bytes, 0);
    if (type == 0x11) {
        const std::size_t size = bytes.size();
        if (size != 8 && (size < 12 || 12 + loadAt<uint16_t>(bytes, 10) * 4u > size)) {
            return badIgmpLen;
        }
        return isGroup(4) || loadAt<uint32_t>(bytes, 4) == 0 ? noError : badIgmpGroup;
    }
    if (type == 0x12 || type == 0x16 || type == 0x17) {
        return isGroup(4) ? noError : badIgmpGroup;
    }
    if (type != 0x22) {
        return badIgmpType;
    }
    std::size_t at = 8;
    for (int i = 0; i < loadAt<uint16_t>(bytes, 6); ++i) {
        if (at + 8 > bytes.size()) {
            return badIgmpLen;
        }
        const std::size_t next =
            at + 8 + 4u * (byteAt(bytes, at + 1) + loadAt<uint16_t>(bytes, at + 2));
        if (next > bytes.size() || !isGroup(at + 4)) {
            return next > bytes.size() ? badIgmpLen : badIgmpGroup;
        }
        at = next;
    }
    return noError;
}

inline Pavo::PktErrors plainPim(const PlainMsg& msg) {
    if (msg.proto != 103) {
        return nonPimProto;
    }
    if (msg.front < 4) {
        return pktTooShort;
    }
    if (byteAt(msg.bytes, 0) / 16 != 2) {
        return badPimVersion;
    }
    const bool isRegister = byteAt(msg.bytes, 0) % 16 == 1;
    if (isRegister && msg.front < 8) {
        return msg.bytes.size() < 8 ? badPimLen : pktTooShort;
    }
    const bool isGood =
        msg.sum(msg.bytes.size(), msg.isIp6()) == 0 || (isRegister && msg.sum(8, msg.isIp6()) == 0);
    return isGood ? noError : badPimChecksum;
}

inline Pavo::PktErrors plainGre(const PlainMsg& msg) {
    if (msg.proto != 47) {
        return nonGreProto;
    }
    if (msg.front < 4) {
        return pktTooShort;
    }
    const uint8_t flags = byteAt(msg.bytes, 0);
    if (byteAt(msg.bytes, 1) % 8 != 0 || (flags & 0x4c) != 0) {
        return byteAt(msg.bytes, 1) % 8 != 0 ? badGreVersion : badGreFlags;
    }
    const uint32_t header = 4 + (flags / 128 + flags / 32 % 2 + flags / 16 % 2) * 4u;
    if (header > msg.front) {
        return header > msg.bytes.size() ? badGreLen : pktTooShort;
    }
    return flags < 128 || msg.sum(msg.bytes.size(), false) == 0 ? noError : badGreChecksum;
}

inline Pavo::PktErrors plainNdType(const PlainMsg& msg, bool hasSourceMac) {
    const std::string_view bytes = msg.bytes;
    const bool isFromNobody = msg.src.find_first_not_of('\0') == msg.src.npos;
    const bool isToGroup = byteAt(msg.dst, 0) == 0xff;
    switch (byteAt(bytes, 0)) {
        case 133:
            return isFromNobody && hasSourceMac ? unspecSrcAddrSrcLinkLayerAddr : noError;
        case 134:
            return isLinkLocal(msg.src) ? noError : nonLinkLocalSrc;
        case 135:
            if (byteAt(bytes, 8) == 0xff) {
                return icmp6NsTgtMcast;
            }
            if (!isFromNobody) {
                return isToGroup && !hasSourceMac ? noSrcLinkLayerOptInMcastNs : noError;
            }
            if (msg.dst.substr(0, 13) != std::string_view("\xff\2\0\0\0\0\0\0\0\0\0\1\xff", 13)) {
                return unspecifiedSrcAddrAndNotSolicitedNodeDst;
            }
            return hasSourceMac ? unspecSrcAddrSrcLinkLayerAddr : noError;
        case 136:
            return byteAt(bytes, 8) == 0xff ? icmp6NaTgtMcast
                   : isToGroup && (byteAt(bytes, 4) & 0x40) != 0
                       ? icmp6McastDstIpAndNonZeroSolicitation
                       : noError;
        default:
            return !isLinkLocal(msg.src)       ? nonLinkLocalSrc
                   : byteAt(bytes, 24) == 0xff ? icmp6RedirectDstMcast
                   : isLinkLocal(bytes.substr(8)) || bytes.substr(8, 16) == bytes.substr(24, 16)
                       ? noError
                       : icmp6RedirectTgt;
    }
}

inline Pavo::PktErrors plainNd(const PlainMsg& msg) {
    if (msg.proto != 58 || !msg.isIp6()) {
        return nextHdrIsNotIcmp6;
    }
    const std::string_view bytes = msg.bytes;
    if (msg.ttl != 255) {
        return nonOnLink;
    }
    if (bytes.size() < 4 || !msg.isWhole(4)) {
        return bytes.size() < 4 ? icmp6PayloadLenTooShortForHdr : pktTooShort;
    }
    const std::size_t headers[] = {8, 16, 24, 24, 40};
    const std::size_t type = byteAt(bytes, 0) - 133u;
    if (type > 4) {
        return icmp6TypeNotSupported;
    }
    if (bytes.size() < headers[type]) {
        return icmp6PayloadLenTooShortForHdr;
    }
    if (bytes[1] != 0 || msg.sum(bytes.size(), true) != 0) {
        return bytes[1] != 0 ? badIcmp6Code : badIcmp6Checksum;
    }
    bool hasSourceMac = false;
    for (std::size_t at = headers[type]; at != bytes.size();) {
        const std::size_t option = at + 1 < bytes.size() ? byteAt(bytes, at + 1) * 8u : 8;
        if (option == 0 || at + option > bytes.size()) {
            return option == 0 ? icmp6OptLenZero : icmp6OptLenExceedPayloadLen;
        }
        hasSourceMac = hasSourceMac || bytes[at] == 1;
        at += option;
    }
    return plainNdType(msg, hasSourceMac);
}

/// The message as it is, but with right lengths and checksums of IPv4 and of the message, where
/// there is room for them: no mutation finds them.
inline std::string repaired(std::string ip) {
    const auto store = [&ip](std::size_t at, std::size_t value) {
        Pavo::storeNet(reinterpret_cast<uint8_t*>(&ip[at]), static_cast<uint16_t>(value));
    };
    if (ip.size() >= 20 && byteAt(ip, 0) == 0x45) {
        store(2, ip.size());
        store(10, 0);
        store(10, folded(plainSum(std::string_view(ip).substr(0, 20), 0)));
    } else if (ip.size() >= 40 && byteAt(ip, 0) >> 4 == 6) {
        store(4, ip.size() - 40);
    }
    const PlainMsg msg = plainIp(ip, static_cast<uint32_t>(ip.size()));
    const std::size_t start = ip.size() - msg.bytes.size();
    const bool isVrrp3 = msg.proto == 112 && !msg.bytes.empty() && byteAt(msg.bytes, 0) / 16 == 3;
    const std::size_t field = msg.proto == 112 ? 6 : msg.proto == 47 ? 4 : 2;
    if (msg.error == noError && msg.bytes.size() >= 8 && msg.proto != 17) {
        store(start + field, 0);
        store(start + field, msg.sum(msg.bytes.size(), msg.isIp6() || isVrrp3));
    }
    return ip;
}

/// Checks an IP packet, split anywhere, with the library and with the plain checks, and dies where
/// they differ. Returns what the check of its protocol found, or that of the IP header.
inline Pavo::PktErrors checkIpMsg(std::string_view ip, uint32_t privateBytes) {
    const auto pkt = pktOf(ip, privateBytes);
    const PlainMsg plain = plainIp(ip, pkt->frontBytes());
    Pavo::IpMsg msg;
    const Pavo::PktErrors ipError = Pavo::ipMsgAt(pkt, 0, msg);
    Mox::require(ipError == plain.error, "the IP header");
    if (ipError != noError) {
        return ipError;
    }
    Mox::require(msg.bytes == plain.bytes.size(), "the length of the message");
    for (const auto sum :
         {Pavo::VrrpSum::pseudoHdr, Pavo::VrrpSum::message, Pavo::VrrpSum::either}) {
        Mox::require(Pavo::checkVrrp(msg, sum).error() == plainVrrp(plain, sum), "VRRP");
    }
    Mox::require(Pavo::checkIgmp(msg).error() == plainIgmp(plain), "IGMP");
    Mox::require(Pavo::checkPim(msg).error() == plainPim(plain), "PIM");
    Mox::require(Pavo::checkGre(msg).error() == plainGre(plain), "GRE");
    const Pavo::PktErrors nd = Pavo::checkNd(msg).error();
    Mox::require(nd == plainNd(plain), "neighbour discovery");
    const bool isNs = nd == noError && byteAt(plain.bytes, 0) == 135;
    const bool isNa = nd == noError && byteAt(plain.bytes, 0) == 136;
    Mox::require(static_cast<bool>(Pavo::checkNs(msg)) == isNs, "neighbour solicitation");
    Mox::require(static_cast<bool>(Pavo::checkNa(msg)) == isNa, "neighbour advertisement");
    switch (plain.proto) {
        case 2:
            return plainIgmp(plain);
        case 47:
            return plainGre(plain);
        case 103:
            return plainPim(plain);
        case 112:
            return plainVrrp(plain, Pavo::VrrpSum::pseudoHdr);
        default:
            return nd;
    }
}

/// The same for the records that need no IP header, laid over these bytes.
inline void checkRecords(std::string_view bytes, uint32_t privateBytes) {
    const auto pkt = pktOf(bytes, privateBytes);
    const uint32_t front = pkt->frontBytes();
    if (front >= 28) {
        const bool isArp = bytes.starts_with(std::string_view("\0\1\x08\0\6\4\0", 7)) &&
                           (bytes[7] == 1 || bytes[7] == 2) && byteAt(bytes, 8) % 2 == 0 &&
                           byteAt(bytes, 14) / 16 != 0xe &&
                           loadAt<uint32_t>(bytes, 14) != 0xffffffff;
        const auto arp = Pavo::tryHdr<Pavo::ArpHdr>(pkt, 0);
        Mox::require(arp.error() == (isArp ? noError : badArpPkt), "ARP");
    }
    if (front >= 8) {
        const auto vxlan = Pavo::tryHdr<Pavo::VxlanHdr>(pkt, 0);
        Mox::require(static_cast<bool>(vxlan) == (byteAt(bytes, 0) / 8 % 2 != 0), "VXLAN");
        const auto word = Pavo::tryHdr<Pavo::PwControlWord>(pkt, 0);
        const uint32_t length = byteAt(bytes, 1) % 64;
        const bool fits = length == 0 || (length >= 4 && length <= front);
        Mox::require(word.error() == (byteAt(bytes, 0) > 15 ? nonPwControlWord
                                      : fits                ? noError
                                                            : badPwLen),
                     "control word");
        const auto tag = Pavo::tryHdr<Pavo::MimHdr>(pkt, 0);
        Mox::require(static_cast<bool>(tag) == (byteAt(bytes, 0) % 4 == 0), "I-TAG");
    }
}

}  // namespace fuzz
