#include <random>
#include <string>

#include "Pavo/AutonomousSystem.h"
#include "Pavo/EthAddr.h"
#include "Pavo/IntfId.h"
#include "Pavo/IntfIdDesc.h"
#include "Pavo/Ip.h"
#include "Pavo/Ip6Addr.h"
#include "Pavo/IpAddr.h"
#include "Pavo/IpGenAddr.h"
#include "Pavo/IpGenAddrWithFullMask.h"
#include "Pavo/IpGenAddrWithMask.h"
#include "Pavo/IpGenPrefix.h"
#include "Pavo/Mpls.h"
#include "Pavo/Namespace.h"
#include "Pavo/NamespaceName.h"
#include "Pavo/Netlink.h"
#include "Pavo/RouteDistinguisher.h"
#include "Pavo/TcpConfig.h"
#include "Pavo/TcpPduPam.h"
#include "Pavo/TcpStatus.h"
#include "parity/Parity.h"

namespace Pavo {
namespace {

constexpr int samplesPerType = 1000;

// The same numbers everywhere, so whoever draws several for one sample does it in braces, which are
// read from left to right. Half of them come thinned out or near a neighbour, since long runs
// of zeros and almost equal values are what formats and orders are about.
class Numbers {
  public:
    uint64_t any() {
        const uint64_t fresh = random_();
        switch (random_() % 8) {
            case 0:
                return 0;
            case 1:
                return last_ + 1;
            case 2:
                return last_;
            case 3:
                return last_ = fresh & random_() & random_();
            default:
                return last_ = fresh;
        }
    }
    uint16_t any16() { return static_cast<uint16_t>(any()); }
    uint32_t any32() { return static_cast<uint32_t>(any()); }
    uint32_t upTo(uint32_t most) { return any32() % (most + 1); }

  private:
    std::mt19937_64 random_{20240501};
    uint64_t last_ = 0;
};

template <class Make>
void parityOfMany(Make make) {
    std::vector<decltype(make())> samples = {{}};
    for (int i = 0; i < samplesPerType; ++i) {
        samples.push_back(make());
    }
    parity::parityOf(samples);
}

void printEthernet(Numbers& n) {
    const auto mac = [&n] { return EthAddr{n.any16(), n.any16(), n.any16()}; };
    parityOfMany(mac);
    parityOfMany([&] { return EthAddrWithMask{mac(), mac()}; });
    parityOfMany([&] { return mac().eui64(); });
}

void printIp(Numbers& n) {
    const auto ip = [&n] { return IpAddr(n.any32()); };
    parityOfMany(ip);
    parityOfMany([&] { return IpAddrWithMask{ip(), n.upTo(40)}; });
    parityOfMany([&] { return IpAddrWithFullMask{ip(), n.any32()}; });
    parityOfMany([&] {
        const uint32_t len = n.upTo(32);
        const uint64_t mask = ~uint64_t{0} << (32 - len);  // By up to 32 bits.
        return Prefix(IpAddr(static_cast<uint32_t>(n.any() & mask)), len);
    });
    parityOfMany([&] { return IpAndPort{ip(), n.any16()}; });
}

void printIp6(Numbers& n) {
    const auto ip6 = [&n] {
        return Ip6Addr{n.any16(), n.any16(), n.any16(), n.any16(),
                       n.any16(), n.any16(), n.any16(), n.any16()};
    };
    parityOfMany(ip6);
    parityOfMany([&] { return ip6().ip6AddrMaskedByLength(n.upTo(128)); });
    parityOfMany([&] { return Ip6Addr(0, uint64_t{0xffff} << 32 | n.any32()); });
    const auto masked = [&] { return Ip6AddrWithMask{ip6(), n.upTo(128)}; };
    parityOfMany(masked);
    parityOfMany([&] {
        const Ip6AddrWithMask net = masked().subnet();
        return Ip6Prefix(net.address(), net.len());
    });
    parityOfMany([&] { return Ip6AddrWithFullMask{ip6(), ip6()}; });
    parityOfMany([&] { return Ip6AddrWithFullMask{ip6(), ip6AddrFromPrefixLen(n.upTo(128))}; });
}

void printIpGen(Numbers& n) {
    const auto gen = [&n] {
        switch (n.upTo(2)) {
            case 0:
                return IpGenAddr();
            case 1:
                return IpGenAddr(IpAddr(n.any32()));
            default:
                return IpGenAddr(Ip6Addr{n.any(), n.any()});
        }
    };
    parityOfMany(gen);
    parityOfMany([&] { return IpGenPrefixBase{gen(), n.upTo(130)}; });
    parityOfMany([&] { return IpGenAddrWithMask{gen(), n.upTo(130)}; });
    parityOfMany([&] {
        const IpGenAddr address = gen();
        const uint32_t len = n.upTo(addressBits(address.af()));
        return IpGenPrefix({address.af(), address.address().ip6AddrMaskedByLength(len)}, len);
    });
    parityOfMany([&] {
        switch (n.upTo(3)) {
            case 0:
                return IpGenAddrWithFullMask{IpAddr(n.any32()), IpAddr(n.any32())};
            case 1:
                return IpGenAddrWithFullMask{IpAddr(n.any32()), static_cast<uint8_t>(n.upTo(32))};
            case 2:
                return IpGenAddrWithFullMask{Ip6Addr{n.any(), n.any()}, Ip6Addr{n.any(), n.any()}};
            default:
                return IpGenAddrWithFullMask{Ip6Addr{n.any(), n.any()},
                                             static_cast<uint8_t>(n.upTo(128))};
        }
    });
}

void printFields(Numbers& n) {
    parityOfMany([&n] { return IpVersion(n.upTo(IpVersion::max)); });
    parityOfMany([&n] { return IpTtl(n.upTo(IpTtl::max)); });
    parityOfMany([&n] { return IpDscp(n.upTo(IpDscp::max)); });
    parityOfMany([&n] { return IpTrafficClass(n.upTo(IpTrafficClass::max)); });
    parityOfMany([&n] { return IpFlowLabel(n.upTo(IpFlowLabel::max)); });
    parityOfMany([&n] { return Port(n.upTo(Port::max)); });
    parityOfMany([&n] { return Eui64U8Key(n.upTo(Eui64U8Key::max)); });
    parityOfMany([&n] { return Ip6AddrU8Key(n.upTo(Ip6AddrU8Key::max)); });
    parityOfMany([&n] { return Ip6PrefixLen(n.upTo(Ip6PrefixLen::invalid)); });
    using GenPrefixLen = IpGenAddrWithFullMask::PrefixLen;
    parityOfMany([&n] { return GenPrefixLen(n.upTo(GenPrefixLen::max)); });
    parityOfMany([&n] { return NetlinkFamily(n.any16()); });
    parityOfMany([&n] { return NetlinkMsgType(n.any16()); });
    parityOfMany([&n] { return NetlinkMsgFlags(n.any16()); });
    parityOfMany([&n] { return NetlinkPortId(n.any32()); });
    parityOfMany([&n] { return NetlinkGroups(n.any32()); });
    parityOfMany([&n] { return TcpSocketOptions(static_cast<uint8_t>(n.any16() & 0x7f)); });
    parityOfMany([&n] { return TcpKeepaliveOptions(n.any32(), n.any32(), n.any32()); });
    parity::parityOf<IpProtocolNumber>("Pavo::IpProtocolNumber");
    parity::parityOf<AddressFamily>("Pavo::AddressFamily");
    parity::parityOf<NamespaceState>("Pavo::NamespaceState");
    parity::parityOf<TcpClientStatus::ConnectionStatus>("Pavo::ConnectionStatus");
    parity::parityOf<TcpPduPamEnableMode>("Pavo::TcpPduPamEnableMode");
}

void printDistinguishers(Numbers& n) {
    parityOfMany([&n] { return AutonomousSystem(n.any32()); });
    parityOfMany([&n] {
        const uint64_t bytes = n.any() & ~uint64_t{0xfcff};  // Types 0 to 3.
        RouteDistinguisher rd;
        rd.rdNboIs(bytes);
        return rd;
    });
    parityOfMany([&n] {
        return RouteDistinguisher{n.any(), n.upTo(1) == 1,
                                  Mox::enumValue<RouteDistinguisher::Type0LocalType>(n.upTo(2))};
    });
    parity::parityOf<RouteDistinguisher::Type0LocalType>("Pavo::Type0LocalType");
}

// In every second id, the bits are those of an interface that has a name.
void printInterfaces(Numbers& n) {
    globalIntfIdMgr()->intfIdDescDelAll();
    const auto desc = intfIdDescFactory(1, "Ethernet", "Et");
    desc->partIs({0, 0}, {30, 0, true, '\0'});
    desc->partIs({0, 1}, {25, 0, false, '.'});
    desc->initializedIs(true);
    globalIntfIdMgr()->intfIdDescIs(desc);
    parityOfMany([&n] {
        const uint64_t any = n.any();
        const uint64_t type = GenericIntfId::typeBits;
        return IntfId(n.upTo(1) == 0 ? any : (any & ~type) | uint64_t{1} << 25);
    });
    parityOfMany([&n] { return GenericIntfId(IntfId(n.any())); });
    parityOfMany([&n] { return IntfIdPart{1 + n.upTo(31), n.upTo(31), false, "/.:"[n.upTo(2)]}; });
    parityOfMany([&n] { return IntfIdPartKey{n.upTo(3), n.upTo(7)}; });
}

// Stacks that many changes lead to, among them all kinds of labels and pairs.
template <class Stack>
Stack stackOf(Numbers& n) {
    Stack stack;
    for (uint32_t changes = n.upTo(12); changes != 0; --changes) {
        const MplsLabel label =
            n.upTo(3) == 0 ? n.upTo(8) : n.upTo(MplsLabel::luWithdrawLabelValue);
        const uint32_t kind = n.upTo(4);
        if (kind == 0) {
            stack.prepend(label);
        } else if (kind == 1) {
            stack.entropyLabelAndIndicatorIs(n.upTo(8));
        } else {
            stack.append(label);
        }
    }
    return stack;
}

void printLabels(Numbers& n) {
    const auto action = [&n] { return MplsLabelAction(n.upTo(4)); };
    const auto flags = [&n] { return static_cast<uint8_t>(n.upTo(3)); };
    parityOfMany([&n] { return MplsLabel(n.upTo(MplsLabel::luWithdrawLabelValue)); });
    parityOfMany([&n] { return MplsStackEntryIndex(n.upTo(7)); });
    parityOfMany([&n] { return stackOf<BoundedMplsLabelStack>(n); });
    parityOfMany([&n] { return stackOf<DynamicMplsLabelStack>(n); });
    parityOfMany([&] {
        return MplsLabelOperation{action(), stackOf<BoundedMplsLabelStack>(n), flags()};
    });
    parityOfMany([&] {
        return UnboundedMplsLabelOperation{action(), stackOf<DynamicMplsLabelStack>(n), flags()};
    });
    parityOfMany([&n] { return MplsLabelAndAction(n.any32()); });
    parityOfMany([&n] {
        return SmushResult{SmushResult::SmushError(n.upTo(7)),
                           BoundedMplsLabelStackError(n.upTo(7))};
    });
}

void printNames(Numbers& n) {
    parityOfMany([&n] {
        std::string name(n.upTo(NamespaceName::maxBytes), 'x');
        for (char& c : name) {
            c = static_cast<char>('!' + n.upTo('~' - '!'));
        }
        return NamespaceName(Mox::String(name));
    });
}

}  // namespace
}  // namespace Pavo

void parityOfValues() {
    Pavo::Numbers numbers;
    Pavo::printEthernet(numbers);
    Pavo::printIp(numbers);
    Pavo::printIp6(numbers);
    Pavo::printIpGen(numbers);
    Pavo::printFields(numbers);
    Pavo::printNames(numbers);
    Pavo::printDistinguishers(numbers);
    Pavo::printInterfaces(numbers);
    Pavo::printLabels(numbers);
}
