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

/// Writes what passes the endpoints it is set on (`Pam::tapIs`) to a capture file, as packets of
/// one interface. The separate VLAN tag of an Ethernet packet is put back where it stood. Times are
/// those of the system, also where the agent's clock is another.
///
/// A tap of `CaptureLinkType::rawIp` gives the packets of a raw IP endpoint the header that the
/// kernel has taken off or will put on, from what the endpoint knows: what its attributes leave
/// open, as the source address of a packet sent, is zero there, and so are checksums that the
/// kernel fills in.
class PAVO_EXPORT PamTap final : public Mox::Described<PamTap, PktTap> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::PamTap"); }

    /// A tap whose packets appear under the interface `name` of `file`.
    /// @throws Mox::ErrnoException "write(<path>)"
    PamTap(Mox::Ptr<CaptureFile> file, const Mox::String& name, CaptureLinkType linkType);

    void handleTxPkt(const Pam& pam, const Pkt& pkt) override;
    void handleRxPkt(const Pam& pam, const Pkt& pkt, int32_t slot) override;

  protected:
    ~PamTap() override;

  private:
    class Pieces;

    void write(Pieces* pieces, const Pkt& pkt, CaptureDirection direction);

    Mox::Ptr<CaptureFile> file_;
    uint32_t interface_;
    CaptureLinkType linkType_;
};

/// @throws Mox::ErrnoException as the constructor does.
PAVO_EXPORT Mox::Ptr<PamTap> pamTapFactory(Mox::Ptr<CaptureFile> file, const Mox::String& name,
                                           CaptureLinkType linkType = CaptureLinkType::ethernet);

}  // namespace Pavo
