#include "Pavo/link/TapPamBase.h"

#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/packet/VlanUtils.h"
#include "Pavo/pam/PktSender.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TapPam");

// Reads a frame into an empty packet. Returns 0, or why there is none, as an `errno`.
int readFrame(int fd, uint32_t maxBytes, Pkt& pkt, RxInfo* info) {
    // The kernel does not report that a frame was cut, so there is room for one byte more.
    uint8_t excess;
    iovec room[] = {{pkt.newSharedTailData(maxBytes), maxBytes}, {&excess, 1}};
    const ssize_t received = readv(fd, room, 2);
    if (received < 0) {
        return errno;
    }
    const auto bytes = static_cast<uint32_t>(received);
    info->truncated = bytes > maxBytes;
    pkt.delSharedTailData(info->truncated ? 0 : maxBytes - bytes);
    return 0;
}

// Returns 0, or why the frame was not sent, as an `errno`. An empty one does not reach the device.
int writeFrame(int fd, const Mox::Ptr<Pkt>& pkt) {
    const Mox::Ptr<Pkt> frame = pktWithTagInFrame(pkt);
    iovec data[Pkt::maxIovecs_];
    const uint32_t pieces = frame->copyIovecs(data);
    const ssize_t written = writev(fd, data, static_cast<int>(pieces));
    return written > 0 ? 0 : written < 0 ? errno : EINVAL;
}

// The name of a tap device without IFF_VNET_HDR. IFF_NO_PI cannot be checked: its bit is that of
// IFF_NOFILTER, which the kernel sets here.
Mox::String nameOfTap(int fd) {
    ifreq device{};
    if (ioctl(fd, TUNGETIFF, &device) < 0) {
        Mox::throwErrnoException("ioctl(TUNGETIFF)");
    }
    if ((device.ifr_flags & (IFF_TAP | IFF_TUN | IFF_VNET_HDR)) != IFF_TAP) {
        throw Mox::ErrnoException(EINVAL, "ioctl(TUNGETIFF)");
    }
    return {device.ifr_name, static_cast<uint32_t>(strnlen(device.ifr_name, IFNAMSIZ))};
}

}  // namespace

TapPamBase::TapPamBase(Mox::String name) : EntityOf(std::move(name), stepsOf<TapPamBase>()) {
    socket().closesLaterIs();
}

TapPamBase::~TapPamBase() = default;

void TapPamBase::open() {
    requireEventLoop();
    try {
        const Mox::Ptr<Mox::FileDescriptor> tap = newTap();
        Mox::String ifName = nameOfTap(tap->descriptor());
        tap->nonBlockingIs(true);
        ifName_ = std::move(ifName);
        socket().fileDescIs(tap);
    } catch (...) {
        handleTapGone();
        throw;
    }
}

void TapPamBase::close() {
    ifName_ = Mox::String();
    FirstException exception;
    exception.collect([this] { handleTapGone(); });
    exception.collect([this] { socket().close(); });
    exception.rethrow();
}

void TapPamBase::doGetRxPkt() {
    if (hasRxPkt()) {
        socket().readEnded(PamSocket::ReadEnd::packets);
        return;  // An observer of its arrival has thrown.
    }
    rxPktIs(nullptr);
    if (!socket().isOpen()) {
        MOX_TRACE(facility, 1, "not enabled. Aborting action");
        return;
    }
    Mox::Ptr<Pkt> pkt;
    try {
        pkt = globalPktManager()->newPkt(std::max(maxRxPktData(), Pkt::Manager::defaultBufferSize));
    } catch (const std::bad_alloc&) {
        MOX_TRACE(facility, 0, "no packet to receive into");
        socket().readEnded(PamSocket::ReadEnd::failed);
        return;
    }
    RxInfo info;
    const int error = readFrame(socket().number(), maxRxPktData(), *pkt, &info);
    socket().readEnded(error);
    if (error == 0) {
        rxPktIs(std::move(pkt), info);  // First: an observer of what is counted may read it.
        FirstException exception;
        if (info.truncated) {
            exception.collect([&] { rxTruncatedPktsInc(1); });
        }
        exception.collect([&] { rxPktCountInc(1); });
        exception.rethrow();
    } else if (error != EAGAIN) {
        MOX_TRACE(facility, 1, "readv failed : ", std::strerror(error));
        rxErrorsInc(1);
    }
}

TxResult TapPamBase::send(int fd, std::span<const Mox::Ptr<Pkt>> pkts) {
    return sendEachPkt(pkts, [fd](const Mox::Ptr<Pkt>& pkt) { return writeFrame(fd, pkt); });
}

}  // namespace Pavo
