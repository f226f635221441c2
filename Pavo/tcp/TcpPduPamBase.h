/// @file
/// The base of packet endpoints on TCP streams, and the machine that drives one.
#pragma once

#include <cstdint>

#include "Mox/Entity.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/Pam.h"
#include "Pavo/pam/ReadinessSm.h"
#include "Pavo/tcp/TcpFd.h"

namespace Pavo {

class TcpPduFdSm;

/// A packet endpoint on a TCP stream: it holds the stream's descriptor, registers for its events
/// and has them forwarded to `handleSocketReadable` and `handleSocketWritable`.
class PAVO_EXPORT TcpPduPamBase : public Mox::EntityOf<TcpPduPamBase, Pam> {
  public:
    static constexpr Mox::Attribute<TcpPduPamBase> socketReadableCountAttr{8,
                                                                           "socketReadableCount"};
    static constexpr Mox::Attribute<TcpPduPamBase> socketWritableCountAttr{9,
                                                                           "socketWritableCount"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::TcpPduPamBase",
            Mox::attribute(socketReadableCountAttr, &TcpPduPamBase::socketReadableCount),
            Mox::attribute(socketWritableCountAttr, &TcpPduPamBase::socketWritableCount));
    }

    void zeroReferencesIs(bool zero) override;

    /// An event of the registration has come; the base only counts it.
    /// @{
    virtual void handleSocketReadable();
    virtual void handleSocketWritable();
    /// @}

    /// The stream, which the endpoint shares.
    const Mox::Ptr<TcpFileDescriptor>& fileDescriptor() const { return fileDescriptor_; }
    /// As it was made with.
    const Mox::Ptr<TcpFileDescriptorEventRegistrationFactory>& fdFactory() const {
        return fdFactory_;
    }
    /// The registration; null once the endpoint has given up the stream.
    const Mox::Ptr<TcpFileDescriptorEventRegistration>& fd() const { return fd_; }
    /// Null where `fd` is.
    const Mox::Ptr<TcpPduFdSm>& tcpPduFdSm() const { return tcpPduFdSm_; }
    /// Else the descriptor is watched edge-triggered.
    bool levelTriggered() const { return !fileDescriptor_->edgeTriggered(); }

    /// Events of the registration.
    /// @{
    uint32_t socketReadableCount() const { return socketReadableCount_; }
    uint32_t socketWritableCount() const { return socketWritableCount_; }
    /// @}

  protected:
    /// Registers the descriptor, without interest in its events.
    TcpPduPamBase(Mox::String name, Mox::Ptr<TcpFileDescriptor> fileDescriptor,
                  Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory);
    ~TcpPduPamBase() override;

    /// Disables the registration, and drops it and its machine.
    void fdDel();
    /// Sets a flag of the registration, unless it has the value. Returns 0, or the error of
    /// epoll_ctl(2), with which the flag is unchanged.
    int fdFlagIs(bool (TcpFileDescriptorEventRegistration::*flag)() const,
                 void (TcpFileDescriptorEventRegistration::*flagIs)(bool), bool value);

  private:
    Mox::Ptr<TcpFileDescriptor> fileDescriptor_;
    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory_;
    Mox::Ptr<TcpFileDescriptorEventRegistration> fd_;
    Mox::Ptr<TcpPduFdSm> tcpPduFdSm_;
    uint32_t socketReadableCount_ = 0;
    uint32_t socketWritableCount_ = 0;
};

/// Forwards a registration's events to an endpoint, which owns it.
class PAVO_EXPORT TcpPduFdSm : public ReadinessSm<TcpPduFdSm, TcpFileDescriptorEventRegistration> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::TcpPduFdSm"); }

    /// `pam` is not held.
    TcpPduFdSm(Mox::Ptr<TcpFileDescriptorEventRegistration> fd, TcpPduPamBase* pam);

    /// Calls the function of the endpoint.
    /// @{
    virtual void handleReadable();
    virtual void handleWritable();
    /// @}
    /// With true, detaches the inner reactor: nothing calls the machine any more.
    virtual void moxDoZombieReactors(bool zombie);

  protected:
    ~TcpPduFdSm() override;

  private:
    TcpPduPamBase* pam_;
};

}  // namespace Pavo
