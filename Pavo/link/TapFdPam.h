/// @file
/// Endpoints on the open descriptor of a tap device.
#pragma once

#include "Mox/FileDescriptor.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/link/TapPamBase.h"

namespace Pavo {

/// A tap device that another program, or other code, has opened and configured: a process with the
/// privilege for it that passes the descriptor on, or a program that attaches to a queue of its
/// own. The descriptor is attached to a device (TUNSETIFF), with IFF_TAP and without IFF_VNET_HDR;
/// and with IFF_NO_PI, which the endpoint cannot check: without it every frame has four bytes more.
///
/// Enabling takes the descriptor, also when it fails, and disabling gives it up, so that each
/// enabling needs a new one.
class PAVO_EXPORT TapFdPam : public Mox::EntityOf<TapFdPam, TapPamBase> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::TapFdPam"); }

    /// Disabled, without a descriptor.
    explicit TapFdPam(Mox::String name);

    /// The descriptor for the next enabling, or -1. It is the endpoint's, which closes it.
    int tapFd() const { return tap_ ? tap_->descriptor() : -1; }
    /// A descriptor that it had already is closed on another thread.
    /// @throws Mox::ErrnoException "fcntl(F_GETFL)" when it is not open; the endpoint then has
    /// none.
    void tapFdIs(int fd);

  protected:
    ~TapFdPam() override;

    /// @throws Mox::ErrnoException "tapFd" with EBADF where there is none.
    Mox::Ptr<Mox::FileDescriptor> newTap() override;
    void handleTapGone() override;

  private:
    void tapDel();

    Mox::Ptr<Mox::FileDescriptor> tap_;
};

/// Disabled, on a descriptor that is the endpoint's from now on.
/// @throws Mox::ErrnoException "fcntl(F_GETFL)" when it is not open.
PAVO_EXPORT Mox::Ptr<TapFdPam> tapFdPamFactory(Mox::String name, int tapFd);

}  // namespace Pavo
