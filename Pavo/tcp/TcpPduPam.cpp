#include "Pavo/tcp/TcpPduPam.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/EventLoop.h"
#include "Mox/Trace.h"
#include "Pavo/base/NetOrder.h"

namespace Pavo {

namespace {

using Result = TcpPduPamReadResult;

Mox::TraceFacility facility("Pavo::TcpPduPam");

// PDUs read in one go, so that a stream that is always full leaves time for the others.
constexpr uint32_t pdusPerTurn = 32;

Mox::String withError(const char* text, int error) {
    return Mox::String(text) + std::strerror(error);
}

uint64_t bytesOf(const SocketIovec* iov, uint16_t iovLen) {
    uint64_t bytes = 0;
    for (uint16_t i = 0; i < iovLen; ++i) {
        bytes += iov[i].iov_len;
    }
    return bytes;
}

// What the calls give, or -1 with `errno` set, never EINTR.
ssize_t receive(int fd, void* to, uint32_t bytes) {
    ssize_t got = -1;
    do {
        got = recv(fd, to, bytes, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    return got;
}

ssize_t transmit(int fd, SocketIovec* iov, uint16_t iovLen) {
    msghdr message{};
    message.msg_iov = iov;
    message.msg_iovlen = iovLen;
    ssize_t sent = -1;
    do {
        sent = sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

// A packet with room for so many bytes, of a size that is used again where that is large enough.
Mox::Ptr<Pkt> newPktFor(uint32_t bytes) {
    const uint32_t size = bytes <= Pkt::Manager::defaultBufferSize
                              ? Pkt::Manager::defaultBufferSize
                              : std::max(bytes, Pkt::largeBufferSize);
    return globalPktManager()->newPkt(size);
}

}  // namespace

// Serves the endpoint in the next turn, if it still lives then; at most one waits at a time.
class TcpPduPam::Later : public Mox::PtrInterface {
  public:
    explicit Later(TcpPduPam* pam) : pam_(pam) {}

    void cancel() { pam_ = nullptr; }
    void run() {
        if (pam_ == nullptr) {
            return;
        }
        const Mox::Ptr<TcpPduPam> pam(pam_);
        pam->later_ = nullptr;
        pam->serve();
    }

  protected:
    ~Later() override = default;

  private:
    TcpPduPam* pam_;
};

TcpPduPam::TcpPduPam(Mox::Ptr<TcpFileDescriptor> fileDescriptor,
                     Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory)
    : EntityOf(Mox::String("TcpPduPam-") + std::to_string(fileDescriptor->descriptor()),
               fileDescriptor, std::move(fdFactory)) {}

TcpPduPam::~TcpPduPam() {
    if (later_) {
        later_->cancel();
    }
}

void TcpPduPam::zeroReferencesIs(bool zero) {
    if (zero && later_) {
        std::exchange(later_, nullptr)->cancel();
    }
    TcpPduPamBase::zeroReferencesIs(zero);
}

void TcpPduPam::enabledIs(bool enable) {
    if (enable != enabled_) {
        enableModeIs(enable ? tcpEnableModeReadWrite : tcpEnableModeNone);
    }
}

void TcpPduPam::enableModeIs(TcpPduPamEnableMode mode) {
    Mox::require(Mox::findEnumerator<TcpPduPamEnableMode>(mode) != nullptr, "Unexpected value");
    const Mox::Ptr<TcpPduPam> hold(this);
    const bool waits = mustWait(mode);
    const bool pendingChanged = changed(pendingMode_, waits ? mode : tcpEnableModeNone);
    if (waits) {
        MOX_TRACE(facility, 5,
                  mode == tcpEnableModeReadOnly ? "Waiting for txPkt before setting enabled to "
                                                : "Waiting for rxPkt before setting enabled to ",
                  mode);
    } else {
        applyMode(mode);
    }
    if (pendingChanged) {
        notify(pendingEnableReadOnlyOrWriteOnlyModeAttr);
    }
}

// A transfer that stands still is not waited for.
bool TcpPduPam::mustWait(TcpPduPamEnableMode mode) const {
    return (mode == tcpEnableModeReadOnly && isWriting() && txPktHolderShadow_) ||
           (mode == tcpEnableModeWriteOnly && isReading() && isReceiving());
}

void TcpPduPam::applyMode(TcpPduPamEnableMode mode) {
    const bool modeChanged = changed(enableMode_, mode);
    const bool enabledChanged = changed(enabled_, mode != tcpEnableModeNone);
    initialized_ = initialized_ || enabled_;
    try {
        fd()->enabledIs(enabled_);
        updateReadInterest();
        fd()->notifyOnWritableIs(isWriting() && txPktHolderShadow_);
    } catch (...) {
        applyMode(tcpEnableModeNone);
        throw;
    }
    if (modeChanged) {
        notify(enableModeAttr);
    }
    if (enabledChanged) {
        notify(enabledAttr);
    }
    updateWritable();
}

void TcpPduPam::settlePendingMode() {
    const TcpPduPamEnableMode mode = pendingMode_;
    if (mode == tcpEnableModeNone || mustWait(mode)) {
        return;
    }
    MOX_TRACE(facility, 5,
              mode == tcpEnableModeReadOnly
                  ? "pending txPkt complete, setting enabledMode to readOnly"
                  : "pending rxPkt complete, setting enabledMode to writeOnly");
    pendingMode_ = tcpEnableModeNone;
    applyMode(mode);
    notify(pendingEnableReadOnlyOrWriteOnlyModeAttr);
}

void TcpPduPam::updateWritable() {
    if (!changed(writable_, isWriting() && !txPktHolderShadow_)) {
        return;
    }
    notify(writableAttr);
    if (writable_) {
        writableCountInc(1);
    }
}

void TcpPduPam::readOnePktOnlyIs(bool only) {
    const Mox::Ptr<TcpPduPam> hold(this);
    oneRead_ = oneRead_ && only;
    updateReadInterest();
    attributeIs(readOnePktOnly_, only, readOnePktOnlyAttr);
}

void TcpPduPam::keepaliveOptsIs(const TcpKeepaliveOptions& options) {
    if (changed(keepaliveOpts_, options)) {
        const Mox::Ptr<TcpPduPam> hold(this);
        handleKeepaliveOptions();
        notify(keepaliveOptsAttr);
    }
}

void TcpPduPam::handleKeepaliveOptions() {
    const Mox::Ptr<TcpPduPam> hold(this);
    const TcpKeepaliveOptions wanted = keepaliveOpts_;
    const struct {
        int level;
        int option;
        uint32_t value;
        const char* name;
    } options[] = {
        {SOL_SOCKET, SO_KEEPALIVE, wanted.enabled(), "SO_KEEPALIVE"},
        {IPPROTO_TCP, TCP_KEEPIDLE, wanted.idleTime(), "TCP_KEEPIDLE"},
        {IPPROTO_TCP, TCP_KEEPINTVL, wanted.probeInterval(), "TCP_KEEPINTVL"},
        {IPPROTO_TCP, TCP_KEEPCNT, wanted.probeCount(), "TCP_KEEPCNT"},
    };
    const uint32_t errorsBefore = tcpOptErrors_;
    for (const auto& each : options) {
        if (each.level == IPPROTO_TCP && !wanted.enabled()) {
            break;
        }
        if (setsockopt(fileDescriptor()->descriptor(), each.level, each.option, &each.value,
                       sizeof(each.value)) == 0) {
            continue;
        }
        const int error = errno;
        MOX_TRACE(facility, 0, "setsockopt() error while setting ", each.name, ": ",
                  std::strerror(error));
        attributeIs(tcpOptErrorReason_, withError("Setsockopt failed with ", error),
                    tcpOptErrorReasonAttr);
        attributeIs(tcpOptErrors_, tcpOptErrors_ + 1, tcpOptErrorsAttr);
        if (keepaliveOpts_ != wanted) {
            return;  // An observer of the failure has set, and so applied, others.
        }
    }
    if (tcpOptErrors_ != errorsBefore) {
        return;
    }
    if (wanted.enabled()) {
        MOX_TRACE(facility, 5, "Setsockopt(): TCP Keepalive enabled ",
                  "( idletime: ", wanted.idleTime(), ", probeinterval: ", wanted.probeInterval(),
                  ", probetime: ", wanted.probeCount(), " )");
    } else {
        MOX_TRACE(facility, 5, "Setsockopt(): TCP Keepalive disabled");
    }
}

uint16_t TcpPduPam::getPduSize() {
    Mox::require(false, "Need to implement getRemainingLength in a derived class");
    return 0;
}

void TcpPduPam::handleSocketReadable() {
    const Mox::Ptr<TcpPduPam> hold(this);
    mayHaveMore_ = true;
    if (readable_) {
        MOX_TRACE(facility, 9, "Additional edgeTriggered notification");
    }
    serve();
    TcpPduPamBase::handleSocketReadable();
}

// Does what may be done now: all that is told of reading is told from here. An observer who takes
// the PDU that it is told of makes room for the next one.
void TcpPduPam::serve() {
    if (serving_) {
        return;  // Further out the same goes on.
    }
    struct Serving {
        explicit Serving(TcpPduPam* endpoint) : pam(endpoint) { pam->serving_ = true; }
        ~Serving() {
            pam->serving_ = false;
            if (std::uncaught_exceptions() > exceptions && pam->hasToServe()) {
                pam->serveLater();  // An observer has thrown: no event comes for the rest.
            }
        }
        TcpPduPam* pam;
        int exceptions = std::uncaught_exceptions();
    } const serving(this);
    for (uint32_t left = pdusPerTurn;; --left) {
        tellReadError();
        settlePendingMode();
        if (readable_ || !mayHaveMore_ || !isReading()) {
            return;
        }
        if (left == 0) {
            break;
        }
        readNextPdu();
    }
    if (!levelTriggered()) {
        serveLater();  // No event comes for what waits already.
    }
}

// Without a loop, as in tests, the next event serves; a read error met inside `rxPkt` is then only
// to be read from `rxErrorReason`.
void TcpPduPam::serveLater() {
    Mox::EventLoop* loop = Mox::EventLoop::current();
    const bool waits = later_ && later_->references() > 1;  // Else it went with its loop.
    if (loop == nullptr || waits) {
        return;
    }
    later_ = Mox::make<Later>(this);
    loop->defer([later = later_] { later->run(); });
}

// True when a PDU is held.
bool TcpPduPam::readNextPdu() {
    const TcpPduPamReadReturn read = readPdu();
    if (read.result() == Result::error) {
        handleReadError(read.reason());
    }
    if (read.result() != Result::fullPduRead) {
        return false;
    }
    readable_ = true;
    updateReadInterest();
    notify(readableAttr);
    readableCountInc(1);
    return true;
}

// Reads until a PDU is whole, the socket is empty or the stream has failed.
TcpPduPamReadReturn TcpPduPam::readPdu() {
    for (;;) {
        TcpPduPamReadReturn read = readFromSocket();
        if (read.result() == Result::readMoreData) {
            continue;
        }
        if (read.result() == Result::fullPduRead) {
            Mox::require(rxPktHolderShadow_->numIovecs() == 1, "pkt->numIovecs() == 1");
            oneRead_ = readOnePktOnly_;
        } else if (read.result() == Result::waitForMoreData) {
            foundEmpty();
        }
        return read;
    }
}

void TcpPduPam::foundEmpty() {
    Mox::require(fd()->notifyOnReadable(), "fd()->notifyOnReadable()");
    mayHaveMore_ = false;
    if (rxPktHolderShadow_->totalBytes() == 0) {
        rxPktHolderShadow_ = nullptr;  // An idle stream holds no buffer.
    }
}

TcpPduPamReadReturn TcpPduPam::readFromSocket() {
    if (!rxPktHolderShadow_) {
        const char* failure = newRxPkt();
        if (failure == nullptr) {
            failure = sizeUp();
        }
        if (failure != nullptr) {
            return {Result::error, failure};
        }
    }
    Pkt& pkt = *rxPktHolderShadow_;
    uint8_t* room = pkt.newSharedTailData(rxRemainingLength_);
    const ssize_t ret = receive(fileDescriptor()->descriptor(), room, rxRemainingLength_);
    const auto got = static_cast<uint16_t>(std::max<ssize_t>(ret, 0));
    rxRemainingLength_ = static_cast<uint16_t>(rxRemainingLength_ - got);
    if (rxRemainingLength_ != 0) {
        const int error = errno;
        pkt.delSharedTailData(rxRemainingLength_);
        if (got != 0) {
            return Result::readMoreData;
        }
        if (ret == 0) {
            return {Result::error, "Connection closed by peer"};
        }
        if (error == EAGAIN) {
            return Result::waitForMoreData;
        }
        return {Result::error, withError("Recv failed with ", error)};
    }
    if (const char* failure = sizeUp()) {
        return {Result::error, failure};
    }
    return rxRemainingLength_ != 0 ? Result::readMoreData : Result::fullPduRead;
}

// The part asked for is there: says in `rxRemainingLength` how much is to be asked for next.
// Returns null, or what is wrong. A length that leaves nothing to ask for, with the PDU not begun
// or with more than the PDU read, would never end.
const char* TcpPduPam::sizeUp() {
    const uint32_t size = getPduSize();
    const uint32_t held = rxPktHolderShadow_->sharedBuffer()->dataBytes();
    MOX_TRACE(facility, 9, "PDU size: ", size, " Remaining: ", int64_t{size} - held);
    if (size > maxPduLength_) {
        return "PDU length too big";
    }
    if (size < held || size == 0) {
        return "PDU length too small";
    }
    rxRemainingLength_ = static_cast<uint16_t>(size - held);
    return nullptr;
}

// Null, or what failed.
const char* TcpPduPam::newRxPkt() {
    Mox::Ptr<Pkt> pkt;
    try {
        pkt = newPktFor(maxPduLength_);
    } catch (const std::bad_alloc&) {
        return "Failed to allocate packet";
    }
    if (!pkt) {
        return "Failed to obtain new packet object";
    }
    Mox::require(pkt->maxSharedData() >= maxPduLength(), "pkt->maxSharedData() >= maxPduLength()");
    // A fresh buffer is all head room: makes tail room of it.
    pkt->sharedBuffer()->newHeadData(maxPduLength_);
    pkt->sharedBuffer()->delTailData(maxPduLength_);
    pkt->updateSharedIovec();
    rxPktHolderShadow_ = std::move(pkt);
    return nullptr;
}

void TcpPduPam::handleReadError(Mox::String reason) {
    readFailed(std::move(reason));
    tellReadError();
}

void TcpPduPam::readFailed(Mox::String reason) {
    MOX_TRACE(facility, 1, name(), ": ", reason);
    rxErrorReason_ = std::move(reason);
    rxFailed_ = true;
    rxPktHolderShadow_ = nullptr;
    rxRemainingLength_ = 0;
    updateReadInterest();
}

void TcpPduPam::tellReadError() {
    if (!rxFailed_ || rxErrorTold_) {
        return;
    }
    rxErrorTold_ = true;
    notify(rxErrorReasonAttr);
    rxErrorsInc(1);
}

void TcpPduPam::doGetRxPkt() {
    Mox::Ptr<Pkt> pkt;
    if (readable_) {
        fd()->notifyOnReadableIs(isReading());
        pkt = std::exchange(rxPktHolderShadow_, nullptr);
        attributeIs(readable_, false, readableAttr);
    } else if (isReading()) {
        updateReadInterest();
        const TcpPduPamReadReturn read = readPdu();
        if (read.result() == Result::fullPduRead) {
            pkt = std::exchange(rxPktHolderShadow_, nullptr);
            updateReadInterest();
        } else if (read.result() == Result::error) {
            readFailed(read.reason());
        }
    }
    if (!serving_ && hasToServe()) {
        serveLater();
    }
    rxPktIs(std::move(pkt));
}

// What `rxPkt` left undone.
bool TcpPduPam::hasToServe() const {
    const bool toTell = rxFailed_ && !rxErrorTold_;
    const bool toSettle = pendingMode_ != tcpEnableModeNone && !mustWait(pendingMode_);
    const bool toRead = mayHaveMore_ && isReading() && !levelTriggered();
    return toTell || toSettle || toRead;
}

void TcpPduPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    if (!pkt || pkt->totalBytes() == 0) {
        MOX_TRACE(facility, 5, "Nothing to send");
        return;
    }
    Mox::require(!txPktHolderShadow(), "!txPktHolderShadow()");
    Mox::require(writable(), "writable()");
    sendPkt(std::move(pkt));
}

void TcpPduPam::sendPkt(Mox::Ptr<Pkt> pkt) {
    SocketIovec iov[Pkt::maxIovecs_];
    uint16_t iovLen = 0;
    for (uint32_t i = pkt->firstIoVec(); i < Pkt::maxIovecs_; ++i) {
        iov[iovLen++] = {pkt->iovec(i).data, pkt->iovec(i).bytes};
    }
    sendIov(iov, iovLen);
}

void TcpPduPam::sendIov(SocketIovec* iov, uint16_t iovLen) {
    const Mox::Ptr<TcpPduPam> hold(this);
    const bool resumed = iov == &txIov_;
    Mox::require(resumed || !txPktHolderShadow(), "!txPktHolderShadow()");
    const uint64_t bytes = bytesOf(iov, iovLen);
    if (bytes > std::numeric_limits<uint16_t>::max()) {
        handleWriteError(EMSGSIZE);
        return;
    }
    txErrnoIs(0);
    // An observer of that may have switched writing off, or sent something that is still waiting.
    if (!isWriting() || (!resumed && txPktHolderShadow_)) {
        if (!resumed) {
            txDropsInc(1);
        }
        return;
    }
    if (!resumed) {
        writeLength_ = static_cast<uint16_t>(bytes);
    }
    const ssize_t ret = transmit(fileDescriptor()->descriptor(), iov, iovLen);
    if (ret < 0 && errno != EAGAIN) {
        writeFailed(errno);
        return;
    }
    const auto sent = static_cast<uint32_t>(std::max<ssize_t>(ret, 0));
    if (sent < bytes) {
        saveUnsent(iov, iovLen, sent);
        return;
    }
    MOX_TRACE(facility, 9, "Sent ", sent, " bytes");
    if (resumed) {
        Mox::require(ret == txRemainingLength(), "ret == txRemainingLength()");
        writeCompleteAndSpaceAvailable();
    }
}

void TcpPduPam::saveUnsent(const SocketIovec* iov, uint16_t iovLen, uint32_t sent) {
    const auto rest = static_cast<uint32_t>(bytesOf(iov, iovLen)) - sent;
    uint32_t skipped = sent;
    uint16_t curr = 0;
    while (curr < iovLen && skipped >= iov[curr].iov_len) {
        skipped -= static_cast<uint32_t>(iov[curr].iov_len);
        ++curr;
    }
    Mox::require(curr < iovLen, "curr < iovLen");
    MOX_TRACE(facility, 9, "Partial send ", sent, " bytes. Curr iovec: ", curr, ", ", skipped,
              " bytes. Remaining to send ", rest);
    txRemainingLength_ = static_cast<uint16_t>(rest);
    if (iov == &txIov_) {
        txIov_ = {static_cast<uint8_t*>(iov->iov_base) + skipped, rest};
    } else {
        try {
            saveShadowPktCopy(iov + curr, static_cast<uint16_t>(iovLen - curr), skipped);
        } catch (const std::bad_alloc&) {
            writeFailed(ENOMEM);  // Half a PDU has left: nothing can follow it.
            return;
        }
    }
    outOfWriteSpace();
}

// The bytes themselves: the agent may change them as soon as it has handed the packet over.
void TcpPduPam::saveShadowPktCopy(const SocketIovec* iov, uint16_t iovLen, uint32_t skipped) {
    const Mox::Ptr<Pkt> copy = newPktFor(txRemainingLength_);
    uint8_t* to = copy->newSharedTailData(txRemainingLength_);
    txIov_ = {to, txRemainingLength_};
    for (uint16_t i = 0; i < iovLen; ++i) {
        const std::size_t bytes = iov[i].iov_len - skipped;
        to = std::copy_n(static_cast<const uint8_t*>(iov[i].iov_base) + skipped, bytes, to);
        skipped = 0;
    }
    txPktHolderShadow_ = copy;
}

void TcpPduPam::outOfWriteSpace() {
    fd()->notifyOnWritableIs(true);
    updateWritable();
}

void TcpPduPam::handleSocketWritable() {
    const Mox::Ptr<TcpPduPam> hold(this);
    if (isWriting() && txPktHolderShadow_) {
        try {
            sendIov(&txIov_, txIovLenHolderShadow());
        } catch (...) {  // Thrown by an observer: asks for the room again that was not used.
            fd()->notifyOnWritableIs(false);
            fd()->notifyOnWritableIs(isWriting() && txPktHolderShadow_);
            throw;
        }
    }
    TcpPduPamBase::handleSocketWritable();
}

void TcpPduPam::writeCompleteAndSpaceAvailable() {
    dropUnsent();
    settlePendingMode();
    updateWritable();
}

void TcpPduPam::writeFailed(int error) {
    txFailed_ = true;
    dropUnsent();
    const bool roomGone = changed(writable_, false);
    handleWriteError(error);
    if (roomGone) {
        notify(writableAttr);
    }
    settlePendingMode();
}

void TcpPduPam::handleWriteError(int error) {
    const Mox::Ptr<TcpPduPam> hold(this);
    const Mox::String reason = withError("Send failed with ", error);
    MOX_TRACE(facility, 1, name(), ": ", reason);
    txErrnoIs(error);
    attributeIs(txErrorReason_, reason, txErrorReasonAttr);
    txErrorsInc(1);
}

void TcpPduPam::dropUnsent() {
    txPktHolderShadow_ = nullptr;
    txIov_ = {};
    txRemainingLength_ = 0;
    fd()->notifyOnWritableIs(false);
}

SimpleTcpPduPam::~SimpleTcpPduPam() = default;

uint16_t SimpleTcpPduPam::getPduSize() {
    const Mox::Ptr<Pkt>& pkt = rxPktHolderShadow();
    Mox::require(pkt != nullptr, "pkt");
    return pkt->frontBytes() < headerBytes ? headerBytes : loadNet<uint16_t>(pkt->frontData() + 2);
}

Mox::Ptr<TcpPduPam> tcpPduPamFactory(Mox::Ptr<TcpFileDescriptor> fileDescriptor,
                                     Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> factory) {
    return Mox::make<TcpPduPam>(std::move(fileDescriptor), std::move(factory));
}

Mox::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(
    Mox::Ptr<TcpFileDescriptor> fileDescriptor,
    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> factory) {
    return Mox::make<SimpleTcpPduPam>(std::move(fileDescriptor), std::move(factory));
}

}  // namespace Pavo
