// Bursts of 64 messages sent on a loopback TCP stream: each with a system call of its own, gathered
// by `txPktsIs`, and queued by `txQueueBytes`, beside the bare calls. "NoDelay": with TCP_NODELAY,
// without which the kernel gathers what is sent while earlier bytes are on their way. The peer
// reads between the bursts; that is not timed.

#include <benchmark/benchmark.h>
#include <sys/uio.h>

#include <string>
#include <vector>

#include "Loopback.h"
#include "Mox/EventLoop.h"
#include "Pavo/TcpPduPam.h"

namespace {

using PavoBench::check;
using Packets = std::vector<Mox::Ptr<Pavo::Pkt>>;

class Bare {
  public:
    explicit Bare(int fd) : fd_(fd) {}
    ~Bare() { close(fd_); }
    void finish() {}

  protected:
    void sendPieces(iovec* pieces, std::size_t count) const {
        msghdr message{};
        message.msg_iov = pieces;
        message.msg_iovlen = count;
        check(sendmsg(fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL) > 0, "sendmsg");
    }

  private:
    int fd_;
};

struct BareEach : Bare {
    using Bare::Bare;
    void send(const Packets& packets) const {
        for (const auto& each : packets) {
            iovec piece{const_cast<uint8_t*>(each->frontData()), each->frontBytes()};
            sendPieces(&piece, 1);
        }
    }
};

struct BareGathered : Bare {
    using Bare::Bare;
    void send(const Packets& packets) const {
        std::vector<iovec> pieces;
        for (const auto& each : packets) {
            pieces.push_back({each->frontData(), each->frontBytes()});
        }
        sendPieces(pieces.data(), pieces.size());
    }
};

class PavoSender {
  public:
    explicit PavoSender(int fd)
        : pam(Pavo::tcpPduPamFactory(
              Pavo::tcpFileDescriptorFactory(fd, /*edgeTriggered=*/false),
              Pavo::tcpFileDescriptorEventRegistrationFactoryMoxcFactory())) {
        pam->enableModeIs(Pavo::tcpEnableModeWriteOnly);
    }
    // Nothing waits: there is room for a burst.
    void finish() {
        for (int left = 10; pam->txQueuedBytes() != 0 && left > 0; --left) {
            loop.turn(0);
        }
        check(pam->txQueuedBytes() == 0 && pam->txDrops() == 0, "a message is left");
    }

    Mox::EventLoop loop;
    const Mox::Ptr<Pavo::TcpPduPam> pam;
};

struct PavoEach : PavoSender {
    using PavoSender::PavoSender;
    void send(const Packets& packets) const {
        for (const auto& each : packets) {
            pam->txPktIs(each);
        }
    }
};

struct PavoGathered : PavoSender {
    using PavoSender::PavoSender;
    void send(const Packets& packets) const {
        check(pam->txPktsIs(packets) == packets.size(), "txPktsIs");
    }
};

// All but the sending itself is as in `PavoEach`.
struct PavoQueued : PavoEach {
    explicit PavoQueued(int fd) : PavoEach(fd) { pam->txQueueBytesIs(1 << 20); }
};

template <class Sender, uint32_t burst>
void bursts(benchmark::State& state, uint32_t bytes, bool noDelay) {
    PavoBench::Loopback loopback(1 << 20);
    const int near = loopback.connectOne();
    const int far = loopback.acceptOne();
    if (noDelay) {
        PavoBench::Loopback::noDelay(near);
    }
    Sender sender(near);
    Packets packets(burst);
    for (auto& each : packets) {
        each = Pavo::globalPktManager()->newPkt(bytes);
        each->stringValueIs(std::string(bytes, 'x'), /*atTail=*/false);
    }
    std::vector<char> sink(burst * bytes);
    for (auto _ : state) {
        const double start = PavoBench::threadSeconds();
        sender.send(packets);
        sender.finish();
        state.SetIterationTime(PavoBench::threadSeconds() - start);
        for (std::size_t left = sink.size(); left != 0;) {
            const ssize_t got = recv(far, sink.data(), left, 0);
            left -= got > 0 ? static_cast<std::size_t>(got) : 0;
        }
    }
    state.SetItemsProcessed(state.iterations() * burst);
    close(far);
}

[[maybe_unused]] const bool registered = [] {
    for (const bool noDelay : {false, true}) {
        for (const uint32_t bytes : {20u, 100u, 1400u, 9000u}) {
            const auto add = [&](const char* line, const char* who, auto* function) {
                const std::string name = std::string(line) + (noDelay ? "NoDelay" : "") +
                                         std::to_string(bytes) + "/" + who;
                benchmark::RegisterBenchmark(name.c_str(), function, bytes, noDelay)
                    ->UseManualTime();
            };
            add("PduSend", "pavo", bursts<PavoGathered, 64>);
            add("PduSend", "queued", bursts<PavoQueued, 64>);
            add("PduSend", "each", bursts<PavoEach, 64>);
            add("PduSend", "sendmsg", bursts<BareEach, 64>);
            add("PduSend", "sendmsg_gathered", bursts<BareGathered, 64>);
            add("PduSendOne", "pavo", bursts<PavoEach, 1>);
            add("PduSendOne", "queued", bursts<PavoQueued, 1>);
        }
    }
    return true;
}();

}  // namespace
