#include "Pavo/kernel/NetlinkRecorder.h"

#include <arpa/inet.h>
#include <linux/if_arp.h>
#include <linux/if_packet.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include "Mox/Exception.h"

namespace Pavo {

namespace {

constexpr const char* useNames[] = {"requests", "monitor"};

// What a device nlmon puts before the messages; in network byte order.
struct CookedHdr {
    uint16_t packetType;
    uint16_t deviceType;
    uint8_t unused[10];
    uint16_t protocol;
};
static_assert(sizeof(CookedHdr) == 16);

class RecordedPort final : public Mox::Described<RecordedPort, NetlinkPort> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::RecordedPort"); }

    RecordedPort(Mox::Ptr<CaptureFile> file, Mox::Ptr<NetlinkPort> port, NetlinkPortUse use,
                 int protocol)
        : file_(std::move(file)), port_(std::move(port)), protocol_(protocol) {
        const std::string name = std::string(useNames[static_cast<std::size_t>(use)]) + ' ' +
                                 std::to_string(port_->portId()) + ' ' +
                                 std::to_string(port_->rcvBufBytes());
        interface_ = file_->newInterface(name, CaptureLinkType::netlink);
    }

    uint32_t portId() const override { return port_->portId(); }
    uint32_t rcvBufBytes() const override { return port_->rcvBufBytes(); }
    int send(std::span<const uint8_t> messages) override {
        const int error = port_->send(messages);
        if (error == 0) {
            record(CaptureDirection::outbound, PACKET_KERNEL, messages);
        }
        return error;
    }
    ssize_t receive(std::span<uint8_t> buffer, uint32_t* sender) override {
        const ssize_t got = port_->receive(buffer, sender);
        if (got >= 0 && *sender == 0) {
            record(CaptureDirection::inbound, PACKET_USER,
                   buffer.first(std::min(static_cast<std::size_t>(got), buffer.size())));
        } else if (got < 0 && errno == ENOBUFS) {
            constexpr nlmsghdr overrun = {sizeof(nlmsghdr), NLMSG_OVERRUN, 0, 0, 0};
            record(CaptureDirection::inbound, PACKET_USER,
                   {reinterpret_cast<const uint8_t*>(&overrun), sizeof(overrun)});
            errno = ENOBUFS;
        }
        return got;
    }
    void receiveTried(bool moreMayWait) override { port_->receiveTried(moreMayWait); }
    void groupIs(uint32_t group, bool isMember) override { port_->groupIs(group, isMember); }
    void readableIs(std::function<void()> readable) override {
        port_->readableIs(std::move(readable));
    }

  private:
    void record(CaptureDirection direction, uint16_t packetType, std::span<const uint8_t> bytes) {
        const CookedHdr header = {
            htons(packetType), htons(ARPHRD_NETLINK), {}, htons(static_cast<uint16_t>(protocol_))};
        const CaptureFile::Piece pieces[] = {
            {reinterpret_cast<const uint8_t*>(&header), sizeof(header)},
            {bytes.data(), static_cast<uint32_t>(bytes.size())}};
        file_->pktIs(interface_, direction, pieces, 2);
    }

    Mox::Ptr<CaptureFile> file_;
    Mox::Ptr<NetlinkPort> port_;
    int protocol_;
    uint32_t interface_ = 0;
};

// Reading the blocks of pcapng that `CaptureFile` writes.

constexpr uint32_t sectionHeaderBlock = 0x0a0d0d0a;
constexpr uint32_t interfaceBlock = 1;
constexpr uint32_t packetBlock = 6;
constexpr std::size_t blockHeadBytes = 2 * sizeof(uint32_t);
constexpr uint16_t interfaceNameOption = 2;
constexpr uint16_t packetFlagsOption = 2;
constexpr uint32_t directionBits = 3;

std::size_t indexOf(NetlinkPortUse use) {
    return static_cast<std::size_t>(use);
}

[[noreturn]] void throwNoRecording() {
    Mox::throwRangeException("NetlinkPlayer: not a recording");
}

template <class Number>
Number numberAt(std::span<const uint8_t> bytes, std::size_t offset) {
    Number number;
    if (offset + sizeof(number) > bytes.size()) {
        throwNoRecording();
    }
    std::memcpy(&number, bytes.data() + offset, sizeof(number));
    return number;
}

std::span<const uint8_t> optionIn(std::span<const uint8_t> options, uint16_t wanted) {
    for (std::size_t offset = 0; offset + 4 <= options.size();) {
        const auto code = numberAt<uint16_t>(options, offset);
        const auto length = numberAt<uint16_t>(options, offset + 2);
        if (length > options.size() - offset - 4) {
            break;
        }
        if (code == wanted) {
            return options.subspan(offset + 4, length);
        }
        offset = std::min<std::size_t>(offset + 4 + NLMSG_ALIGN(length), options.size());
    }
    throwNoRecording();
}

std::vector<uint8_t> contentsOf(const Mox::String& path) {
    const auto fail = [&path](const char* call) {
        throw Mox::ErrnoException(errno, Mox::String(call) + "(" + path.view() + ")");
    };
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rbe"), std::fclose);
    if (file == nullptr) {
        fail("open");
    }
    std::vector<uint8_t> contents;
    uint8_t buffer[4096];
    while (const std::size_t got = std::fread(buffer, 1, sizeof(buffer), file.get())) {
        contents.insert(contents.end(), buffer, buffer + got);
    }
    if (std::ferror(file.get()) != 0) {
        fail("read");
    }
    return contents;
}

}  // namespace

NetlinkPortOpener netlinkRecorder(Mox::Ptr<CaptureFile> file, NetlinkPortOpener opener,
                                  int protocol) {
    return [file = std::move(file), opener = std::move(opener), protocol](NetlinkPortUse use) {
        return Mox::make<RecordedPort>(file, opener(use), use, protocol);
    };
}

class NetlinkPlayer::Port final : public Mox::Described<NetlinkPlayer::Port, NetlinkPort> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::NetlinkPlayer::Port"); }

    Port(NetlinkPlayer* player, const Interface& interface)
        : player_(player), interface_(interface) {}

    uint32_t portId() const override { return interface_.portId; }
    uint32_t rcvBufBytes() const override { return interface_.rcvBufBytes; }
    int send(std::span<const uint8_t> messages) override {
        return player_->send(interface_.use, messages);
    }
    ssize_t receive(std::span<uint8_t> buffer, uint32_t* sender) override {
        *sender = 0;
        return player_->receive(interface_.use, buffer);
    }
    void receiveTried(bool moreMayWait) override {
        if (moreMayWait) {
            player_->reportSoon(interface_.use);
        }
    }
    void groupIs(uint32_t, bool) override {}
    void readableIs(std::function<void()> readable) override {
        readable_ = std::move(readable);
        Port*& open = player_->ports_[indexOf(interface_.use)];
        open = readable_ ? this : open == this ? nullptr : open;
        player_->reportSoon(interface_.use);
    }
    void report() {
        const Mox::Ptr<Port> hold(this);
        if (const auto readable = readable_) {  // A copy, since the call may change it.
            readable();
        }
    }

  protected:
    ~Port() override { readableIs(nullptr); }

  private:
    Mox::Ptr<NetlinkPlayer> player_;
    Interface interface_;
    std::function<void()> readable_;
};

NetlinkPlayer::NetlinkPlayer(const Mox::String& path, Mox::Clock* clock)
    : clock_(clock), timer_(clock, [this] { handleDue(); }) {
    readBlocks(contentsOf(path));
    toSend_ = nextOf(CaptureDirection::outbound, 0);
    toReceive_ = nextOf(CaptureDirection::inbound, 0);
}

NetlinkPlayer::~NetlinkPlayer() = default;

void NetlinkPlayer::readBlocks(std::span<const uint8_t> file) {
    if (numberAt<uint32_t>(file, 0) != sectionHeaderBlock) {
        throwNoRecording();
    }
    while (!file.empty()) {
        const auto type = numberAt<uint32_t>(file, 0);
        const auto length = numberAt<uint32_t>(file, sizeof(type));
        if (length < blockHeadBytes + sizeof(length) || length > file.size()) {
            throwNoRecording();
        }
        const auto body = file.subspan(blockHeadBytes, length - blockHeadBytes - sizeof(length));
        if (type == interfaceBlock) {
            readInterface(body);
        } else if (type == packetBlock) {
            readPacket(body);
        }
        file = file.subspan(length);
    }
}

void NetlinkPlayer::readInterface(std::span<const uint8_t> body) {
    const auto linkType = static_cast<CaptureLinkType>(numberAt<uint16_t>(body, 0));
    constexpr std::size_t fixedBytes = 8;
    const auto options = body.subspan(std::min(fixedBytes, body.size()));
    const auto name = optionIn(options, interfaceNameOption);
    const std::string text(name.begin(), name.end());
    Interface interface;
    char use[16];
    if (linkType != CaptureLinkType::netlink ||
        std::sscanf(text.c_str(), "%15s %u %u", use, &interface.portId, &interface.rcvBufBytes) !=
            3) {
        throwNoRecording();
    }
    const auto* const found = std::find(std::begin(useNames), std::end(useNames), std::string(use));
    if (found == std::end(useNames)) {
        throwNoRecording();
    }
    interface.use = static_cast<NetlinkPortUse>(found - useNames);
    interfaces_.push_back(interface);
}

void NetlinkPlayer::readPacket(std::span<const uint8_t> body) {
    const auto number = numberAt<uint32_t>(body, 0);
    const auto bytes = numberAt<uint32_t>(body, 12);  // After the time, high word first.
    constexpr std::size_t fixedBytes = 20;
    if (number >= interfaces_.size() || bytes < sizeof(CookedHdr) || body.size() < fixedBytes ||
        bytes > body.size() - fixedBytes) {
        throwNoRecording();
    }
    const auto packet = body.subspan(fixedBytes, bytes);
    const auto flags =
        optionIn(body.subspan(std::min<std::size_t>(fixedBytes + NLMSG_ALIGN(bytes), body.size())),
                 packetFlagsOption);
    Datagram datagram;
    datagram.interface = number;
    datagram.nanoseconds =
        uint64_t{numberAt<uint32_t>(body, 4)} << 32 | numberAt<uint32_t>(body, 8);
    datagram.direction =
        static_cast<CaptureDirection>(numberAt<uint32_t>(flags, 0) & directionBits);
    datagram.bytes.assign(packet.begin() + sizeof(CookedHdr), packet.end());
    datagrams_.push_back(std::move(datagram));
}

NetlinkPortOpener NetlinkPlayer::opener() {
    return
        [player = Mox::Ptr<NetlinkPlayer>(this)](NetlinkPortUse use) { return player->open(use); };
}

// The next interface of that use; the last one again where there is no other.
Mox::Ptr<NetlinkPort> NetlinkPlayer::open(NetlinkPortUse use) {
    Interface interface;
    interface.use = use;
    std::size_t& opened = opened_[indexOf(use)];
    std::size_t seen = 0;
    for (std::size_t number = 0; number != interfaces_.size(); ++number) {
        if (interfaces_[number].use == use && seen++ <= opened) {
            interface = interfaces_[number];
            openInterface_[indexOf(use)] = number;
        }
    }
    ++opened;
    awaitNext();
    return Mox::make<Port>(this, interface);
}

std::size_t NetlinkPlayer::nextOf(CaptureDirection direction, std::size_t index) const {
    while (index < datagrams_.size() && datagrams_[index].direction != direction) {
        ++index;
    }
    return index;
}

int NetlinkPlayer::send(NetlinkPortUse use, std::span<const uint8_t> messages) {
    const bool isExpected =
        toSend_ < datagrams_.size() && useOf(datagrams_[toSend_]) == use &&
        std::equal(messages.begin(), messages.end(), datagrams_[toSend_].bytes.begin(),
                   datagrams_[toSend_].bytes.end());
    if (!isExpected) {
        if (difference_.empty()) {
            difference_ = "datagram " + std::to_string(toSend_) +
                          (toSend_ < datagrams_.size() ? " differs" : " is not in the recording");
        }
        return EPROTO;
    }
    toSend_ = nextOf(CaptureDirection::outbound, toSend_ + 1);
    awaitNext();
    return 0;
}

// Sets the timer for the next datagram to be received, once all before it have passed. One that a
// port received which has been replaced since is left out.
void NetlinkPlayer::awaitNext() {
    while (toReceive_ < datagrams_.size() &&
           datagrams_[toReceive_].interface <
               openInterface_[indexOf(useOf(datagrams_[toReceive_]))]) {
        toReceive_ = nextOf(CaptureDirection::inbound, toReceive_ + 1);
    }
    if (toReceive_ >= toSend_ || awaited_ == toReceive_) {
        return;
    }
    awaited_ = toReceive_;
    isDue_ = false;
    const uint64_t time = datagrams_[awaited_].nanoseconds;
    const uint64_t before = awaited_ == 0 ? time : datagrams_[awaited_ - 1].nanoseconds;
    const uint64_t pause = time > before ? time - before : 0;  // The system's time may be set back.
    timer_.expiryIs(clock_->now() + static_cast<double>(pause) * 1e-9);
}

void NetlinkPlayer::handleDue() {
    const Mox::Ptr<NetlinkPlayer> hold(this);
    isDue_ = true;
    if (Port* const port = ports_[indexOf(useOf(datagrams_[awaited_]))]) {
        port->report();
    }
}

bool NetlinkPlayer::isDueFor(NetlinkPortUse use) const {
    return isDue_ && awaited_ == toReceive_ && useOf(datagrams_[awaited_]) == use;
}

void NetlinkPlayer::reportSoon(NetlinkPortUse use) {
    if (isDueFor(use)) {
        timer_.expiryIs(clock_->now());
    }
}

ssize_t NetlinkPlayer::receive(NetlinkPortUse use, std::span<uint8_t> buffer) {
    if (!isDueFor(use)) {
        errno = EAGAIN;
        return -1;
    }
    const std::vector<uint8_t>& bytes = datagrams_[awaited_].bytes;
    std::copy_n(bytes.begin(), std::min(bytes.size(), buffer.size()), buffer.begin());
    toReceive_ = nextOf(CaptureDirection::inbound, toReceive_ + 1);
    awaitNext();
    return static_cast<ssize_t>(bytes.size());
}

bool NetlinkPlayer::isAtEnd() const {
    return toSend_ == datagrams_.size() && toReceive_ == datagrams_.size();
}

Mox::Ptr<NetlinkPlayer> netlinkPlayerFactory(const Mox::String& path, Mox::Clock* clock) {
    return Mox::make<NetlinkPlayer>(path, clock);
}

}  // namespace Pavo
