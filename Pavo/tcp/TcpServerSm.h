/// @file
/// The machine that accepts TCP connections.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>

#include "Keel/TimerWheel.h"
#include "Mox/Entity.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/tcp/TcpConfig.h"
#include "Pavo/tcp/TcpFd.h"
#include "Pavo/tcp/TcpSm.h"
#include "Pavo/tcp/TcpStatus.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrWithMask.h"

namespace Pavo {

class TcpListenerWatch;

/// Keeps one socket listening, and queues accepted connections in the status. The states are those
/// of `listening`:
///
///     not listening -- startListener --> listening
///     not listening -- any failure, then the retry timer --> listening
///     listening -- failing accept(2), refused options, a changed key --> not listening, then
///         listening again with a new socket from the next round of the machine's clock on
///     any -- stopListener, overall time-out --> not listening
///
///     state           socket      retry timer                     overall time-out
///     listening       registered  idle                            runs, if configured
///     failed          none        retryInterval                   runs, if configured
///     to be restarted none        0, or retryInterval as below    idle
///     stopped         none        idle                            idle
///
/// A listener that fails again within `retryInterval` of a restart, with no connection accepted in
/// between, waits that long before the next: out of descriptors, or with its port taken by another
/// socket, it would fail as fast as the event loop turns. Every stop, also that of a restart, drops
/// the connections that the owner has not taken yet.
///
/// Peers that `peerRxMinTtl` of the configuration names are let in by the TTL of their SYN; others
/// are closed and counted in `connSocketRefusedCount`. A kernel that keeps no SYN fails the
/// listener with "Setsockopt (Protocol not available)". What is kept from the listener without an
/// event is in `diagnosis`; while keys are applied or TTLs asked for, a timer looks for it every 10
/// s.
///
/// `TcpSmBase` says what observers of the status may do.
class PAVO_EXPORT TcpServerSm : public Mox::Described<TcpServerSm, TcpSmBase> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::TcpServerSm"); }

    /// For the factory function, which also makes the machine ready for work.
    TcpServerSm(TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
                Keel::TimerWheel* timerWheel, Mox::Ptr<TcpServerConfig> tcpServerConfig,
                Mox::Ptr<TcpServerStatus> tcpServerStatus);

    void handleRetry() override;
    void handleTimeout() override;
    Mox::String formatDerivedType() const override;
    AddressFamily af() const override;
    void handleInitialized() override;
    int applySocketOptions(int sd, SdType sdType) override;
    void handleSocketOptions() override;
    /// Restarts the listener from any state: a stopped machine starts.
    void handleSocketMd5AuthOption(IpGenAddrWithMask addrWithMask) override;
    void moxDoZombieReactors(bool zombie) override;

    /// The configuration that the machine follows; null where it has none.
    const Mox::Ptr<TcpServerConfig>& tcpServerConfig() const { return tcpServerConfig_; }
    /// The status that the machine writes.
    const Mox::Ptr<TcpServerStatus>& tcpServerStatus() const { return tcpServerStatus_; }
    /// Has no effect: the machine restarts its listener in any case. True by default.
    bool restartOnSetSockOptError() const { return restartOnSetSockOptError_; }
    void restartOnSetSockOptErrorIs(bool restart) { restartOnSetSockOptError_ = restart; }
    /// Connections that the kernel keeps until they are accepted, 5 by default; takes effect at the
    /// next start.
    int backlog() const { return backlog_; }
    void backlogIs(int backlog) { backlog_ = backlog; }
    /// IPV6_V6ONLY of an IPv6 listener, on by default; takes effect at the next start. While it is
    /// off, options of the TTL, the TOS byte and path MTU discovery, and keys, are applied for IPv4
    /// peers too.
    bool v6Only() const { return v6Only_; }
    void v6OnlyIs(bool v6Only) { v6Only_ = v6Only; }

    /// Listens. False when that has failed, without a configuration, and for port 0, which is not
    /// tried again; true also when it listens already.
    /// @pre an event loop on this thread, where registrations need one (assertion
    /// "EventLoop::current()").
    bool startListener();
    /// Closes the listening socket, and drops the connections that wait.
    void stopListener();
    /// `stopListener` and `startListener`, published as one step.
    bool restartListener();
    /// Stops, and starts again in the next round of the machine's clock.
    void restartListenerDeferred();
    /// Plans the next start, after the retry interval.
    void restartRetryTimer();
    /// Drops the planned start.
    void stopRetryTimer();
    /// The listening descriptor has become readable: accepts one connection.
    void handleAccept();
    /// Queues an accepted connection. One whose addresses the kernel does not give, as after a
    /// reset, is dropped.
    void socketAccepted(const Mox::Ptr<TcpFileDescriptor>& fd);
    /// Records a failure, "Bind (Address already in use)", and closes the listener. Plans no retry.
    void handleServerError(const Mox::String& function, const Mox::String& errorText);
    /// Called when the last reference is dropped; the same as `stopListener`.
    void cleanup() { stopListener(); }

  protected:
    ~TcpServerSm() override;

  private:
    bool start();
    void listenOnNewSocket();
    const char* setUpAndBind(int sd);
    void listenerFailed(const char* function, int error);
    bool refuses(const TcpConnSocket& connection, IpTtl least);
    int applyPeerTtl(int sd, IpTtl least);
    bool isProtected() const;
    void handlePeerRxMinTtl();
    void diagnose();
    void publish(const std::function<void()>& changes);

    Mox::Ptr<TcpServerConfig> tcpServerConfig_;
    Mox::Ptr<TcpServerStatus> tcpServerStatus_;
    Mox::Watch<TcpServerConfig> peerRxMinTtlWatch_;
    std::unique_ptr<TcpListenerWatch> watch_;
    /// When the listener was, or is to be, restarted after its last failure.
    double restartTime_ = -std::numeric_limits<double>::infinity();
    int backlog_ = 5;
    bool v6Only_ = true;
    bool restartOnSetSockOptError_ = true;
};

/// A new machine that does not listen yet. It holds the factory; the wheel must outlive it.
/// @pre there is a status (assertion "tcpServerStatus").
PAVO_EXPORT Mox::Ptr<TcpServerSm> tcpServerSmFactory(
    TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
    Keel::TimerWheel* timerWheel, Mox::Ptr<TcpServerConfig> tcpServerConfig,
    Mox::Ptr<TcpServerStatus> tcpServerStatus);

}  // namespace Pavo
