#include <utility>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/tcp/DeferredCall.h"
#include "Pavo/tcp/TcpPduPam.h"
#include "Pavo/tcp/TcpPduReader.h"

namespace Pavo {

namespace {

using Result = TcpPduPamReadResult;

Mox::TraceFacility facility("Pavo::TcpPduPam");

// PDUs read in one turn, so that a stream that is always full leaves time for the others.
constexpr uint32_t pdusPerTurn = 32;

constexpr char readAheadConflict[] = "TcpPduPam::readOnePktOnly not allowed with read-ahead";

}  // namespace

void TcpPduPam::readOnePktOnlyIs(bool only) {
    if (only && (readAheadBytes() != 0 || reader_->hasBuffered())) {
        Mox::throwRangeException(readAheadConflict);
    }
    const Mox::Ptr<TcpPduPam> hold(this);
    if (changed(readOnePktOnly_, only)) {
        mark(readOnePktOnlyChanged);
    }
    if (!only) {
        reader_->goOnAfterLast();
    }
    settle();
    publish();
}

uint32_t TcpPduPam::readAheadBytes() const {
    return reader_->aheadBytes();
}

void TcpPduPam::readAheadBytesIs(uint32_t bytes) {
    if (bytes != 0 && readOnePktOnly_) {
        Mox::throwRangeException(readAheadConflict);
    }
    if (readAheadBytes() != bytes) {
        reader_->aheadBytesIs(bytes);
        notify(readAheadBytesAttr);
    }
}

uint32_t TcpPduPam::rxBufferedBytes() const {
    return reader_->bufferedBytes();
}

void TcpPduPam::framingIs(const TcpFraming* framing) {
    reader_->framingIs(framing);
}

void TcpPduPam::handleSocketReadable() {
    const Mox::Ptr<TcpPduPam> hold(this);
    reader_->mayHaveMoreIs(true);
    drain();
    if (readable_) {
        MOX_TRACE(facility, 9, "Additional edgeTriggered notification");
    }
    if (!deferredServing_->isPending()) {
        serve();  // Else that comes next, so that a turn does not serve twice.
    }
    TcpPduPamBase::handleSocketReadable();
}

// Publishes what a call could not, and reads. An observer that takes the PDU makes room for the
// next one. True when there was one.
bool TcpPduPam::serve() {
    settle();
    publish();
    if (serving_) {
        return false;  // The call that is serving reads on.
    }
    const bool hasRead = readPdus();
    settle();  // A PDU that was not taken ends the interest.
    publish();
    if (hasToServe()) {
        deferredServing_->request();
    }
    return hasRead;
}

// An event of the same turn finds this pending again, and leaves the socket to the next turn.
void TcpPduPam::serveDeferred() {
    if (serve()) {
        deferredServing_->request();
    }
}

bool TcpPduPam::readPdus() {
    struct Serving {
        explicit Serving(bool* itsFlag) : flag(itsFlag) { *flag = true; }
        ~Serving() { *flag = false; }
        bool* const flag;
    } const serving(&serving_);
    uint32_t left = pdusPerTurn;
    for (; left > 0 && hasToRead(); --left) {
        if (readPdu()) {
            mark(readableCounted);
        }
        settle();
        publish();
    }
    return left != pdusPerTurn;
}

bool TcpPduPam::hasToRead() const {
    return reader_->mayHaveMore() && !readable_ && isReading();
}

// Whether there is something to do for which no event comes.
bool TcpPduPam::hasToServe() const {
    return changes_ != 0 || ((!levelTriggered() || reader_->hasBuffered()) && hasToRead());
}

// Bytes in the buffer raise no event.
void TcpPduPam::serveBuffered() {
    if (reader_->hasBuffered() && hasToRead() && !serving_) {
        deferredServing_->request();
    }
}

// True when a PDU is held.
bool TcpPduPam::readPdu() {
    const Result result = reader_->read(readOnePktOnly_);
    if (result == Result::error) {
        readFailed(reader_->failure());
    } else if (result == Result::waitForMoreData) {
        Mox::require(fd()->notifyOnReadable(), "fd()->notifyOnReadable()");
    }
    return result == Result::fullPduRead;
}

void TcpPduPam::readFailed(Mox::String reason) {
    MOX_TRACE(facility, 1, name(), ": ", reason);
    reader_->fail();
    rxErrorReason_ = std::move(reason);
    mark(rxErrorReasonChanged);
    mark(rxErrorsCounted);
}

void TcpPduPam::doGetRxPkt() {
    if (reader_->hasBuffered() && (enableMode_ & tcpEnableModeReadOnly) != 0 && !taken_ &&
        pendingMode_ != tcpEnableModeWriteOnly) {
        if (Mox::Ptr<Pkt> pkt = reader_->takeBuffered()) {
            rxPktIs(std::move(pkt));  // No state has changed, so that nothing follows.
            if (!serving_) {
                serveBuffered();
            }
            return;
        }
    }
    if (taken_ && readable_) {
        mark(readableCounted);  // Of a later PDU: its report is answered by the one that was kept.
        deferredServing_->request();
    }
    if (!taken_) {
        if (!readable_ && !fd()->notifyOnReadable()) {
            settle();  // An exception from an observer may have left the interest off.
        }
        if (!readable_ && isReading() && !isDrained()) {
            readPdu();
        }
        taken_ = reader_->take();
        try {
            afterTaking();
        } catch (...) {
            mark(readableCounted);  // The PDU is not lost: announces it once more.
            deferredServing_->request();
            throw;
        }
    }
    rxPktIs(std::exchange(taken_, nullptr));
}

// Whether a read would find nothing: this turn's event was followed by a short one.
bool TcpPduPam::isDrained() const {
    return serving_ && readAheadBytes() != 0 && !reader_->mayHaveMore();
}

// Publishes `readable` alone, since nothing is counted from inside `rxPkt`.
void TcpPduPam::afterTaking() {
    if (readable_ || pendingMode_ != tcpEnableModeNone || !reader_->isOpen()) {
        settle();  // Otherwise nothing follows from the read.
    }
    if (!serving_ && hasToServe()) {
        deferredServing_->request();
    }
    if ((changes_ & 1u << readableChanged) != 0) {
        changes_ &= ~(1u << readableChanged);
        notify(readableAttr);
    }
}

}  // namespace Pavo
