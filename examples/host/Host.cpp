#include "host/Host.h"

#include <utility>

#include "Pavo/EthHdr.h"

namespace Host {

Host::Host(const Config& config, Mox::Ptr<Pavo::Pam> frames, Mox::Clock* clock, Pavo::Port echoPort)
    : config_(config), mux_(Pavo::pamMuxFactory("host", std::move(frames), clock)) {
    using Match = Pavo::PamMuxMatch;
    add("arp", Match::etherType(Pavo::EthType::arp), answerArp);
    add("icmp", Match::ipProtocol(Pavo::IpProtocolNumber::icmp), answerIcmp);
    add("icmp6", Match::ipProtocol(Pavo::IpProtocolNumber::ipv6Icmp), answerIcmp6);
    add("udp", Match::udpPort(echoPort), answerUdp);
    mux_->enabledIs(true);
}

// A service reads one frame for each report: while more wait, the multiplexer reports again. An
// answer that finds no room is lost, as on a wire, and the peer asks again.
void Host::add(const char* name, Pavo::PamMuxMatch match, Answer answer) {
    Service& service = services_.emplace_back();
    service.pam = mux_->clientIs(name, std::move(match));
    service.readable = {service.pam, Pavo::Pam::readableCountAttr, [this, &service, answer] {
                            const auto request = service.pam->rxPkt();
                            if (const auto frame = request ? answer(config_, request) : nullptr) {
                                service.pam->txPktIs(frame);
                                service.answers += service.pam->txErrno() == 0 ? 1 : 0;
                            }
                        }};
}

uint32_t Host::answers(const std::string& service) const {
    for (const Service& each : services_) {
        if (each.pam->name().view() == service) {
            return each.answers;
        }
    }
    return 0;
}

}  // namespace Host
