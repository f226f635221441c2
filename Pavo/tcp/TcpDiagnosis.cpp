#include "Pavo/tcp/TcpDiagnosis.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <string_view>
#include <utility>

#include "Mox/Trace.h"
#include "netns/netns.h"

namespace Pavo {

namespace {

struct Kind {
    std::string_view counter;
    std::string_view words;
    bool (*mayMeet)(TcpDrops::Demands demands);
};

bool isSigned(TcpDrops::Demands demands) {
    return demands.signature;
}

constexpr Kind dropKinds[] = {
    {"TCPMD5Failure", "with a wrong signature", isSigned},
    {"TCPMD5NotFound", "without the signature of a key", isSigned},
    {"TCPMD5Unexpected", "with a signature but no key for it",
     [](TcpDrops::Demands demands) { return !demands.signature; }},
    {"TCPMinTTLDrop", "with too small a TTL",
     [](TcpDrops::Demands demands) { return demands.ttl; }},
};

// For the first attempt: a peer that is there has answered by then.
constexpr double answerSeconds = 0.25;
constexpr double listenerSeconds = 10;

// The whole file, or what could be read of it.
std::string contentsOf(int fd) {
    std::string contents;
    char part[4096];
    for (ssize_t bytes; (bytes = read(fd, part, sizeof(part))) > 0;) {
        contents.append(part, static_cast<std::size_t>(bytes));
    }
    return contents;
}

// Takes the text up to a separator, and the separator.
std::string_view takeUpTo(char separator, std::string_view* text) {
    const std::string_view taken = text->substr(0, text->find(separator));
    text->remove_prefix(std::min(taken.size() + 1, text->size()));
    return taken;
}

uint64_t numberOf(std::string_view text) {
    uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::string counted(uint64_t number, std::string_view noun) {
    return std::to_string(number) + " " + std::string(noun) + (number == 1 ? "" : "s");
}

// The segments that a socket without an answer has sent.
uint64_t segmentsSent(int sd) {
    tcp_info info{};
    socklen_t bytes = sizeof(info);
    (void)getsockopt(sd, IPPROTO_TCP, TCP_INFO, &info, &bytes);  // Else none was sent again.
    return 1 + uint64_t{info.tcpi_total_retrans};
}

}  // namespace

std::optional<TcpDrops> TcpDrops::of(const NamespaceName& netNs) {
    struct Reading {
        NamespaceName netNs;
        std::chrono::steady_clock::time_point time;
        std::optional<TcpDrops> drops;
    };
    static thread_local Reading last;
    const auto now = std::chrono::steady_clock::now();
    if (last.netNs != netNs || now - last.time > std::chrono::milliseconds(1)) {
        last = {netNs, now, read(netNs)};
    }
    return last.drops;
}

// Two lines a group: names, and their numbers.
std::optional<TcpDrops> TcpDrops::read(const NamespaceName& netNs) {
    static_assert(std::size(dropKinds) == kinds);
    const Mox::ErrnoKeeper keeper;
    const int fd =
        netnsOpenAt("/proc/thread-self/net/netstat", O_RDONLY | O_CLOEXEC, netNs.value().c_str());
    if (fd < 0) {
        return std::nullopt;
    }
    const std::string contents = contentsOf(fd);
    (void)close(fd);  // It was only read.
    TcpDrops drops;
    for (std::string_view left = contents; !left.empty();) {
        std::string_view names = takeUpTo('\n', &left);
        std::string_view numbers = takeUpTo('\n', &left);
        while (!names.empty()) {
            const std::string_view name = takeUpTo(' ', &names);
            const uint64_t number = numberOf(takeUpTo(' ', &numbers));
            for (std::size_t i = 0; i < kinds; ++i) {
                drops.counts_[i] += name == dropKinds[i].counter ? number : 0;
            }
        }
    }
    return drops;
}

std::string TcpDrops::since(const TcpDrops& before, std::optional<Demands> demands) const {
    std::string text;
    for (std::size_t i = 0; i < kinds; ++i) {
        if (counts_[i] > before.counts_[i] && (!demands || dropKinds[i].mayMeet(*demands))) {
            const uint64_t added = counts_[i] - before.counts_[i];
            text += text.empty() ? "this namespace counted " + counted(added, "segment")
                                 : " and " + std::to_string(added);
            text += " " + std::string(dropKinds[i].words);
        }
    }
    return text;
}

TcpAttempt::TcpAttempt(Keel::TimerWheel* wheel)
    : wheel_(wheel), timer_(wheel, [this] { before_ = TcpDrops::of(netNs_); }) {}

void TcpAttempt::begin(const NamespaceName& netNs) {
    begin_ = wheel_->now();
    if (!before_ || netNs_ != netNs) {
        netNs_ = netNs;
        before_ = std::nullopt;
        timer_.expiryIs(begin_ + answerSeconds);
    }
}

void TcpAttempt::endUnanswered(int sd, TcpDrops::Demands demands) {
    const auto now = TcpDrops::of(netNs_);
    std::string found = now && before_ ? now->since(*before_, demands) : "";
    if (!found.empty()) {
        found += " meanwhile";
    } else if (demands.signature) {
        found = "a peer without this key does not answer, nor does one that does not listen";
    } else {
        found = "a peer that asks for a signature, or for a greater TTL, does not answer";
    }
    const double waited = wheel_->now() - begin_;
    char seconds[32];
    std::snprintf(seconds, sizeof(seconds), waited < 1 ? "%.2g" : "%.0f", waited);
    hint_ = "hint: no answer within " + std::string(seconds) + " s to " +
            counted(segmentsSent(sd), "segment") + "; " + found;
    before_ = now;
    timer_.expiryIs(Keel::TimerWheel::idle);
}

void TcpAttempt::stop() {
    timer_.expiryIs(Keel::TimerWheel::idle);
    before_ = std::nullopt;
}

TcpListenerWatch::TcpListenerWatch(Keel::TimerWheel* wheel, std::function<void()> changed)
    : changed_(std::move(changed)), wheel_(wheel), timer_(wheel, [this] { look(); }) {}

void TcpListenerWatch::begin() {
    countingIs(false, netNs_);
    fact_.clear();
    drops_.clear();
}

void TcpListenerWatch::countingIs(bool counting, const NamespaceName& netNs) {
    if (!counting) {
        timer_.expiryIs(Keel::TimerWheel::idle);
    } else if (timer_.isIdle()) {
        netNs_ = netNs;
        before_ = TcpDrops::of(netNs_);
        timer_.expiryIs(wheel_->now() + listenerSeconds);
    }
}

void TcpListenerWatch::look() {
    const auto now = TcpDrops::of(netNs_);
    drops_ = now && before_ ? now->since(*before_) : "";
    timer_.expiryIs(wheel_->now() + listenerSeconds);
    changed_();
}

void TcpListenerWatch::refusedIs(const IpGenAddr& peer, std::optional<IpTtl> ttl, IpTtl least) {
    const auto numberOf = [](IpTtl each) { return std::to_string(each.value()); };
    fact_ = "refused " + std::string(peer.stringValue().view()) +
            (ttl ? ": its SYN had TTL " + numberOf(*ttl) : ": the kernel has not kept its SYN") +
            ", at least " + numberOf(least) + " is asked for";
}

std::string TcpListenerWatch::text() const {
    return tcpDiagnosis(fact_, drops_.empty() ? "" : "hint: " + drops_ + " since the start");
}

std::string tcpDiagnosis(const std::string& first, const std::string& second) {
    return first + (first.empty() || second.empty() ? "" : "; ") + second;
}

}  // namespace Pavo
