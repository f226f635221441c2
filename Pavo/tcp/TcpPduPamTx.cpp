#include <cerrno>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/tcp/TcpPduBuffer.h"
#include "Pavo/tcp/TcpPduPam.h"
#include "Pavo/tcp/TcpPduWriter.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpPduPam");

}  // namespace

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
    const auto iovLen = static_cast<uint16_t>(pkt->copyIovecs(iov));
    sendIov(iov, iovLen);
}

void TcpPduPam::sendIov(SocketIovec* iov, uint16_t iovLen) {
    const Mox::Ptr<TcpPduPam> hold(this);
    const bool resumed = writer_->isWaiting() && iov == writer_->rest();
    Mox::require(resumed || !txPktHolderShadow(), "!txPktHolderShadow()");
    if (!TcpPduWriter::fits(iov, iovLen)) {
        writeErrorIs("Send failed with ", EMSGSIZE);
    } else if (!isWriting()) {
        txDropsInc(resumed ? 0 : 1);
        return;
    } else {
        mark(txErrnoCleared);
        if (const int error = writer_->send(fileDescriptor()->descriptor(), iov, iovLen)) {
            writeErrorIs("Send failed with ", error);
        }
    }
    settle();
    publish();
}

void TcpPduPam::writeErrorIs(const char* text, int error) {
    Mox::String reason = withError(text, error);
    MOX_TRACE(facility, 1, name(), ": ", reason);
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

}  // namespace Pavo
