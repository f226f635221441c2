/// @file
/// The packets that pass an endpoint, copied to a capture file.
#pragma once

#include <cstdint>

#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/CaptureFile.h"
#include "Pavo/pam/Pam.h"

namespace Pavo {

/// Writes the packets that pass the endpoints on which it is set (`Pam::tapIs`) to a capture file,
/// as packets of one interface. The separate VLAN tag of an Ethernet packet is put back where it
/// stood. Times are those of the system, even when the agent uses another clock.
///
/// A tap of `CaptureLinkType::rawIp` gives packets the IP and UDP headers that the kernel has
/// removed or will add, with the router alert that it adds, from what the endpoint knows of them
/// (`RxInfo`, `TxInfo`). Unknown members, such as the source address of a packet whose source the
/// kernel chooses, are zero in it; checksums that the kernel fills in are missing too. The length
/// of a packet that has no room in the header's length field is 65535 there for IPv4, and 0 for
/// IPv6 as for a jumbogram (RFC 2675). The file has the received bytes of a truncated packet, and
/// their number as its length.
class PAVO_EXPORT PamTap final : public Mox::Described<PamTap, PktTap> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::PamTap"); }

    /// A tap whose packets appear under the interface `name` of `file`.
    /// @throws Mox::ErrnoException "write(<path>)"
    PamTap(Mox::Ptr<CaptureFile> file, const Mox::String& name, CaptureLinkType linkType);

    void handleTxPkt(const Pam& pam, const Pkt& pkt, const TxInfo& info) override;
    void handleRxPkt(const Pam& pam, const Pkt& pkt, const RxInfo& info) override;

  protected:
    ~PamTap() override;

  private:
    class Pieces;

    void write(const Pkt& pkt, const PktInfo& info, bool hasRouterAlert,
               CaptureDirection direction);

    Mox::Ptr<CaptureFile> file_;
    uint32_t interface_;
    CaptureLinkType linkType_;
};

/// @throws Mox::ErrnoException as the constructor does.
PAVO_EXPORT Mox::Ptr<PamTap> pamTapFactory(Mox::Ptr<CaptureFile> file, const Mox::String& name,
                                           CaptureLinkType linkType = CaptureLinkType::ethernet);

}  // namespace Pavo
