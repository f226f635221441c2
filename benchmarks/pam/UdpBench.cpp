// UDP datagrams over a wire between two namespaces, beside bare system calls with the same options
// and, through its event loop, Boost.Asio. Bursts are sent and then read; each half is timed alone.
// The `main` of RawIpBench.cpp makes the wire.

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio.hpp>
#include <optional>
#include <vector>

#include "Mox/Entity.h"
#include "Mox/EventLoop.h"
#include "Pavo/SocketAt.h"
#include "Pavo/UdpPam.h"

namespace {

constexpr int burst = 64;
constexpr uint16_t port = 4321;
const Pavo::IpGenAddr left{Pavo::IpAddr(0xc0000201)};
const Pavo::IpGenAddr right{Pavo::IpAddr(0xc0000202)};

// What is timed of a round, and how packets are handed over.
enum class Half { send, receive };
enum class Way { single, batch, loop };
// Of equal sizes, or each larger than the one before.
enum class Sizes { equal, rising };

uint32_t bytesOf(Sizes sizes, int i) {
    return sizes == Sizes::equal ? 64 : 64 + static_cast<uint32_t>(i);
}

class PavoEnds {
  public:
    PavoEnds(Way way, Sizes sizes) : way_(way) {
        left_->localAddrIs(left);
        left_->remoteIs({right, port});
        left_->enabledIs(true);
        right_->localAddrIs(right);
        right_->localPortIs(port);
        right_->optionsIs(Pavo::ipPktInfo | Pavo::ipRecvTTL | Pavo::ipRecvTOS);
        right_->socketReadLimitIs(burst);
        right_->enableBulkReadIs(way == Way::batch);
        right_->enabledIs(true);
        if (way == Way::loop) {
            readable_.emplace(right_, Pavo::Pam::readableCountAttr, [this] { readAll(); });
        }
        for (int i = 0; i < burst; ++i) {
            pkts_.push_back(Pavo::globalPktManager()->newPkt());
            pkts_.back()->newSharedHeadData(bytesOf(sizes, i));
        }
    }

    void send() {
        if (way_ == Way::batch) {
            benchmark::DoNotOptimize(left_->txPktsIs(pkts_));
            return;
        }
        for (const auto& pkt : pkts_) {
            left_->txPktIs(pkt);
        }
    }
    int receive() {
        if (way_ == Way::batch) {
            return right_->rxPktBulk();
        }
        received_ = 0;
        if (way_ == Way::loop) {
            for (int turns = 0; received_ < burst && turns < burst; ++turns) {
                loop_.turn(/*timeoutSeconds=*/0);
            }
            return received_;
        }
        readAll();
        return received_;
    }

  private:
    void readAll() {
        while (received_ < burst && right_->rxPkt()) {
            ++received_;
        }
    }

    Mox::EventLoop loop_;
    Mox::Ptr<Pavo::UdpPam> left_ = Pavo::udpPamFactory("left", Pavo::NamespaceName("left"));
    Mox::Ptr<Pavo::UdpPam> right_ = Pavo::udpPamFactory("right", Pavo::NamespaceName("right"));
    std::optional<Mox::Watch<Pavo::Pam>> readable_;
    std::vector<Mox::Ptr<Pavo::Pkt>> pkts_;
    Way way_;
    int received_ = 0;
};

// The same with buffers that stay where they are. An event loop watches both sockets here too, as
// those of every agent: the kernel looks for one at the sender's expense, when a packet arrives and
// when the room of a sent one is free again.
class BareEnds {
  public:
    BareEnds(Way way, Sizes sizes)
        : left_(Pavo::socketAt(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0, "left")),
          right_(Pavo::socketAt(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0, "right")),
          way_(way) {
        for (const int option : {IP_PKTINFO, IP_RECVTTL, IP_RECVTOS}) {
            const int on = 1;
            setsockopt(right_, IPPROTO_IP, option, &on, sizeof(on));
        }
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_port = htons(port);
        name.sin_addr.s_addr = htonl(right.v4Addr().value());
        bind(right_, reinterpret_cast<const sockaddr*>(&name), sizeof(name));
        epoll_event watched{};
        watched.events = EPOLLIN | EPOLLET;
        epoll_ctl(loop_, EPOLL_CTL_ADD, left_, &watched);
        epoll_ctl(loop_, EPOLL_CTL_ADD, right_, &watched);
        for (int i = 0; i < burst; ++i) {
            Room& room = rooms_[i];
            room.name = name;
            room.data = {room.bytes, bytesOf(sizes, i)};
            txMessages_[i].msg_hdr = messageOf(&room.name, &room.data);
        }
    }
    ~BareEnds() {
        close(loop_);
        close(left_);
        close(right_);
    }

    void send() {
        if (way_ == Way::batch) {
            benchmark::DoNotOptimize(sendmmsg(left_, txMessages_, burst, 0));
            return;
        }
        for (const mmsghdr& each : txMessages_) {
            benchmark::DoNotOptimize(sendmsg(left_, &each.msg_hdr, 0));
        }
    }
    int receive() {
        for (int i = 0; i < burst; ++i) {
            Room& room = rxRooms_[i];
            room.data = {room.bytes, sizeof(room.bytes)};
            rxMessages_[i].msg_hdr = messageOf(&room.name, &room.data);
            rxMessages_[i].msg_hdr.msg_control = room.control;
            rxMessages_[i].msg_hdr.msg_controllen = sizeof(room.control);
        }
        int received = 0;
        if (way_ == Way::batch) {
            received = recvmmsg(right_, rxMessages_, burst, MSG_DONTWAIT, nullptr);
        }
        for (; way_ == Way::single && received < burst; ++received) {
            if (recvmsg(right_, &rxMessages_[received].msg_hdr, 0) < 0) {
                break;
            }
        }
        for (int i = 0; i < received; ++i) {
            look(&rxMessages_[i].msg_hdr);
        }
        return received;
    }

  private:
    struct Room {
        sockaddr_in name;
        iovec data;
        alignas(cmsghdr) char control[160];
        char bytes[1536];
    };

    static msghdr messageOf(sockaddr_in* name, iovec* data) {
        msghdr message{};
        message.msg_name = name;
        message.msg_namelen = sizeof(*name);
        message.msg_iov = data;
        message.msg_iovlen = 1;
        return message;
    }
    static void look(msghdr* message) {
        for (cmsghdr* each = CMSG_FIRSTHDR(message); each != nullptr;
             each = CMSG_NXTHDR(message, each)) {
            benchmark::DoNotOptimize(*CMSG_DATA(each));
        }
    }

    int left_;
    int right_;
    int loop_ = epoll_create1(EPOLL_CLOEXEC);
    Way way_;
    Room rooms_[burst] = {};
    Room rxRooms_[burst] = {};
    mmsghdr txMessages_[burst] = {};
    mmsghdr rxMessages_[burst] = {};
};

// Of a datagram it says the sender, and nothing else of what the others ask for.
class AsioEnds {
  public:
    AsioEnds(Way /*way*/, Sizes sizes) {
        const auto open = [](const char* netNs) {
            return Pavo::socketAt(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0, netNs);
        };
        left_.assign(Udp::v4(), open("left"));
        right_.assign(Udp::v4(), open("right"));
        right_.bind(peer_);
        for (int i = 0; i < burst; ++i) {
            bytes_[i] = bytesOf(sizes, i);
        }
        receiveOne();
    }

    void send() {
        for (const uint32_t bytes : bytes_) {
            left_.send_to(boost::asio::buffer(data_, bytes), peer_);
        }
    }
    int receive() {
        received_ = 0;
        for (int turns = 0; received_ < burst && turns < burst; ++turns) {
            context_.poll();
        }
        return received_;
    }

  private:
    using Udp = boost::asio::ip::udp;

    void receiveOne() {
        right_.async_receive_from(boost::asio::buffer(room_), sender_,
                                  [this](boost::system::error_code error, std::size_t bytes) {
                                      if (!error) {
                                          benchmark::DoNotOptimize(bytes);
                                          ++received_;
                                          receiveOne();
                                      }
                                  });
    }

    boost::asio::io_context context_{1};
    Udp::socket left_{context_};
    Udp::socket right_{context_};
    Udp::endpoint peer_{boost::asio::ip::address_v4(right.v4Addr().value()), port};
    Udp::endpoint sender_;
    uint32_t bytes_[burst] = {};
    char data_[1536] = {};
    char room_[1536] = {};
    int received_ = 0;
};

template <class Ends>
void rounds(benchmark::State& state, Half half, Way way, Sizes sizes) {
    Ends ends(way, sizes);
    const Mox::MonotonicClock clock;
    for (auto _ : state) {
        const double start = clock.now();
        ends.send();
        const double sent = clock.now();
        const int received = ends.receive();
        const double end = clock.now();
        if (received != burst) {
            state.SkipWithError("a burst arrived incomplete");
            return;
        }
        state.SetIterationTime(half == Half::send ? sent - start : end - sent);
    }
    state.SetItemsProcessed(state.iterations() * burst);
}

void registerLines() {
    const auto line = [](const char* name, auto function, Half half, Way way, Sizes sizes) {
        benchmark::RegisterBenchmark(name, function, half, way, sizes)->UseManualTime();
    };
    const auto pavo = rounds<PavoEnds>;
    const auto bare = rounds<BareEnds>;
    const auto asio = rounds<AsioEnds>;
    line("UdpSend/pavo", pavo, Half::send, Way::single, Sizes::equal);
    line("UdpSend/sendmsg", bare, Half::send, Way::single, Sizes::equal);
    line("UdpSend/asio", asio, Half::send, Way::single, Sizes::equal);
    line("UdpReceive/pavo", pavo, Half::receive, Way::single, Sizes::equal);
    line("UdpReceive/recvmsg", bare, Half::receive, Way::single, Sizes::equal);
    line("UdpLoop/pavo", pavo, Half::receive, Way::loop, Sizes::equal);
    line("UdpLoop/asio", asio, Half::receive, Way::loop, Sizes::equal);
    line("UdpReceiveBulk/pavo", pavo, Half::receive, Way::batch, Sizes::rising);
    line("UdpReceiveBulk/recvmsg", bare, Half::receive, Way::single, Sizes::rising);
    line("UdpReceiveBulk/recvmmsg", bare, Half::receive, Way::batch, Sizes::rising);
    line("UdpSendBatch/pavo", pavo, Half::send, Way::batch, Sizes::rising);
    line("UdpSendBatch/sendmsg", bare, Half::send, Way::single, Sizes::rising);
    line("UdpSendBatch/sendmmsg", bare, Half::send, Way::batch, Sizes::rising);
    line("UdpSendSegments/pavo", pavo, Half::send, Way::batch, Sizes::equal);
    line("UdpSendSegments/sendmsg", bare, Half::send, Way::single, Sizes::equal);
    line("UdpSendSegments/sendmmsg", bare, Half::send, Way::batch, Sizes::equal);
}

[[maybe_unused]] const bool isRegistered = (registerLines(), true);

}  // namespace
