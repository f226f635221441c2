// Frames over a wire between two namespaces, beside bare system calls and libpcap. Bursts are sent
// and then read; each half is timed alone, and a ring is read when its block is there. The `main`
// of RawIpBench.cpp makes the wire.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <pcap/pcap.h>

#include <cstring>
#include <memory>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/EthDevPam.h"
#include "Pavo/ScopedNetNs.h"
#include "Pavo/SocketAt.h"
#include "WordTimes.h"

namespace {

constexpr int burst = 256;
constexpr int batchFrames = 64;
constexpr uint16_t type = 0x88b5;
constexpr uint32_t frameBytes = 128;
constexpr uint8_t header[] = {2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1, type >> 8, type & 0xff};

enum class Half { send, receive };
enum class Way { single, batch, batchInPlace };
using Mox::Ptr;

// What a program without Pavo copies a frame into.
struct Frame {
    void keep(const uint8_t* from, uint32_t count) {
        bytes = count;
        std::memcpy(data, from, count);
        benchmark::DoNotOptimize(*this);
    }

    uint32_t bytes;
    uint8_t data[1536];
};

Ptr<Pavo::EthDevPam> openPam(const char* device, const char* netNs, uint32_t ringBlocks, Way way) {
    const auto pam = Pavo::ethDevPamFactory(device, Pavo::NamespaceName(netNs));
    pam->deviceIs(device);
    pam->etherTypeIs(type);
    pam->rxRingBlocksIs(ringBlocks);
    pam->rxRingTimeoutMsIs(1);
    pam->socketReadLimitIs(batchFrames);
    pam->enableBulkReadIs(way == Way::batch);
    pam->enabledIs(true);
    return pam;
}

template <uint32_t ringBlocks>
class PavoEnds {
  public:
    explicit PavoEnds(Way way)
        : left_(openPam("veth-left", "left", 0, Way::single)),
          right_(openPam("veth-right", "right", ringBlocks, way)),
          way_(way) {
        for (int i = 0; i < burst; ++i) {
            pkts_.push_back(Pavo::globalPktManager()->newPkt());
            std::memcpy(pkts_.back()->newSharedHeadData(frameBytes), header, sizeof(header));
        }
    }
    int fd() const { return right_->fileDesc()->descriptor(); }
    void send() {
        if (way_ == Way::batch) {
            benchmark::DoNotOptimize(left_->txPktsIs(pkts_));
            return;
        }
        for (const auto& pkt : pkts_) {
            left_->txPktIs(pkt);
        }
    }
    int receive(int most) {
        int received = 0;
        if (way_ == Way::batch) {
            for (int batch = 1; batch != 0 && received < most; received += batch) {
                batch = right_->rxPktBulk();
            }
            return received;
        }
        while (received < most && right_->rxPkt()) {
            ++received;
        }
        return received;
    }

  private:
    Mox::EventLoop loop_;
    Ptr<Pavo::EthDevPam> left_;
    Ptr<Pavo::EthDevPam> right_;
    std::vector<Ptr<Pavo::Pkt>> pkts_;
    Way way_;
};

int openBare(const char* device, const char* netNs, uint16_t etherType) {
    const int fd = Pavo::socketAt(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, 0, netNs);
    const Pavo::ScopedNetNs inside(netNs);
    sockaddr_ll name{};
    name.sll_family = AF_PACKET;
    name.sll_protocol = htons(etherType);
    name.sll_ifindex = static_cast<int>(if_nametoindex(device));
    const int on = 1;
    setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof(on));
    bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof(name));
    return fd;
}

// Sends with bare system calls, as those do that receive below.
class BareSender {
  public:
    explicit BareSender(Way way) : fd_(openBare("veth-left", "left", 0)), way_(way) {
        std::memcpy(bytes_, header, sizeof(header));
        for (mmsghdr& each : messages_) {
            each.msg_hdr.msg_iov = &data_;
            each.msg_hdr.msg_iovlen = 1;
        }
    }
    ~BareSender() { close(fd_); }
    void send() {
        if (way_ == Way::batch) {
            for (int sent = 0; sent < burst; sent += 64) {
                benchmark::DoNotOptimize(sendmmsg(fd_, messages_ + sent, 64, 0));
            }
            return;
        }
        for (const mmsghdr& each : messages_) {
            benchmark::DoNotOptimize(sendmsg(fd_, &each.msg_hdr, 0));
        }
    }

  private:
    int fd_;
    Way way_;
    uint8_t bytes_[frameBytes] = {};
    iovec data_{bytes_, frameBytes};
    mmsghdr messages_[burst] = {};
};

// Buffers stay where they are. A loop watches the receiver, as it does that of Pavo.
class BareEnds : public BareSender {
  public:
    explicit BareEnds(Way way) : BareSender(way), fd_(openBare("veth-right", "right", type)) {
        epoll_event watched{};
        watched.events = EPOLLIN | EPOLLET;
        epoll_ctl(loop_, EPOLL_CTL_ADD, fd_, &watched);
    }
    ~BareEnds() {
        close(loop_);
        close(fd_);
    }
    int fd() const { return fd_; }
    int receive(int most) {
        int received = 0;
        for (; received < most; ++received) {
            sockaddr_ll name;
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(tpacket_auxdata))];
            iovec data{bytes_, sizeof(bytes_)};
            msghdr message{};
            message.msg_name = &name;
            message.msg_namelen = sizeof(name);
            message.msg_iov = &data;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof(control);
            if (recvmsg(fd_, &message, 0) < 0) {
                break;
            }
            benchmark::DoNotOptimize(*CMSG_DATA(CMSG_FIRSTHDR(&message)));
        }
        return received;
    }

  private:
    int fd_;
    int loop_ = epoll_create1(EPOLL_CLOEXEC);
    uint8_t bytes_[1536];
};

// Each frame becomes one of its own, which may be kept, as a packet of Pavo may be. In place, the
// frames of a batch go into the same memory again.
class PcapEnds : public BareSender {
  public:
    explicit PcapEnds(Way way) : BareSender(Way::single), way_(way) {
        const Pavo::ScopedNetNs inside("right");
        char error[PCAP_ERRBUF_SIZE];
        pcap_ = pcap_create("veth-right", error);
        pcap_set_snaplen(pcap_, 1536);
        pcap_set_timeout(pcap_, 1);
        pcap_activate(pcap_);
        pcap_setnonblock(pcap_, 1, error);
        bpf_program program;
        pcap_compile(pcap_, &program, "ether proto 0x88b5", 1, PCAP_NETMASK_UNKNOWN);
        pcap_setfilter(pcap_, &program);
        pcap_setdirection(pcap_, PCAP_D_IN);
        pcap_freecode(&program);
    }
    ~PcapEnds() { pcap_close(pcap_); }
    int fd() const { return pcap_get_selectable_fd(pcap_); }
    int receive(int most) {
        int received = 0;
        if (way_ != Way::single) {
            const auto take = [](u_char* self, const pcap_pkthdr* head, const u_char* data) {
                auto* const ends = reinterpret_cast<PcapEnds*>(self);
                auto& frame = ends->batch_[ends->next_++ % batchFrames];
                if (!frame || ends->way_ == Way::batch) {
                    frame = std::make_unique_for_overwrite<Frame>();
                }
                frame->keep(data, PavoBench::WordPkthdr::of(head).capturedBytes);
            };
            while (received < most) {
                const int count =
                    pcap_dispatch(pcap_, most - received, take, reinterpret_cast<u_char*>(this));
                if (count <= 0) {
                    break;
                }
                received += count;
            }
            return received;
        }
        pcap_pkthdr* head = nullptr;
        const u_char* data = nullptr;
        for (; received < most && pcap_next_ex(pcap_, &head, &data) == 1; ++received) {
            std::make_unique_for_overwrite<Frame>()->keep(
                data, PavoBench::WordPkthdr::of(head).capturedBytes);
        }
        return received;
    }

  private:
    pcap_t* pcap_;
    Way way_;
    std::unique_ptr<Frame> batch_[batchFrames];
    uint32_t next_ = 0;
};

template <class Ends>
void rounds(benchmark::State& state, Half half, Way way) {
    Ends ends(way);
    const Mox::MonotonicClock clock;
    for (auto _ : state) {
        double start = clock.now();
        ends.send();
        double time = clock.now() - start;
        if (half == Half::receive) {
            time = 0;
        }
        int received = 0;
        for (int reads = 0; received < burst && reads < 100; ++reads) {
            pollfd ready{ends.fd(), POLLIN, 0};
            poll(&ready, 1, 100);
            start = clock.now();
            received += ends.receive(burst - received);
            time += half == Half::receive ? clock.now() - start : 0;
        }
        if (received != burst) {
            state.SkipWithError("a burst arrived incomplete");
            return;
        }
        state.SetIterationTime(time);
    }
    state.SetItemsProcessed(state.iterations() * burst);
}

void registerLines() {
    // Most of a round is waiting for a block, so rounds are few.
    const auto line = [](const char* name, auto function, Half half, Way way) {
        benchmark::RegisterBenchmark(name, function, half, way)->UseManualTime()->Iterations(300);
    };
    const auto pavo = rounds<PavoEnds<0>>;
    const auto ring = rounds<PavoEnds<16>>;
    const auto bare = rounds<BareEnds>;
    const auto pcap = rounds<PcapEnds>;
    line("EthSend/pavo", pavo, Half::send, Way::single);
    line("EthSend/sendmsg", bare, Half::send, Way::single);
    line("EthSendBatch/pavo", pavo, Half::send, Way::batch);
    line("EthSendBatch/sendmsg", bare, Half::send, Way::single);
    line("EthSendBatch/sendmmsg", bare, Half::send, Way::batch);
    line("EthReceive/pavo", pavo, Half::receive, Way::single);
    line("EthReceive/recvmsg", bare, Half::receive, Way::single);
    line("EthReceiveBulk/pavo", pavo, Half::receive, Way::batch);
    line("EthReceiveBulk/recvmsg", bare, Half::receive, Way::single);
    line("EthRing/pavo", ring, Half::receive, Way::single);
    line("EthRing/pcap_next_ex", pcap, Half::receive, Way::single);
    line("EthRing/recvmsg", bare, Half::receive, Way::single);
    line("EthRingBulk/pavo", ring, Half::receive, Way::batch);
    line("EthRingBulk/pcap_dispatch", pcap, Half::receive, Way::batch);
    line("EthRingBulk/pcap_dispatch_in_place", pcap, Half::receive, Way::batchInPlace);
    line("EthRingBulk/recvmsg", bare, Half::receive, Way::single);
}

[[maybe_unused]] const bool isRegistered = (registerLines(), true);

}  // namespace
