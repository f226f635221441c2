/// @file
/// Recordings of what passes between sessions and the kernel, and tests that play them back.
#pragma once

#include <linux/netlink.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/kernel/NetlinkPort.h"
#include "Pavo/pam/CaptureFile.h"

namespace Pavo {

/// Opens ports with `opener`, and writes every datagram that passes them to `file`, which tshark(1)
/// reads as it reads captures of a device nlmon: a header of 16 bytes (the packet type, PACKET_USER
/// or PACKET_KERNEL, ARPHRD_NETLINK, ten zeros and the netlink protocol, in network byte order),
/// then the messages. Each port is an interface of the file, with the name "requests 4711 212992"
/// or "monitor 4711 212992": its use, port number and receive buffer. A loss (ENOBUFS) is written
/// as a message NLMSG_OVERRUN.
/// @throws Mox::ErrnoException as `opener`, and "write(<path>)", when a port is opened.
PAVO_EXPORT NetlinkPortOpener netlinkRecorder(Mox::Ptr<CaptureFile> file, NetlinkPortOpener opener,
                                              int protocol = NETLINK_ROUTE);

/// Plays a recording back, in place of the kernel. A session that does again what it did when it
/// was recorded receives again what it received. Each datagram that it sends is compared with the
/// next one that was sent, of either port; one that differs is refused (EPROTO), and the difference
/// noted.
///
/// Order and times are those of the recording: each datagram from the kernel comes after all that
/// precede it in the file, of both ports, and as long after the last of them as it did then. So a
/// link that went down half a second after an answer does that again, half a second of the clock
/// later. What the session sends may come earlier or later than it did; what follows it waits.
class PAVO_EXPORT NetlinkPlayer : public Mox::Described<NetlinkPlayer> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::NetlinkPlayer"); }

    /// Reads a file of `netlinkRecorder`, of a machine of the same byte order. `clock` outlives the
    /// player.
    /// @throws Mox::ErrnoException "open(<path>)" or "read(<path>)".
    /// @throws Mox::RangeException "NetlinkPlayer: not a recording".
    NetlinkPlayer(const Mox::String& path, Mox::Clock* clock);

    /// Opens ports on the recording; it holds the player.
    NetlinkPortOpener opener();

    /// The first difference, such as "datagram 3 differs"; empty while there is none.
    const Mox::String& difference() const { return difference_; }
    /// Whether all was sent and received.
    bool isAtEnd() const;

  protected:
    ~NetlinkPlayer() override;

  private:
    class Port;
    struct Interface {
        NetlinkPortUse use = NetlinkPortUse::requests;
        uint32_t portId = 0;
        uint32_t rcvBufBytes = 0;
    };
    struct Datagram {
        std::size_t interface;  // Of `interfaces_`.
        CaptureDirection direction;
        uint64_t nanoseconds;
        std::vector<uint8_t> bytes;
    };

    void readBlocks(std::span<const uint8_t> file);
    void readInterface(std::span<const uint8_t> body);
    void readPacket(std::span<const uint8_t> body);
    NetlinkPortUse useOf(const Datagram& datagram) const {
        return interfaces_[datagram.interface].use;
    }
    std::size_t nextOf(CaptureDirection direction, std::size_t index) const;
    Mox::Ptr<NetlinkPort> open(NetlinkPortUse use);
    int send(NetlinkPortUse use, std::span<const uint8_t> messages);
    ssize_t receive(NetlinkPortUse use, std::span<uint8_t> buffer);
    void awaitNext();
    void handleDue();
    bool isDueFor(NetlinkPortUse use) const;
    void reportSoon(NetlinkPortUse use);

    Mox::Clock* const clock_;
    Mox::Timer timer_;
    std::vector<Interface> interfaces_;
    std::vector<Datagram> datagrams_;
    // Of `datagrams_`; its size at the end.
    std::size_t toSend_ = 0;
    std::size_t toReceive_ = 0;
    std::size_t awaited_ = SIZE_MAX;     // The one that the timer was set for last.
    bool isDue_ = false;                 // It may be received.
    Port* ports_[2] = {};                // The open ones, by their use.
    std::size_t opened_[2] = {};         // How many were opened.
    std::size_t openInterface_[2] = {};  // That of the one opened last.
    Mox::String difference_;
};

/// @throws as the constructor does.
PAVO_EXPORT Mox::Ptr<NetlinkPlayer> netlinkPlayerFactory(const Mox::String& path,
                                                         Mox::Clock* clock);

}  // namespace Pavo
