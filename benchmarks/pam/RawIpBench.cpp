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
#include "Pavo/IpSocketPam.h"
#include "Pavo/SocketAt.h"
#include "sandbox/Sandbox.h"

namespace {

constexpr int protocol = 253;
constexpr int burst = 64;
constexpr uint32_t payloadBytes = 64;
const Pavo::IpAddr leftAddress(0xc0000201);
const Pavo::IpAddr rightAddress(0xc0000202);

// What is timed of a round.
enum class Half { send, receive };

class PavoEnds {
  public:
    explicit PavoEnds(bool bulk)
        : left_(Pavo::ipSocketPamFactory("left", Pavo::IpProtocolNumber::experiment1,
                                         Pavo::NamespaceName("left"))),
          right_(Pavo::ipSocketPamFactory("right", Pavo::IpProtocolNumber::experiment1,
                                          Pavo::NamespaceName("right"))),
          bulk_(bulk) {
        left_->txDstIpAddrIs(rightAddress);
        left_->txSrcIpAddrIs(leftAddress);  // Sent in a control message.
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
    Mox::Ptr<Pavo::IpSocketPam> left_;
    Mox::Ptr<Pavo::IpSocketPam> right_;
    Mox::Ptr<Pavo::Pkt> pkt_ = Pavo::globalPktManager()->newPkt();
    bool bulk_;
};

class BareEnds {
  public:
    BareEnds()
        : left_(Pavo::socketAt(AF_INET, SOCK_RAW | SOCK_NONBLOCK, protocol, "left")),
          right_(Pavo::socketAt(AF_INET, SOCK_RAW | SOCK_NONBLOCK, protocol, "right")) {
        for (const int option : {IP_PKTINFO, IP_RECVTTL, IP_RECVTOS, IP_RECVORIGDSTADDR}) {
            const int on = 1;
            setsockopt(right_, IPPROTO_IP, option, &on, sizeof(on));
        }
    }
    ~BareEnds() {
        close(left_);
        close(right_);
    }

    void send() {
        for (int i = 0; i < burst; ++i) {
            sockaddr_in name{};
            name.sin_family = AF_INET;
            name.sin_addr.s_addr = htonl(rightAddress.value());
            iovec data{data_, payloadBytes};
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
            msghdr message{};
            message.msg_name = &name;
            message.msg_namelen = sizeof(name);
            message.msg_iov = &data;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof(control);
            cmsghdr* first = CMSG_FIRSTHDR(&message);
            first->cmsg_level = IPPROTO_IP;
            first->cmsg_type = IP_PKTINFO;
            first->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
            in_pktinfo info{};
            info.ipi_spec_dst.s_addr = htonl(leftAddress.value());
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
        sockaddr_in name{};
        iovec data{data_, sizeof(data_)};
        alignas(cmsghdr) char control[128];
        msghdr message{};
        message.msg_name = &name;
        message.msg_namelen = sizeof(name);
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
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

void pavo(benchmark::State& state, bool bulk, Half half) {
    const Mox::EventLoop loop;
    PavoEnds ends(bulk);
    rounds(state, &ends, half);
}
void bare(benchmark::State& state, Half half) {
    BareEnds ends;
    rounds(state, &ends, half);
}

}  // namespace

int main(int argc, char** argv) {
    std::string why;
    if (!PavoSandbox::Sandbox::enter(&why)) {
        std::fprintf(stderr, "no namespaces to measure in: %s\n", why.c_str());
        return 1;
    }
    PavoSandbox::makeWire();
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("RawIpSend/pavo", pavo, false, Half::send)->UseManualTime();
    RegisterBenchmark("RawIpSend/sendmsg", bare, Half::send)->UseManualTime();
    RegisterBenchmark("RawIpReceive/pavo", pavo, false, Half::receive)->UseManualTime();
    RegisterBenchmark("RawIpReceive/recvmsg", bare, Half::receive)->UseManualTime();
    RegisterBenchmark("RawIpReceiveBulk/pavo", pavo, true, Half::receive)->UseManualTime();
    RegisterBenchmark("RawIpReceiveBulk/packet_a_call", pavo, false, Half::receive)
        ->UseManualTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
