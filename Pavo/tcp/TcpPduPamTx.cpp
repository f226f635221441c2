#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/tcp/DeferredCall.h"
#include "Pavo/tcp/TcpPduBuffer.h"
#include "Pavo/tcp/TcpPduPam.h"
#include "Pavo/tcp/TcpPduWriter.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpPduPam");

// What is gathered before it is sent: more saves next to nothing, and costs memory.
constexpr uint32_t gatheredBytes = 65536;

}  // namespace

// The packets of a batch that have been gathered since the last system call: how many messages
// there were up to the end of each.
struct TcpPduPam::TxBatch {
    uint32_t pkts = 0;
    std::array<uint32_t, 256> ends;  // No heap: a lack of memory is not to throw.
};

void TcpPduPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    if (!pkt || pkt->totalBytes() == 0) {
        MOX_TRACE(facility, 5, "Nothing to send");
        return;
    }
    if (txQueueBytes_ == 0 && !inBatch_ && closing_ == Closing::no) {
        Mox::require(!txPktHolderShadow(), "!txPktHolderShadow()");
        Mox::require(writable(), "writable()");
    }
    sendPkt(std::move(pkt));
}

void TcpPduPam::sendPkt(Mox::Ptr<Pkt> pkt) {
    SocketIovec iov[Pkt::maxIovecs_];
    const auto iovLen = static_cast<uint16_t>(pkt->copyIovecs(iov));
    sendIov(iov, iovLen);
}

void TcpPduPam::sendIov(SocketIovec* iov, uint16_t iovLen) {
    const Mox::Ptr<TcpPduPam> hold(this);
    const bool resumed = writer_->isWaiting() && iov == writer_->rest();
    const bool queues = txQueueBytes_ != 0 || inBatch_;
    const auto before = writer_->state();
    Mox::require(resumed || queues || closing_ != Closing::no || !txPktHolderShadow(),
                 "!txPktHolderShadow()");
    if (!TcpPduWriter::fits(iov, iovLen)) {
        writeErrorIs("Send failed with ", EMSGSIZE);
    } else if (resumed) {
        flush();  // Does nothing while writing is off.
    } else if (!takesPkts()) {
        dropTx(1, closing_ == Closing::no ? 0 : ESHUTDOWN);
    } else if (queues) {
        queue(iov, iovLen);
    } else {
        sendNow(iov, iovLen);
    }
    const bool isFollowed = changes_ != 0 || before != writer_->state();
    if (!inBatch_ && (isFollowed || writable_ != hasTxRoom())) {
        settle();
        publish();
    }
}

// While a mode that ends writing is pending, what was taken before leaves, and nothing else.
bool TcpPduPam::takesPkts() const {
    return isWriting() && closing_ == Closing::no && pendingMode_ != tcpEnableModeReadOnly;
}

// Without a queue there is room while nothing waits.
bool TcpPduPam::hasTxRoom() const {
    return takesPkts() && writer_->kept() <= txQueueBytes_ / 2;
}

void TcpPduPam::sendNow(SocketIovec* iov, uint16_t iovLen) {
    mark(txErrnoCleared);
    if (const int error = writer_->send(fileDescriptor()->descriptor(), iov, iovLen)) {
        writeErrorIs("Send failed with ", error);
    }
}

void TcpPduPam::flush() {
    if (isWriting() && writer_->kept() != 0) {
        mark(txErrnoCleared);
        if (const int error = writer_->flush(fileDescriptor()->descriptor())) {
            writeErrorIs("Send failed with ", error);
        }
    }
}

void TcpPduPam::flushGathered() {
    if (!writer_->isWaiting()) {
        flush();
    }
}

// Keeps a message for the end of the turn or of the batch. One that is too large for that finds the
// socket asked for room first.
void TcpPduPam::queue(SocketIovec* iov, uint16_t iovLen) {
    const auto bytes = static_cast<uint32_t>(TcpPduWriter::bytesOf(iov, iovLen));
    const uint32_t most =
        txQueueBytes_ != 0 ? std::min(gatheredBytes, txQueueBytes_ / 2) : UINT32_MAX;
    if (bytes > most - std::min(most, writer_->kept())) {
        flushGathered();
    }
    if (!takesPkts()) {
        dropTx(1, 0);  // The stream has just failed.
    } else if (writer_->kept() == 0 && bytes > most) {
        sendNow(iov, iovLen);
    } else if (txQueueBytes_ != 0 && writer_->kept() + uint64_t{bytes} > txQueueBytes_) {
        dropTx(1, ENOBUFS);
    } else {
        gather(iov, iovLen);
    }
}

void TcpPduPam::gather(const SocketIovec* iov, uint16_t iovLen) {
    try {
        writer_->gather(iov, iovLen);
    } catch (const std::bad_alloc&) {
        dropTx(1, ENOMEM);
        return;
    }
    if (!inBatch_) {
        if (txErrno() != 0) {
            mark(txErrnoCleared);
        }
        sendLater();
    }
}

// At the end of the turn; at once where there is no loop, or no memory to ask it. If it were at
// once while the socket has room, each of 64 messages of 100 bytes would cost 1050 ns, with
// TCP_NODELAY 4160, instead of 115; one alone costs 500 ns more this way, those of the loop's next
// turn.
void TcpPduPam::sendLater() {
    if (writer_->kept() == 0 || writer_->isWaiting()) {
        return;
    }
    try {
        deferredSending_->request();
    } catch (const std::bad_alloc&) {
    }
    if (!deferredSending_->isPending()) {
        flushGathered();
    }
}

uint32_t TcpPduPam::sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts) {
    return static_cast<TcpPduPam*>(pam)->sendEach(pkts);
}

// Each packet goes the way of a single one, which derived classes may override, up to `queue`.
uint32_t TcpPduPam::sendEach(std::span<const Mox::Ptr<Pkt>> pkts) {
    const Mox::Ptr<TcpPduPam> hold(this);
    if (inBatch_) {  // By an override, for one packet of another batch.
        std::for_each(pkts.begin(), pkts.end(), [this](const auto& each) { txPktIsImpl(each); });
        return static_cast<uint32_t>(pkts.size());
    }
    mark(txErrnoCleared);
    TxBatch batch;
    uint32_t taken = 0;
    bool isWhole = false;
    FirstException exception;
    inBatch_ = true;
    exception.collect([&] {
        taken = gatherEach(pkts, &batch);
        isWhole = true;
    });
    inBatch_ = false;
    batch.pkts = isWhole ? batch.pkts : 0;  // After an exception nothing is given back.
    if (txQueueBytes_ == 0) {
        taken -= sendGathered(&batch);
    } else {
        sendLater();
    }
    if (taken < pkts.size()) {
        unpublishedTxErrno_ = EAGAIN;
        mark(txErrnoSet);
    }
    exception.collect([&] {
        settle();
        publish();
    });
    exception.rethrow();
    return taken;
}

// Returns how many packets were taken, before the last of them are sent.
uint32_t TcpPduPam::gatherEach(std::span<const Mox::Ptr<Pkt>> pkts, TxBatch* batch) {
    // Packets that are dropped are counted, and so are not given back.
    const bool givesBack = txQueueBytes_ == 0 && takesPkts();
    uint32_t taken = 0;
    for (const Mox::Ptr<Pkt>& each : pkts) {
        const bool isFull = writer_->kept() + uint64_t{each->totalBytes()} > gatheredBytes ||
                            batch->pkts == batch->ends.size();
        if (txQueueBytes_ == 0 && isFull) {
            taken -= sendGathered(batch);
        }
        if (takesPkts() && writer_->isWaiting() && !hasTxRoom()) {
            break;
        }
        txPktIsImpl(each);
        ++taken;
        if (givesBack) {
            batch->ends[batch->pkts++] = writer_->messages();
        }
    }
    return taken;
}

// Without a queue: sends what was gathered, and forgets the packets after the first one that did
// not leave completely. Returns how many those are.
uint32_t TcpPduPam::sendGathered(TxBatch* batch) {
    const uint32_t gathered = writer_->messages();
    flushGathered();
    const auto* const begin = batch->ends.data();
    const auto* const end = begin + std::exchange(batch->pkts, 0);
    if (!writer_->isWaiting() || begin == end) {
        return 0;
    }
    const uint32_t sent = gathered - writer_->messages();
    const auto* const first = std::upper_bound(begin, end, sent);
    writer_->keepFirst(*first - sent);
    return static_cast<uint32_t>(end - first) - 1;
}

void TcpPduPam::sendDeferred() {
    const Mox::Ptr<TcpPduPam> hold(this);
    flushGathered();
    drain();
    settle();
    publish();
}

void TcpPduPam::dropTx(uint32_t pkts, int error) {
    uncountedTxDrops_ += pkts;
    mark(txDropsCounted);
    if (error != 0) {
        unpublishedTxErrno_ = error;
        mark(txErrnoSet);
    }
}

void TcpPduPam::writeErrorIs(const char* text, int error) {
    Mox::String reason = withError(text, error);
    MOX_TRACE(facility, 1, name(), ": ", reason);
    if (const uint32_t dropped = writer_->takeDropped()) {
        dropTx(dropped, 0);
    }
    unpublishedTxErrno_ = error;
    mark(txErrnoSet);
    if (changed(txErrorReason_, std::move(reason))) {
        mark(txErrorReasonChanged);
    }
    ++uncountedTxErrors_;
    mark(txErrorsCounted);
}

void TcpPduPam::handleSocketWritable() {
    const Mox::Ptr<TcpPduPam> hold(this);
    if (wantsWriteEvents()) {
        sendIov(writer_->rest(), txIovLenHolderShadow());
    }
    TcpPduPamBase::handleSocketWritable();
}

void TcpPduPam::txQueueBytesIs(uint32_t bytes) {
    if (bytes != 0) {
        makeDeferredSending();
    }
    if (!changed(txQueueBytes_, bytes)) {
        return;
    }
    const Mox::Ptr<TcpPduPam> hold(this);
    if (bytes == 0) {
        flushGathered();
    }
    mark(txQueueBytesChanged);
    settle();
    publish();
}

void TcpPduPam::makeDeferredSending() {
    if (!deferredSending_) {
        deferredSending_ = std::make_unique<DeferredCall>([this] { sendDeferred(); });
    }
}

}  // namespace Pavo
