/// @file
/// The machines that open a TCP connection, and that accept connections. This is the header for
/// agents: it brings configurations and statuses along.
#pragma once

#include <cstdint>
#include <limits>

#include "Keel/TimerWheel.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/tcp/TcpConfig.h"
#include "Pavo/tcp/TcpConnSocket.h"
#include "Pavo/tcp/TcpFd.h"
#include "Pavo/tcp/TcpSm.h"
#include "Pavo/tcp/TcpSockOpt.h"
#include "Pavo/tcp/TcpStatus.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrWithMask.h"

namespace Pavo {

/// Opens one connection and, where an attempt fails, tries again until it is there:
///
///     idle -- startConnection --> connecting -- writable --> connected
///     connecting -- any failure --> failed -- retry timer --> connecting
///     connecting -- retry timer, after kernelTcpTimeout --> connecting, with a new socket
///     connecting, failed -- overall time-out --> timedout
///     any -- stopConnection --> idle
///
/// The overall time-out runs from the owner's start to the connection, through all failures. An
/// established connection is the owner's: its stream closes when `connSocket` of the status and
/// everybody else who holds the descriptor has let go of it. The machine does not watch it; an
/// owner that has lost it starts again.
///
/// A start from inside a notification of an attempt under way is put off: the attempt goes on, and
/// if it has led to nothing the next one follows after the retry interval.
class PAVO_EXPORT TcpClientSm : public Mox::Described<TcpClientSm, TcpSmBase> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::TcpClientSm"); }

    TcpClientSm(TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
                Keel::TimerWheel* timerWheel, uint32_t clientId,
                Mox::Ptr<TcpClientConfig> tcpClientConfig,
                Mox::Ptr<TcpClientStatus> tcpClientStatus);

    void handleRetry() override;
    void handleTimeout() override;
    Mox::String formatDerivedType() const override;
    AddressFamily af() const override;
    void handleInitialized() override;
    void handleSocketOptions() override;
    /// Changes nothing: keys count from the next connection on.
    void handleSocketMd5AuthOption(IpGenAddrWithMask addrWithMask) override;
    void moxDoZombieReactors(bool zombie) override;

    /// A hook that is applied to nothing; 0.
    virtual uint32_t retryTimerJitterPercentage() const;
    /// The connecting descriptor has become writable.
    virtual void handleConnect();

    /// For traces.
    uint32_t clientId() const { return clientId_; }
    const Mox::Ptr<TcpClientConfig>& tcpClientConfig() const { return tcpClientConfig_; }
    const Mox::Ptr<TcpClientStatus>& tcpClientStatus() const { return tcpClientStatus_; }
    bool useMoxEventLoop() const { return useMoxEventLoop_; }

    /// Tries to connect, from the beginning; an unfinished attempt is given up. False when the
    /// attempt has failed already, and without a configuration.
    bool startConnection();
    /// Gives up attempt and connection.
    void stopConnection();
    /// Plans the next attempt: after the retry interval, doubled as configured while the status is
    /// "failed"; or after `kernelTcpTimeout` while it is "connecting", which no other status may be
    /// (assertion "tcpClientStatus()->connectionStatus() ==
    /// TcpClientStatus::ConnectionStatus::connecting_").
    void restartRetryTimer();
    void stopRetryTimer();
    /// Writes a failure down, "Connect (Connection refused)", and lets go of the socket. Plans no
    /// retry.
    void handleClientError(const Mox::String& function, const Mox::String& errorText);
    /// The number of the connecting or connected descriptor; -1 when there is none.
    int getClientSocket() const;
    /// What becomes of the machine's work when its last reference goes: as `stopConnection`.
    void cleanup() { stopConnection(); }

  protected:
    ~TcpClientSm() override;

  private:
    bool attempt();
    bool openAndConnect(uint32_t course);
    const char* connectSocket(int sd);
    bool fail(const char* function, int error);
    void stop();
    void planRetry(uint32_t intervalSeconds);

    uint32_t clientId_;
    Mox::Ptr<TcpClientConfig> tcpClientConfig_;
    Mox::Ptr<TcpClientStatus> tcpClientStatus_;
    bool useMoxEventLoop_ = false;
};

/// A new idle machine. It holds the factory; the wheel must outlive it.
/// @pre there is a status (assertion "tcpClientStatus").
PAVO_EXPORT Mox::Ptr<TcpClientSm> tcpClientSmFactory(
    TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
    Keel::TimerWheel* timerWheel, uint32_t clientId, Mox::Ptr<TcpClientConfig> tcpClientConfig,
    Mox::Ptr<TcpClientStatus> tcpClientStatus);

/// Keeps one socket listening, and queues accepted connections in the status:
///
///     not listening -- startListener --> listening
///     not listening -- any failure, retryInterval --> listening
///     listening -- failing accept(2), options that fail, a changed key --> not listening, then
///         listening again by a new socket from the next round of the event loop on
///     any -- stopListener, overall time-out --> not listening
///
/// A listener that fails again within `retryInterval` of such a restart, with no connection
/// accepted in between, waits that long first: out of descriptors, or robbed of its port, it would
/// fail as fast as the machine can. Every stop drops the connections that nobody has taken yet.
///
/// A start from inside a notification of a start under way is put off, as a client's is.
class PAVO_EXPORT TcpServerSm : public Mox::Described<TcpServerSm, TcpSmBase> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::TcpServerSm"); }

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
    /// Restarts the listener, whatever it was doing: a stopped machine starts.
    void handleSocketMd5AuthOption(IpGenAddrWithMask addrWithMask) override;
    void moxDoZombieReactors(bool zombie) override;

    const Mox::Ptr<TcpServerConfig>& tcpServerConfig() const { return tcpServerConfig_; }
    const Mox::Ptr<TcpServerStatus>& tcpServerStatus() const { return tcpServerStatus_; }
    /// Kept for owners; the machine restarts its listener in any case.
    bool restartOnSetSockOptError() const { return restartOnSetSockOptError_; }
    void restartOnSetSockOptErrorIs(bool restart) { restartOnSetSockOptError_ = restart; }
    /// Connections that the kernel keeps until they are accepted; counts from the next start on.
    int backlog() const { return backlog_; }
    void backlogIs(int backlog) { backlog_ = backlog; }
    /// IPV6_V6ONLY of an IPv6 listener; counts from the next start on.
    bool v6Only() const { return v6Only_; }
    void v6OnlyIs(bool v6Only) { v6Only_ = v6Only; }

    /// Listens. False when that has failed, without a configuration, and for port 0, which is not
    /// tried again; true also when it listens already.
    bool startListener();
    void stopListener();
    bool restartListener();
    /// Stops, and starts again from the next round of the event loop.
    void restartListenerDeferred();
    /// Plans the next start, after the retry interval.
    void restartRetryTimer();
    void stopRetryTimer();
    /// The listening descriptor has become readable: accepts one connection.
    void handleAccept();
    /// Queues an accepted connection. One whose ends the kernel does not tell, as after a reset, is
    /// dropped.
    void socketAccepted(const Mox::Ptr<TcpFileDescriptor>& fd);
    /// Writes a failure down, "Bind (Address already in use)", and closes the listener. Plans no
    /// retry.
    void handleServerError(const Mox::String& function, const Mox::String& errorText);
    /// What becomes of the machine's work when its last reference goes: as `stopListener`.
    void cleanup() { stopListener(); }

  protected:
    ~TcpServerSm() override;

  private:
    bool start();
    bool openAndListen(uint32_t course);
    const char* bindSocket(int sd);
    bool fail(const char* function, int error);
    void listenerFailed(const char* function, int error);
    void restartIn(uint32_t seconds);
    void letGo();
    void tellStopped();

    Mox::Ptr<TcpServerConfig> tcpServerConfig_;
    Mox::Ptr<TcpServerStatus> tcpServerStatus_;
    /// When a listener that had failed was, or is to be, started again.
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
