#include "Pavo/link/TapPamBase.h"

#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "Mox/Assert.h"
#include "Mox/EventLoop.h"
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

// A device has no call that writes several frames.
TxResult writeFrames(int fd, std::span<const Mox::Ptr<Pkt>> pkts) {
    TxResult result;
    for (const Mox::Ptr<Pkt>& each : pkts) {
        const Mox::Ptr<Pkt> frame = pktWithTagInFrame(each);
        iovec data[Pkt::maxIovecs_];
        const uint32_t pieces = frame->copyIovecs(data);
        if (writev(fd, data, static_cast<int>(pieces)) >= 0) {
            ++result.sent;
            ++result.taken;
            continue;
        }
        result.error = errno;
        if (isNoRoom(result.error)) {
            result.failed += static_cast<uint32_t>(pkts.size()) - result.taken;
            break;
        }
        ++result.failed;
        ++result.taken;
    }
    return result;
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

TapPamBase::TapPamBase(Mox::String name) : EntityOf(std::move(name)) {
    batchSenderIs(sendBatch);
}

TapPamBase::~TapPamBase() {
    socket_.closeLater();
}

void TapPamBase::enabledIs(bool enabled) {
    if (enabled == enabled_) {
        return;
    }
    const Mox::Ptr<TapPamBase> hold(this);  // An observer may drop the endpoint.
    if (enabled) {
        open();
        start();
    } else {
        cleanup();
    }
}

void TapPamBase::open() {
    Mox::require(Mox::EventLoop::current() != nullptr,
                 "EventLoop::current(): enabling needs an event loop on this thread");
    try {
        const Mox::Ptr<Mox::FileDescriptor> tap = newTap();
        Mox::String ifName = nameOfTap(tap->descriptor());
        tap->nonBlockingIs(true);
        ifName_ = std::move(ifName);
        socket_.fileDescIs(tap);
    } catch (...) {
        handleTapGone();
        throw;
    }
}

void TapPamBase::start() {
    try {
        // Before the machine first increments the counts, on which agents read and write.
        attributeIs(enabled_, true, enabledAttr);
        socket_.watchFor(this);
    } catch (...) {
        cleanup();
        throw;
    }
}

void TapPamBase::cleanup() {
    socket_.closeLater();
    ifName_ = Mox::String();
    handleTapGone();
    attributeIs(enabled_, false, enabledAttr);
}

void TapPamBase::doGetRxPkt() {
    if (hasRxPkt()) {
        socket_.readEnded(PamSocket::ReadEnd::packets);
        return;  // An observer of its arrival has thrown.
    }
    rxPktIs(nullptr);
    if (!socket_.isOpen()) {
        MOX_TRACE(facility, 1, "not enabled. Aborting action");
        return;
    }
    Mox::Ptr<Pkt> pkt;
    try {
        pkt = globalPktManager()->newPkt(std::max(maxRxPktData_, Pkt::Manager::defaultBufferSize));
    } catch (const std::bad_alloc&) {
        MOX_TRACE(facility, 0, "no packet to receive into");
        socket_.readEnded(PamSocket::ReadEnd::failed);
        return;
    }
    RxInfo info;
    const int error = readFrame(socket_.number(), maxRxPktData_, *pkt, &info);
    socket_.readEnded(error);
    if (error == 0) {
        FirstException exception;
        if (info.truncated) {
            exception.collect([&] { rxTruncatedPktsInc(1); });
        }
        exception.collect([&] { rxPktCountInc(1); });
        rxPktIs(std::move(pkt), info);
        exception.rethrow();
    } else if (error != EAGAIN) {
        MOX_TRACE(facility, 1, "readv failed : ", std::strerror(error));
        rxErrorsInc(1);
    }
}

void TapPamBase::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(pkt != nullptr, "pkt != nullptr");
    (void)sendBatch(this, {&pkt, 1});
}

uint32_t TapPamBase::sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts) {
    TapPamBase& self = *static_cast<TapPamBase*>(pam);
    Mox::require(self.enabled_, "enabled()");
    // An observer of a count may close the device, or drop the endpoint.
    const Mox::Ptr<TapPamBase> hold(&self);
    const Mox::Ptr<Mox::FileDescriptor> fd = self.fileDesc();
    self.txErrnoIs(0);
    const auto count = static_cast<uint32_t>(pkts.size());
    const TxResult result =
        fd ? writeFrames(fd->descriptor(), pkts) : TxResult{0, count, count, EBADF};
    return countSent(&self, fd, result, facility);
}

}  // namespace Pavo
