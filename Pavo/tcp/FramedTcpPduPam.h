/// @file
/// Whole messages over a TCP stream, whose framing is data.
#pragma once

#include <cstdint>

#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"
#include "Pavo/tcp/TcpFraming.h"
#include "Pavo/tcp/TcpPduPam.h"

namespace Pavo {

/// An endpoint whose PDUs are the messages of a framing. A PDU is contiguous at `frontData()`, in a
/// buffer that is no larger than what its length needs: 1536 bytes up to that length, then 10,000,
/// then its own length. `rxErrorReason` has also the texts of the framing's `check`.
class PAVO_EXPORT FramedTcpPduPam : public Mox::EntityOf<FramedTcpPduPam, TcpPduPam> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::FramedTcpPduPam"); }

    /// Disabled, on the stream, with a registration from `fdFactory`. `maxPduLength` is the
    /// framing's `max`.
    /// @throws Mox::RangeException with the framing's `fault`.
    FramedTcpPduPam(Mox::Ptr<TcpFileDescriptor> fileDescriptor,
                    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory,
                    const TcpFraming& framing);

    /// As it was made with.
    const TcpFraming& framing() const { return framing_; }

    /// As the framing says. The endpoint itself does not ask it.
    /// @pre a PDU is being received: assertion "pkt".
    uint16_t getPduSize() final;

  protected:
    ~FramedTcpPduPam() override;

  private:
    const TcpFraming framing_;
};

/// A disabled endpoint on the stream, with registrations from `fdFactory`.
/// @throws Mox::RangeException with the framing's `fault`.
PAVO_EXPORT Mox::Ptr<FramedTcpPduPam> framedTcpPduPamFactory(
    Mox::Ptr<TcpFileDescriptor> fileDescriptor,
    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory, const TcpFraming& framing);

}  // namespace Pavo
