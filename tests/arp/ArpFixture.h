/// @file
/// A machine on one end of a connector, in virtual time, and what it sends.
#pragma once

#include <sstream>
#include <string>

#include "Mox/Clock.h"
#include "Pavo/ArpSm.h"
#include "Pavo/BuildPkt.h"
#include "Pavo/PamConnector.h"
#include "pam/PamFixture.h"

namespace Pavo {

inline const EthAddr m1("02:00:00:00:00:01"), m2("02:00:00:00:00:02"), m3("02:00:00:00:00:03");
inline const EthAddr vmac("00:00:5e:00:01:07"), everyone("ff:ff:ff:ff:ff:ff");
inline const IpAddr h1("10.0.0.1"), h2("10.0.0.2"), h3("10.0.0.3"), vip("10.0.0.9");

struct Lan {
    Lan() { sm->settingsIs(settings); }
    Mox::Ptr<ArpSm> newSm(const char* end, EthAddr mac, uint32_t ifIndex) {
        return arpSmFactory(end, {wire->pam(end), table, ifIndex, mac, &wheel, ifIndex});
    }

    // What the machine sends, with its time; MACs are shown by their last byte.
    void logFrame() {
        const auto frame = wire->pam("pam0")->peekPkt();
        if (!frame) {
            return;
        }
        const std::string text(frame->stringValue().view());
        const auto mac = [&](size_t at) { return " m" + std::to_string(+text[at + 5]); };
        const std::string to = text.substr(0, 6) == std::string(6, '\xff') ? "" : mac(0);
        const auto arp = tryHdr<ArpHdr>(frame, 14);
        if (text.substr(12, 2) != "\x08\x06") {
            out << "packet " << text.substr(14) << to;
        } else if (arp->op() == ArpOp::reply) {
            out << "reply " << arp->senderIp() << mac(22) << " to" << to;
        } else if (arp->senderIp().isZero() || arp->senderIp() == arp->targetIp()) {
            out << (arp->senderIp().isZero() ? "probe " : "announce ") << arp->targetIp() << to;
        } else {
            out << "ask " << arp->targetIp() << to;
        }
        out << " at " << std::floor(clock.now() * 10) / 10 << "; ";
    }
    std::string log() {
        const std::string text = out.str();
        out.str("");
        return text;
    }
    // What is sent within that time.
    std::string advance(double seconds) {
        clock.advance(seconds);
        return log();
    }
    // A packet of another host arrives.
    void receive(Arp arp, EthAddr dst = everyone) {
        wire->pam("pam1")->txPktIs(buildPkt(Eth{.dst = dst, .src = arp.senderMac}, arp));
        clock.advance(0.001);
    }
    void answer(EthAddr mac = m2, IpAddr address = h2) {
        receive({ArpOp::reply, mac, address, m1, h1}, m1);
    }
    std::string stateOf(IpAddr address) const {
        const auto entry = table->entry({1, address});
        std::ostringstream text;
        entry ? text << entry->state() : text << "none";
        entry&& hasMac(entry->state()) ? text << " m" << +entry->mac().byte(5) : text;
        return text.str();
    }

    std::ostringstream out;
    Mox::ManualClock clock;
    Keel::TimerWheel wheel{&clock};
    Mox::Ptr<PamConnector> wire = pamConnectorFactory(&clock);
    Mox::Ptr<ArpTable> table = arpTableFactory("table");
    ArpSettings settings{.probeWaitSeconds = 0, .probeMinSeconds = 1, .probeMaxSeconds = 1};
    Mox::Ptr<ArpSm> sm = newSm("pam0", m1, 1);
    Mox::Watch<PamConnectorPam> sent{wire->pam("pam0"), PamConnectorPam::peekPktAttr,
                                     [this] { logFrame(); }};
};

}  // namespace Pavo
