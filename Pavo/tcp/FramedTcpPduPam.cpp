#include "Pavo/tcp/FramedTcpPduPam.h"

#include <algorithm>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Exception.h"

namespace Pavo {

FramedTcpPduPam::FramedTcpPduPam(Mox::Ptr<TcpFileDescriptor> fileDescriptor,
                                 Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory,
                                 const TcpFraming& framing)
    : EntityOf(std::move(fileDescriptor), std::move(fdFactory)), framing_(framing) {
    if (const char* fault = framing_.fault()) {
        Mox::throwRangeException(fault);
    }
    framingIs(&framing_);
    maxPduLengthIs(static_cast<uint16_t>(framing_.max));
}

FramedTcpPduPam::~FramedTcpPduPam() = default;

uint16_t FramedTcpPduPam::getPduSize() {
    const Mox::Ptr<Pkt>& pkt = rxPktHolderShadow();
    Mox::require(pkt != nullptr, "pkt");
    if (pkt->frontBytes() < framing_.headerBytes) {
        return framing_.headerBytes;
    }
    return static_cast<uint16_t>(
        std::min(framing_.messageBytes(pkt->frontData()), uint64_t{65535}));
}

Mox::Ptr<FramedTcpPduPam> framedTcpPduPamFactory(
    Mox::Ptr<TcpFileDescriptor> fileDescriptor,
    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory, const TcpFraming& framing) {
    return Mox::make<FramedTcpPduPam>(std::move(fileDescriptor), std::move(fdFactory), framing);
}

}  // namespace Pavo
