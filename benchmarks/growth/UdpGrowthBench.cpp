// Datagrams of 64 bytes to and from UDP endpoints of one loop, each with a port of its own; the
// other end of all is one bare socket.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/UdpPam.h"
#include "growth/Growth.h"

namespace {

constexpr uint32_t datagramBytes = 64;
const Pavo::IpGenAddr loopback{Pavo::IpAddr(INADDR_LOOPBACK)};

// A socket on a port that the kernel chooses.
class FarEnd {
  public:
    FarEnd() {
        sockaddr_in name = nameOf(0);
        socklen_t length = sizeof(name);
        auto* const address = reinterpret_cast<sockaddr*>(&name);
        const bool ok = bind(fd_, address, length) == 0 && getsockname(fd_, address, &length) == 0;
        port_ = ntohs(name.sin_port);
        check(ok, "far end");
    }
    FarEnd(const FarEnd&) = delete;
    FarEnd& operator=(const FarEnd&) = delete;
    ~FarEnd() { close(fd_); }

    uint16_t port() const { return port_; }
    void sendTo(uint16_t port) const {
        const char bytes[datagramBytes] = {};
        const sockaddr_in name = nameOf(port);
        check(sendto(fd_, bytes, sizeof(bytes), 0, reinterpret_cast<const sockaddr*>(&name),
                     sizeof(name)) == datagramBytes,
              "sendto");
    }
    void receive() const {
        char bytes[datagramBytes];
        check(recv(fd_, bytes, sizeof(bytes), MSG_DONTWAIT) == datagramBytes, "recv");
    }

  private:
    static sockaddr_in nameOf(uint16_t port) {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_port = htons(port);
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return name;
    }
    static void check(bool ok, const char* what) {
        if (!ok) {
            std::perror(what);
            std::exit(1);
        }
    }

    const int fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    uint16_t port_ = 0;
};

// What the endpoints do. A batch that is freed gives its packets back at once; otherwise the slots
// keep them until the next batch.
enum class Way { send, receive, batch, freedBatch };

class UdpPams : public PavoBench::Endpoints {
  public:
    UdpPams(uint32_t count, Way way) : way_(way) {
        pams_.reserve(count);
        watches_.reserve(count);
        const double before = PavoBench::heapBytes();
        for (uint32_t i = 0; i < count; ++i) {
            add();
        }
        work(count);
        PavoBench::turnUntil(loop_, [this] { return loop_.turn(0) == 0; });  // All are at rest.
        bytesOfOne = (PavoBench::heapBytes() - before) / count;
    }
    double work(uint32_t busy) override { return way_ == Way::send ? send(busy) : receive(busy); }

  private:
    // Bursts no longer than what the far end's socket holds.
    static constexpr uint32_t burst = 50;

    void add() {
        const auto pam = Pavo::udpPamFactory("udp", Pavo::NamespaceName());
        pam->localAddrIs(loopback);
        pam->remoteIs({loopback, farEnd_.port()});
        pam->enableBulkReadIs(way_ == Way::batch || way_ == Way::freedBatch);
        pam->enabledIs(true);
        watches_.emplace_back(pam, Pavo::Pam::readableCountAttr,
                              [this, pam = pam.ptr()] { read(pam); });
        pams_.push_back(pam);
    }
    void read(Pavo::UdpPam* pam) {
        if (way_ == Way::receive) {
            while (pam->rxPkt()) {
                ++received_;
            }
            return;
        }
        received_ += static_cast<uint32_t>(pam->rxPktBulk());
        if (way_ == Way::freedBatch) {
            pam->savedPacketDelAll();
        }
    }
    double send(uint32_t busy) {
        double seconds = 0;
        for (uint32_t first = 0; first < busy; first += burst) {
            const uint32_t end = std::min(busy, first + burst);
            const double start = PavoBench::threadSeconds();
            for (uint32_t i = first; i < end; ++i) {
                const auto pkt = Pavo::globalPktManager()->newPkt();
                pkt->newSharedHeadData(datagramBytes);
                pams_[i]->txPktIs(pkt);
            }
            seconds += PavoBench::threadSeconds() - start;
            for (uint32_t i = first; i < end; ++i) {
                farEnd_.receive();
            }
        }
        return seconds;
    }
    double receive(uint32_t busy) {
        for (uint32_t i = 0; i < busy; ++i) {
            farEnd_.sendTo(pams_[i]->boundPort().value());
        }
        received_ = 0;
        const double start = PavoBench::threadSeconds();
        PavoBench::turnUntil(loop_, [&] { return received_ >= busy; });
        return PavoBench::threadSeconds() - start;
    }

    const Way way_;
    const FarEnd farEnd_;
    Mox::EventLoop loop_;
    std::vector<Mox::Ptr<Pavo::UdpPam>> pams_;
    std::vector<Mox::Watch<Pavo::Pam>> watches_;
    uint32_t received_ = 0;
};

[[maybe_unused]] const bool registered = [] {
    const struct {
        const char* name;
        Way way;
    } lines[] = {{"UdpSend", Way::send},
                 {"UdpReceive", Way::receive},
                 {"UdpBatch", Way::batch},
                 {"UdpFreedBatch", Way::freedBatch}};
    for (const auto& line : lines) {
        PavoBench::registerGrowth(line.name, [way = line.way](uint32_t count) {
            return std::make_unique<UdpPams>(count, way);
        });
    }
    return true;
}();

}  // namespace
