/// @file
/// The machine that opens a TCP connection.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "Keel/TimerWheel.h"
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

class TcpAttempt;

/// Opens one connection and, where an attempt fails, tries again until it is there. The states are
/// those of `connectionStatus`:
///
///     idle -- startConnection --> connecting -- writable --> connected
///     connecting -- any failure --> failed -- retry timer --> connecting
///     connecting -- retry timer, after kernelTcpTimeout --> connecting, with a new socket
///     connecting, failed -- overall time-out --> timedout
///     connected -- options that the socket refuses --> failed
///     any -- stopConnection --> idle
///     any -- startConnection --> connecting, from the beginning
///
///     state        socket      retry timer                    overall time-out
///     idle         none        idle                           idle
///     connecting   registered  kernelTcpTimeout               runs, if configured
///     failed       none        retryInterval, with back-off   runs, if configured
///     connected    the owner's idle                           idle
///     timedout     none        idle                           idle
///
/// An attempt whose connect(2) fails immediately leads to "failed" without "connecting". The
/// overall time-out runs from the first attempt to the connection, through all failures. With
/// `exponentialBackoffRetries` n the interval after a failure doubles n - 1 times, and then starts
/// again from `retryInterval`.
///
/// An established connection is the owner's: its stream closes when `connSocket` of the status and
/// all other holders of the descriptor have let go of it. The machine does not watch it: the owner
/// learns of a lost connection from `rxErrors` and `txErrors` of its endpoint (not while the
/// endpoint holds a message or reading is off), and starts again. The old connection stays in
/// `connSocket` until that start fails, succeeds or is stopped.
///
/// An attempt without an answer, which `kernelTcpTimeout` or the overall time-out ends, changes
/// neither `reason` nor the count of errors. It is counted in `connectionAbandonedCount`, and
/// `diagnosis` says what is known; both are the last changes of their step.
///
/// `TcpSmBase` says what observers of the status may do.
class PAVO_EXPORT TcpClientSm : public Mox::Described<TcpClientSm, TcpSmBase> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::TcpClientSm"); }

    /// For the factory function, which also makes the machine ready for work.
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
    /// Changes nothing: keys take effect with the next connection.
    void handleSocketMd5AuthOption(IpGenAddrWithMask addrWithMask) override;
    void moxDoZombieReactors(bool zombie) override;

    /// Not used; returns 0.
    virtual uint32_t retryTimerJitterPercentage() const;
    /// The connecting descriptor has become writable.
    virtual void handleConnect();

    /// For traces.
    uint32_t clientId() const { return clientId_; }
    /// The configuration that the machine follows; null where it has none.
    const Mox::Ptr<TcpClientConfig>& tcpClientConfig() const { return tcpClientConfig_; }
    /// The status that the machine writes; never null.
    const Mox::Ptr<TcpClientStatus>& tcpClientStatus() const { return tcpClientStatus_; }
    /// True once the machine is initialized.
    bool useMoxEventLoop() const { return useMoxEventLoop_; }

    /// Tries to connect, from the beginning; an unfinished attempt is given up. True while an
    /// attempt is under way: false when it has failed already, and without a configuration.
    /// @pre an event loop on this thread, where registrations need one (assertion
    /// "EventLoop::current()").
    bool startConnection();
    /// Gives up attempt and connection.
    void stopConnection();
    /// Plans the next attempt: after the retry interval, doubled as configured while the status is
    /// "failed"; after `kernelTcpTimeout` while it is "connecting".
    /// @pre the status is "idle", "failed" or "connecting" (assertion
    /// "tcpClientStatus()->connectionStatus() ==
    /// TcpClientStatus::ConnectionStatus::connecting_").
    void restartRetryTimer();
    /// Drops the planned attempt.
    void stopRetryTimer();
    /// Records a failure, "Connect (Connection refused)", and drops socket and connection. Plans
    /// no retry.
    void handleClientError(const Mox::String& function, const Mox::String& errorText);
    /// The number of the connecting or connected descriptor; -1 when there is none.
    int getClientSocket() const;
    /// Called when the last reference is dropped; the same as `stopConnection`.
    void cleanup() { stopConnection(); }

  protected:
    ~TcpClientSm() override;

  private:
    bool attempt(bool isRetry);
    void connectNewSocket(bool isRetry);
    bool abandonAttempt();
    void recordError(const Mox::String& function, const Mox::String& errorText);
    void diagnose();
    const char* setUpAndConnect(int sd);
    void fail(const char* function, int error);
    void planRetry(uint32_t intervalSeconds);
    void publish(const std::function<void()>& changes);

    uint32_t clientId_;
    Mox::Ptr<TcpClientConfig> tcpClientConfig_;
    Mox::Ptr<TcpClientStatus> tcpClientStatus_;
    std::unique_ptr<TcpAttempt> attempt_;
    bool useMoxEventLoop_ = false;
};

/// A new idle machine. It holds the factory; the wheel must outlive it.
/// @pre there is a status (assertion "tcpClientStatus").
PAVO_EXPORT Mox::Ptr<TcpClientSm> tcpClientSmFactory(
    TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
    Keel::TimerWheel* timerWheel, uint32_t clientId, Mox::Ptr<TcpClientConfig> tcpClientConfig,
    Mox::Ptr<TcpClientStatus> tcpClientStatus);

}  // namespace Pavo
