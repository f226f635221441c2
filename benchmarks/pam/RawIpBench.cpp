// Raw IP packets over a wire between two namespaces, beside bare system calls with the same control
// messages. Bursts are sent and then read; each half is timed alone, and the programs that are
// compared run in turn.

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Mox/EventLoop.h"
#include "Pavo/Ip6SocketPam.h"
#include "Pavo/IpSocketPam.h"
#include "Pavo/SocketAt.h"
#include "sandbox/Sandbox.h"

namespace {

constexpr int protocol = 253;
constexpr int burst = 64;
constexpr uint32_t payloadBytes = 64;

// What differs from one family to the other.
struct FourEnds {
    using Name = sockaddr_in;
    using PktInfo = in_pktinfo;
    static constexpr int domain = AF_INET;
    static constexpr int level = IPPROTO_IP;
    static constexpr int pktInfo = IP_PKTINFO;
    static constexpr int rxOptions[] = {IP_PKTINFO, IP_RECVTTL, IP_RECVTOS, IP_RECVORIGDSTADDR};
    static constexpr Pavo::IpAddr left{0xc0000201};
    static constexpr Pavo::IpAddr right{0xc0000202};

    static Mox::Ptr<Pavo::RawIpPam> pam(const char* netNs) {
        return Pavo::ipSocketPamFactory(netNs, Pavo::IpProtocolNumber::experiment1,
                                        Pavo::NamespaceName(netNs));
    }
    static void fill(Name* name, PktInfo* info) {
        name->sin_family = AF_INET;
        name->sin_addr.s_addr = htonl(right.value());
        info->ipi_spec_dst.s_addr = htonl(left.value());
    }
};

struct SixEnds {
    using Name = sockaddr_in6;
    using PktInfo = in6_pktinfo;
    static constexpr int domain = AF_INET6;
    static constexpr int level = IPPROTO_IPV6;
    static constexpr int pktInfo = IPV6_PKTINFO;
    static constexpr int rxOptions[] = {IPV6_RECVPKTINFO, IPV6_RECVHOPLIMIT, IPV6_RECVTCLASS,
                                        IPV6_RECVORIGDSTADDR};
    static constexpr Pavo::Ip6Addr left{0x20010db800000000, 1};
    static constexpr Pavo::Ip6Addr right{0x20010db800000000, 2};

    static Mox::Ptr<Pavo::RawIpPam> pam(const char* netNs) {
        return Pavo::ip6SocketPamFactory(netNs, Pavo::IpProtocolNumber::experiment1,
                                         Pavo::NamespaceName(netNs));
    }
    static void fill(Name* name, PktInfo* info) {
        name->sin6_family = AF_INET6;
        right.copyToBuffer(name->sin6_addr.s6_addr);
        left.copyToBuffer(info->ipi6_addr.s6_addr);
    }
};

// What is timed of a round.
enum class Half { send, receive };

template <class Family>
class PavoEnds {
  public:
    explicit PavoEnds(bool bulk) : bulk_(bulk) {
        left_->txDstIpAddrIs(Family::right);
        left_->txSrcIpAddrIs(Family::left);  // Sent in a control message.
        left_->enabledIs(true);
        right_->optionsIs(Pavo::ipPktInfo | Pavo::ipRecvTTL | Pavo::ipRecvTOS |
                          Pavo::ipRecvOrigDstAddr);
        right_->socketReadLimitIs(burst);
        right_->enableBulkReadIs(bulk);
        right_->enabledIs(true);
        pkt_->newSharedHeadData(payloadBytes);
    }

    void send() {
        for (int i = 0; i < burst; ++i) {
            left_->txPktIs(pkt_);
        }
    }
    int receive() {
        int received = 0;
        if (bulk_) {
            return right_->rxPktBulk();
        }
        while (received < burst && right_->rxPkt()) {
            ++received;
        }
        return received;
    }

  private:
    Mox::Ptr<Pavo::RawIpPam> left_ = Family::pam("left");
    Mox::Ptr<Pavo::RawIpPam> right_ = Family::pam("right");
    Mox::Ptr<Pavo::Pkt> pkt_ = Pavo::globalPktManager()->newPkt();
    bool bulk_;
};

// One message over the buffers given.
template <class Name, std::size_t controlBytes>
msghdr messageOf(Name* name, iovec* data, char (&control)[controlBytes]) {
    msghdr message{};
    message.msg_name = name;
    message.msg_namelen = sizeof(*name);
    message.msg_iov = data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = controlBytes;
    return message;
}

template <class Family>
class BareEnds {
  public:
    BareEnds()
        : left_(Pavo::socketAt(Family::domain, SOCK_RAW | SOCK_NONBLOCK, protocol, "left")),
          right_(Pavo::socketAt(Family::domain, SOCK_RAW | SOCK_NONBLOCK, protocol, "right")) {
        for (const int option : Family::rxOptions) {
            const int on = 1;
            setsockopt(right_, Family::level, option, &on, sizeof(on));
        }
    }
    ~BareEnds() {
        close(left_);
        close(right_);
    }

    void send() {
        for (int i = 0; i < burst; ++i) {
            typename Family::Name name{};
            typename Family::PktInfo info{};
            Family::fill(&name, &info);
            iovec data{data_, payloadBytes};
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(info))] = {};
            const msghdr message = messageOf(&name, &data, control);
            cmsghdr* first = CMSG_FIRSTHDR(&message);
            first->cmsg_level = Family::level;
            first->cmsg_type = Family::pktInfo;
            first->cmsg_len = CMSG_LEN(sizeof(info));
            std::memcpy(CMSG_DATA(first), &info, sizeof(info));
            benchmark::DoNotOptimize(sendmsg(left_, &message, 0));
        }
    }
    int receive() {
        int received = 0;
        while (received < burst && receiveOne()) {
            ++received;
        }
        return received;
    }

  private:
    bool receiveOne() {
        typename Family::Name name{};
        iovec data{data_, sizeof(data_)};
        alignas(cmsghdr) char control[160];
        msghdr message = messageOf(&name, &data, control);
        if (recvmsg(right_, &message, 0) < 0) {
            return false;
        }
        for (cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr;
             each = CMSG_NXTHDR(&message, each)) {
            benchmark::DoNotOptimize(*CMSG_DATA(each));
        }
        return true;
    }

    int left_;
    int right_;
    char data_[1536] = {};
};

template <class Ends>
void rounds(benchmark::State& state, Ends ends, Half half) {
    const Mox::MonotonicClock clock;
    for (auto _ : state) {
        const double start = clock.now();
        ends->send();
        const double sent = clock.now();
        const int received = ends->receive();
        const double end = clock.now();
        if (received != burst) {
            state.SkipWithError("a burst arrived incomplete");
            return;
        }
        state.SetIterationTime(half == Half::send ? sent - start : end - sent);
    }
    state.SetItemsProcessed(state.iterations() * burst);
}

template <class Family>
void pavo(benchmark::State& state, bool bulk, Half half) {
    const Mox::EventLoop loop;
    PavoEnds<Family> ends(bulk);
    rounds(state, &ends, half);
}
template <class Family>
void bare(benchmark::State& state, Half half) {
    BareEnds<Family> ends;
    rounds(state, &ends, half);
}

// The lines of a family, named "RawIpSend" and so on.
template <class Family>
void registerLines(const std::string& name) {
    const auto line = [&name](const char* rest, auto... function) {
        benchmark::RegisterBenchmark((name + rest).c_str(), function...)->UseManualTime();
    };
    line("Send/pavo", pavo<Family>, false, Half::send);
    line("Send/sendmsg", bare<Family>, Half::send);
    line("Receive/pavo", pavo<Family>, false, Half::receive);
    line("Receive/recvmsg", bare<Family>, Half::receive);
    line("ReceiveBulk/pavo", pavo<Family>, true, Half::receive);
    line("ReceiveBulk/packet_a_call", pavo<Family>, false, Half::receive);
}

}  // namespace

int main(int argc, char** argv) {
    std::string why;
    if (!PavoSandbox::Sandbox::enter(&why)) {
        std::fprintf(stderr, "no namespaces to measure in: %s\n", why.c_str());
        return 1;
    }
    PavoSandbox::makeWire();
    PavoSandbox::addWire6();
    registerLines<FourEnds>("RawIp");
    registerLines<SixEnds>("RawIp6");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
