/// @file
/// What machines say of segments that are dropped silently: those with a signature or a TTL that
/// does not fit, neither end gets an error.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "Keel/TimerWheel.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// The segments that a namespace has dropped for their signature or their TTL, as its counters say
/// (/proc/net/netstat, netstat(8)). To read them takes some 50 us, so that all machines of a thread
/// share what was read less than a millisecond ago.
class TcpDrops {
  public:
    /// Nothing where the counters cannot be read, as without /proc.
    static std::optional<TcpDrops> of(const NamespaceName& netNs);

    /// What a connection asks of segments.
    struct Demands {
        bool signature = false;
        bool ttl = false;
    };

    /// What was added: "this namespace counted 8 segments with a wrong signature and 2 with too
    /// small a TTL"; empty for nothing. With demands only what a connection with these may have
    /// caused: the namespace has other connections, too.
    std::string since(const TcpDrops& before, std::optional<Demands> demands = {}) const;

  private:
    static constexpr std::size_t kinds = 4;

    static std::optional<TcpDrops> read(const NamespaceName& netNs);

    std::array<uint64_t, kinds> counts_{};
};

/// An attempt of a client: how long it has waited for an answer, and what was dropped meanwhile.
/// Most attempts are answered at once, so that the counters are read only some time after one has
/// begun. One that follows an attempt without an answer counts from the end of that.
class TcpAttempt {
  public:
    explicit TcpAttempt(Keel::TimerWheel* wheel);

    /// The handshake has begun.
    void begin(const NamespaceName& netNs);
    /// It ends without an answer, on a socket that is still open.
    void endUnanswered(int sd, TcpDrops::Demands demands);
    /// It ends in another way. The hint stays.
    void stop();
    /// The same, and there is nothing to say of it.
    void end() {
        stop();
        hint_.clear();
    }

    /// What `endUnanswered` found, until `end`.
    const std::string& hint() const { return hint_; }

  private:
    Keel::TimerWheel* wheel_;
    Keel::Timer timer_;
    NamespaceName netNs_;
    double begin_ = 0;
    std::optional<TcpDrops> before_;
    std::string hint_;
};

/// What was kept from a listener since its start.
class TcpListenerWatch {
  public:
    /// `changed()` is called when `text()` may have changed by itself.
    TcpListenerWatch(Keel::TimerWheel* wheel, std::function<void()> changed);

    /// Begins anew.
    void begin();
    /// With true, counts segments from now on, unless it does; with false not any more.
    void countingIs(bool counting, const NamespaceName& netNs);
    /// A connection was refused for the TTL of its SYN, or because the kernel has not kept that.
    void refusedIs(const IpGenAddr& peer, std::optional<IpTtl> ttl, IpTtl least);
    /// Why the listener does not start.
    void faultIs(const std::string& fault) { fact_ = fault; }

    std::string text() const;

  private:
    void look();

    std::function<void()> changed_;
    Keel::TimerWheel* wheel_;
    Keel::Timer timer_;
    NamespaceName netNs_;
    std::optional<TcpDrops> before_;
    std::string fact_;
    std::string drops_;
};

/// Statements that are not empty, joined by "; ".
std::string tcpDiagnosis(const std::string& first, const std::string& second);

}  // namespace Pavo
