/// @file
/// The status that a TCP machine publishes for its owner.
#pragma once

#include <cstdint>
#include <deque>
#include <limits>

#include "Mox/Entity.h"
#include "Mox/Enum.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/tcp/TcpConnSocket.h"
#include "Pavo/tcp/TcpStatusPublisher.h"

namespace Pavo {

/// Written by a `TcpClientSm`. The machine first makes all changes that one step of its work
/// consists of, and then notifies of each: an observer of any attribute finds all the others
/// up to date, and may start, stop or drop the machine, or drop this.
class PAVO_EXPORT TcpClientStatus : public Mox::EntityOf<TcpClientStatus> {
  public:
    /// Where the machine is.
    enum class ConnectionStatus : uint32_t {
        idle = 0,        ///< not started, or stopped
        failed = 1,      ///< the last attempt failed, another one follows
        connecting = 2,  ///< an attempt is under way
        connected = 3,   ///< `connSocket` was set; the owner may reset it to let go of the stream
        timedout = 4,    ///< given up after the overall time-out
    };

    using Self = TcpClientStatus;
    static constexpr Mox::Attribute<Self> connectionStatusAttr{0, "connectionStatus"};
    static constexpr Mox::Attribute<Self> reasonAttr{1, "reason"};
    static constexpr Mox::Attribute<Self> connectionAttemptCountAttr{2, "connectionAttemptCount"};
    static constexpr Mox::Attribute<Self> connectionErrorCountAttr{3, "connectionErrorCount"};
    static constexpr Mox::Attribute<Self> connectionSuccessCountAttr{4, "connectionSuccessCount"};
    static constexpr Mox::Attribute<Self> retryTimerNextAttr{5, "retryTimerNext"};
    static constexpr Mox::Attribute<Self> retryTimerIntervalAttr{6, "retryTimerInterval"};
    static constexpr Mox::Attribute<Self> connSocketAttr{7, "connSocket"};
    static constexpr Mox::Attribute<Self> connectionAbandonedCountAttr{8,
                                                                       "connectionAbandonedCount"};
    static constexpr Mox::Attribute<Self> diagnosisAttr{9, "diagnosis"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::TcpClientStatus",
            Mox::attribute(connectionStatusAttr, &TcpClientStatus::connectionStatus),
            Mox::attribute(reasonAttr, &TcpClientStatus::reason),
            Mox::attribute(connectionAttemptCountAttr, &TcpClientStatus::connectionAttemptCount),
            Mox::attribute(connectionErrorCountAttr, &TcpClientStatus::connectionErrorCount),
            Mox::attribute(connectionSuccessCountAttr, &TcpClientStatus::connectionSuccessCount),
            Mox::attribute(retryTimerNextAttr, &TcpClientStatus::retryTimerNext),
            Mox::attribute(retryTimerIntervalAttr, &TcpClientStatus::retryTimerInterval),
            Mox::attribute(connSocketAttr, &TcpClientStatus::connSocket),
            Mox::attribute(connectionAbandonedCountAttr,
                           &TcpClientStatus::connectionAbandonedCount),
            Mox::attribute(diagnosisAttr, &TcpClientStatus::diagnosis));
    }

    /// A second failure in a row does not change it: observe `connectionErrorCount` to see each.
    ConnectionStatus connectionStatus() const { return connectionStatus_; }
    void connectionStatusIs(ConnectionStatus status) {
        publisher_.set(connectionStatus_, status, connectionStatusAttr);
    }
    /// Why the last attempt that failed did: "Connect (Connection refused)". An attempt given up
    /// after `kernelTcpTimeout`, and the overall time-out, are no such failure: they leave it as it
    /// is, and count no error.
    const Mox::String& reason() const { return reason_; }
    void reasonIs(const Mox::String& reason) { publisher_.set(reason_, reason, reasonAttr); }
    /// Attempts for which a socket could be opened.
    uint32_t connectionAttemptCount() const { return connectionAttemptCount_; }
    void connectionAttemptCountIs(uint32_t count) {
        publisher_.set(connectionAttemptCount_, count, connectionAttemptCountAttr);
    }
    uint32_t connectionAttemptCountInc(uint32_t delta) {
        return publisher_.inc(connectionAttemptCount_, delta, connectionAttemptCountAttr);
    }
    /// Attempts that failed, without those that `kernelTcpTimeout` has ended.
    uint32_t connectionErrorCount() const { return connectionErrorCount_; }
    void connectionErrorCountIs(uint32_t count) {
        publisher_.set(connectionErrorCount_, count, connectionErrorCountAttr);
    }
    uint32_t connectionErrorCountInc(uint32_t delta) {
        return publisher_.inc(connectionErrorCount_, delta, connectionErrorCountAttr);
    }
    /// Connections that were established.
    uint32_t connectionSuccessCount() const { return connectionSuccessCount_; }
    void connectionSuccessCountIs(uint32_t count) {
        publisher_.set(connectionSuccessCount_, count, connectionSuccessCountAttr);
    }
    uint32_t connectionSuccessCountInc(uint32_t delta) {
        return publisher_.inc(connectionSuccessCount_, delta, connectionSuccessCountAttr);
    }
    /// When the next attempt is made, in seconds of the machine's clock; +infinity when none is
    /// planned.
    double retryTimerNext() const { return retryTimerNext_; }
    void retryTimerNextIs(double time) {
        publisher_.set(retryTimerNext_, time, retryTimerNextAttr);
    }
    /// The seconds for which the retry timer was last set.
    uint32_t retryTimerInterval() const { return retryTimerInterval_; }
    void retryTimerIntervalIs(uint32_t seconds) {
        publisher_.set(retryTimerInterval_, seconds, retryTimerIntervalAttr);
    }
    /// The established connection, or an empty value. This status is one of its holders.
    const TcpConnSocket& connSocket() const { return connSocket_; }
    void connSocketIs(const TcpConnSocket& connection) {
        publisher_.set(connSocket_, connection, connSocketAttr);
    }
    /// Lets go of the connection.
    void resetConnSocket() { connSocketIs(TcpConnSocket()); }
    /// Attempts that `kernelTcpTimeout`, or the overall time-out, has ended without an answer.
    uint32_t connectionAbandonedCount() const { return connectionAbandonedCount_; }
    void connectionAbandonedCountIs(uint32_t count) {
        publisher_.set(connectionAbandonedCount_, count, connectionAbandonedCountAttr);
    }
    uint32_t connectionAbandonedCountInc(uint32_t delta) {
        return publisher_.inc(connectionAbandonedCount_, delta, connectionAbandonedCountAttr);
    }
    /// For people: what `reason` cannot say of an attempt without an answer, such as "hint: no
    /// answer within 20 s to 5 segments; this namespace counted 8 segments with a wrong signature
    /// meanwhile". What stands after "hint:" is a guess, since the counters are those of all
    /// sockets of the namespace, without the first 0.25 s of the first attempt. A connection, and a
    /// failure that has a reason, remove it. Before it stands, as long as that is so, "keys in
    /// md5Auth are ignored while optionMd5Auth is off". The words may change with each version.
    const Mox::String& diagnosis() const { return diagnosis_; }
    void diagnosisIs(const Mox::String& text) { publisher_.set(diagnosis_, text, diagnosisAttr); }

  protected:
    ~TcpClientStatus() override;

  private:
    friend class TcpClientSm;
    friend class TcpStatusPublisher<Self>;

    ConnectionStatus connectionStatus_ = ConnectionStatus::idle;
    Mox::String reason_;
    uint32_t connectionAttemptCount_ = 0;
    uint32_t connectionErrorCount_ = 0;
    uint32_t connectionSuccessCount_ = 0;
    uint32_t retryTimerInterval_ = 0;
    double retryTimerNext_ = std::numeric_limits<double>::infinity();
    TcpConnSocket connSocket_;
    uint32_t connectionAbandonedCount_ = 0;
    Mox::String diagnosis_;
    TcpStatusPublisher<Self> publisher_{this};
};

constexpr auto enumDescription(TcpClientStatus::ConnectionStatus) {
    using enum TcpClientStatus::ConnectionStatus;
    return Mox::enumeration<TcpClientStatus::ConnectionStatus>("Invalid ConnectionStatus",
                                                               {{idle, "idle"},
                                                                {failed, "failed"},
                                                                {connecting, "connecting"},
                                                                {connected, "connected"},
                                                                {timedout, "timedout"}});
}

PAVO_EXPORT Mox::Ptr<TcpClientStatus> tcpClientStatusFactory();

/// Written by a `TcpServerSm`. Accepted connections wait here, each under an index of its own that
/// counts up, until the owner takes them; there is no limit to them. Changes are published as those
/// of a `TcpClientStatus` are, and an observer may do the same.
class PAVO_EXPORT TcpServerStatus : public Mox::EntityOf<TcpServerStatus> {
  public:
    using Self = TcpServerStatus;
    static constexpr Mox::Attribute<Self> listeningAttr{0, "listening"};
    static constexpr Mox::Attribute<Self> reasonAttr{1, "reason"};
    static constexpr Mox::Attribute<Self> serverStartTimesAttr{2, "serverStartTimes"};
    static constexpr Mox::Attribute<Self> serverTimedOutTimesAttr{3, "serverTimedOutTimes"};
    static constexpr Mox::Attribute<Self> serverEagainEintrTimesAttr{4, "serverEagainEintrTimes"};
    static constexpr Mox::Attribute<Self> connSocketCountAttr{5, "connSocketCount"};
    static constexpr Mox::Attribute<Self, uint32_t> connSocketAttr{6, "connSocket"};
    static constexpr Mox::Attribute<Self> connSocketRefusedCountAttr{7, "connSocketRefusedCount"};
    static constexpr Mox::Attribute<Self> diagnosisAttr{8, "diagnosis"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::TcpServerStatus", Mox::attribute(listeningAttr, &TcpServerStatus::listening),
            Mox::attribute(reasonAttr, &TcpServerStatus::reason),
            Mox::attribute(serverStartTimesAttr, &TcpServerStatus::serverStartTimes),
            Mox::attribute(serverTimedOutTimesAttr, &TcpServerStatus::serverTimedOutTimes),
            Mox::attribute(serverEagainEintrTimesAttr, &TcpServerStatus::serverEagainEintrTimes),
            Mox::attribute(connSocketCountAttr, &TcpServerStatus::connSocketCount),
            Mox::attribute(connSocketAttr),
            Mox::attribute(connSocketRefusedCountAttr, &TcpServerStatus::connSocketRefusedCount),
            Mox::attribute(diagnosisAttr, &TcpServerStatus::diagnosis));
    }

    /// A socket is open on the port.
    bool listening() const { return listening_; }
    void listeningIs(bool listening) { publisher_.set(listening_, listening, listeningAttr); }
    /// "Not started", "Listening", "Listening port is 0", or what failed: "Bind (Address already in
    /// use)". A stop and the overall time-out leave it as it was.
    const Mox::String& reason() const { return reason_; }
    void reasonIs(const Mox::String& reason) { publisher_.set(reason_, reason, reasonAttr); }
    /// Attempts to listen, those that failed among them.
    uint32_t serverStartTimes() const { return serverStartTimes_; }
    void serverStartTimesIs(uint32_t count) {
        publisher_.set(serverStartTimes_, count, serverStartTimesAttr);
    }
    uint32_t serverStartTimesInc(uint32_t delta) {
        return publisher_.inc(serverStartTimes_, delta, serverStartTimesAttr);
    }
    /// Times that the overall time-out has ended the listener.
    uint32_t serverTimedOutTimes() const { return serverTimedOutTimes_; }
    void serverTimedOutTimesIs(uint32_t count) {
        publisher_.set(serverTimedOutTimes_, count, serverTimedOutTimesAttr);
    }
    uint32_t serverTimedOutTimesInc(uint32_t delta) {
        return publisher_.inc(serverTimedOutTimes_, delta, serverTimedOutTimesAttr);
    }
    /// Events of the listening socket for which accept(2) found no connection.
    uint32_t serverEagainEintrTimes() const { return serverEagainEintrTimes_; }
    void serverEagainEintrTimesIs(uint32_t count) {
        publisher_.set(serverEagainEintrTimes_, count, serverEagainEintrTimesAttr);
    }
    uint32_t serverEagainEintrTimesInc(uint32_t delta) {
        return publisher_.inc(serverEagainEintrTimes_, delta, serverEagainEintrTimesAttr);
    }
    /// Connections ever accepted and queued.
    uint32_t connSocketCount() const { return connSocketCount_; }
    void connSocketCountIs(uint32_t count) {
        publisher_.set(connSocketCount_, count, connSocketCountAttr);
    }
    uint32_t connSocketCountInc(uint32_t delta) {
        return publisher_.inc(connSocketCount_, delta, connSocketCountAttr);
    }

    /// Connections that were closed for `peerRxMinTtl` before they were queued.
    uint32_t connSocketRefusedCount() const { return connSocketRefusedCount_; }
    void connSocketRefusedCountIs(uint32_t count) {
        publisher_.set(connSocketRefusedCount_, count, connSocketRefusedCountAttr);
    }
    uint32_t connSocketRefusedCountInc(uint32_t delta) {
        return publisher_.inc(connSocketRefusedCount_, delta, connSocketRefusedCountAttr);
    }
    /// For people: what was kept from the listener. The last connection that was refused ("refused
    /// 192.0.2.1: its SYN had TTL 63, at least 255 is asked for"), and as a hint what the namespace
    /// dropped since the listener was started ("hint: this namespace counted 8 segments with a
    /// wrong signature since the start"). While keys are applied, or TTLs asked for, the counters
    /// are read every 10 s. Before these stands, as long as that is so, "keys in md5Auth are
    /// ignored while optionMd5Auth is off". A new start begins anew. The words may change with each
    /// version.
    const Mox::String& diagnosis() const { return diagnosis_; }
    void diagnosisIs(const Mox::String& text) { publisher_.set(diagnosis_, text, diagnosisAttr); }

    /// Takes the oldest waiting connection; an empty value when none waits.
    TcpConnSocket getConnSocket() { return connSocketDeq(); }

    /// The connections that wait.
    uint32_t connSocketMembers() const { return static_cast<uint32_t>(queue_.size()); }
    /// The connection with the index; an empty value when there is none.
    TcpConnSocket connSocket(uint32_t index) const;
    /// The oldest, and the newest; an empty value when none waits.
    /// @{
    TcpConnSocket connSocketFront() const;
    TcpConnSocket connSocketBack() const;
    /// @}
    /// Queues a connection and gives its index.
    uint32_t connSocketEnq(const TcpConnSocket& connection);
    /// Takes the oldest; an empty value when none waits.
    TcpConnSocket connSocketDeq();
    /// Replaces the connection with the index, or queues this one under it.
    void connSocketIs(uint32_t index, const TcpConnSocket& connection);
    void connSocketDel(uint32_t index);
    /// Drops all that wait: the descriptor of each is closed unless another holder is left.
    void connSocketDelAll();

  protected:
    ~TcpServerStatus() override;

  private:
    friend class TcpServerSm;
    friend class TcpStatusPublisher<Self>;

    struct Waiting {
        uint32_t index;
        TcpConnSocket connection;
    };
    using Queue = std::deque<Waiting>;

    Queue::iterator find(uint32_t index);

    bool listening_ = false;
    Mox::String reason_;
    uint32_t serverStartTimes_ = 0;
    uint32_t serverTimedOutTimes_ = 0;
    uint32_t serverEagainEintrTimes_ = 0;
    uint32_t connSocketCount_ = 0;
    uint32_t nextIndex_ = 0;
    uint32_t connSocketRefusedCount_ = 0;
    Queue queue_;
    Mox::String diagnosis_;
    TcpStatusPublisher<Self> publisher_{this};
};

PAVO_EXPORT Mox::Ptr<TcpServerStatus> tcpServerStatusFactory();

}  // namespace Pavo
