/// @file
/// An agent on a stream of messages with a header of 20 bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Pavo/TcpPduPam.h"

namespace PavoTest {

/// A message of `bytes` bytes that differ from their neighbours, whose length field has `length`.
inline std::string pduOf(uint16_t length, uint32_t bytes) {
    std::string pdu(bytes, '\0');
    for (uint32_t i = 0; i < bytes; ++i) {
        pdu[i] = static_cast<char>(length + i * 7 + (i >> 8));
    }
    pdu[2] = static_cast<char>(length >> 8);
    pdu[3] = static_cast<char>(length);
    return pdu;
}
inline std::string pduOf(uint16_t length) {
    return pduOf(length, length);
}

inline Mox::Ptr<Pavo::Pkt> pktOf(std::string_view bytes) {
    const Mox::Ptr<Pavo::Pkt> pkt = Mox::make<Pavo::Pkt>();
    pkt->sharedBufferIs(
        Pavo::globalPktManager()->newSharedBuffer(static_cast<uint32_t>(bytes.size())));
    pkt->stringValueIs(Mox::String(bytes), /*atTail=*/false);
    return pkt;
}

/// Sends messages, and takes one of those that came at each notification, or all.
class PduAgent {
  public:
    explicit PduAgent(Mox::Ptr<Pavo::TcpFileDescriptor> stream,
                      Pavo::TcpPduPamEnableMode mode = Pavo::tcpEnableModeReadWrite,
                      bool takesAll = false)
        : PduAgent(
              Pavo::simpleTcpPduPamFactory(
                  std::move(stream), Pavo::tcpFileDescriptorEventRegistrationFactoryMoxcFactory()),
              takesAll) {
        pam->enableModeIs(mode);
    }
    explicit PduAgent(Mox::Ptr<Pavo::SimpleTcpPduPam> itsPam, bool takesAll = false)
        : pam(std::move(itsPam)), readable_(pam, Pavo::Pam::readableCountAttr, [this, takesAll] {
              while (take() && takesAll) {
              }
          }) {}

    void send(std::string_view bytes) const { pam->txPktIs(pktOf(bytes)); }
    bool take() {
        const Mox::Ptr<Pavo::Pkt> pkt = pam->rxPkt();
        if (pkt) {
            taken.emplace_back(pkt->stringValue().view());
        }
        return pkt != nullptr;
    }

    const Mox::Ptr<Pavo::SimpleTcpPduPam> pam;
    std::vector<std::string> taken;

  private:
    Mox::Watch<Pavo::SimpleTcpPduPam> readable_;
};

}  // namespace PavoTest
