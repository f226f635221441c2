#include "Pavo/tcp/TcpPduPam.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/base/NetOrder.h"
#include "Pavo/tcp/DeferredCall.h"
#include "Pavo/tcp/TcpPduBuffer.h"
#include "Pavo/tcp/TcpPduReader.h"
#include "Pavo/tcp/TcpPduWriter.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpPduPam");

constexpr char watchFailed[] = "Epoll_ctl failed with ";

}  // namespace

// Why the event loop cannot watch the socket, and for which direction.
struct TcpPduPam::WatchError {
    int error = 0;
    bool ofWriting = false;
};

TcpPduPam::TcpPduPam(Mox::Ptr<TcpFileDescriptor> fileDescriptor,
                     Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory)
    : EntityOf(Mox::String("TcpPduPam-") + std::to_string(fileDescriptor->descriptor()),
               fileDescriptor, std::move(fdFactory)),
      reader_(std::make_unique<TcpPduReader>(this)),
      writer_(std::make_unique<TcpPduWriter>()),
      deferredServing_(std::make_unique<DeferredCall>([this] {
          const Mox::Ptr<TcpPduPam> hold(this);
          serveDeferred();
      })) {
    batchSenderIs(sendBatch);
}

TcpPduPam::~TcpPduPam() = default;

void TcpPduPam::zeroReferencesIs(bool zero) {
    if (zero) {
        deferredServing_->cancel();
        deferredSending_.reset();
        closeLimit_.reset();
        if (isWriting() && !writer_->isWaiting()) {
            (void)writer_->flush(fileDescriptor()->descriptor());  // As if it were not deferred.
        }
    }
    TcpPduPamBase::zeroReferencesIs(zero);
}

const Mox::Ptr<Pkt>& TcpPduPam::rxPktHolderShadow() const {
    return reader_->pkt();
}

uint16_t TcpPduPam::rxRemainingLength() const {
    return reader_->remaining();
}

const Mox::Ptr<Pkt>& TcpPduPam::txPktHolderShadow() const {
    return writer_->pkt();
}

const SocketIovec* TcpPduPam::txIovHolderShadow() const {
    return writer_->rest();
}

uint16_t TcpPduPam::txRemainingLength() const {
    return static_cast<uint16_t>(std::min<uint32_t>(writer_->kept(), UINT16_MAX));
}

uint32_t TcpPduPam::txQueuedBytes() const {
    return writer_->kept();
}

uint32_t TcpPduPam::txQueuedPkts() const {
    return writer_->messages();
}

uint16_t TcpPduPam::writeLength() const {
    return writer_->length();
}

// With a mode pending for the end of a PDU no other is begun.
bool TcpPduPam::isReading() const {
    return (enableMode_ & tcpEnableModeReadOnly) != 0 && reader_->isOpen() &&
           closing_ != Closing::draining &&
           (pendingMode_ != tcpEnableModeWriteOnly || reader_->isReceiving());
}

bool TcpPduPam::isWriting() const {
    return (enableMode_ & tcpEnableModeWriteOnly) != 0 && !writer_->hasFailed();
}

// While a PDU is held, a level-triggered descriptor would be reported again and again, and an
// edge-triggered one needs no new interest: a failure of that would meet a PDU that is not taken.
// With read-ahead most PDUs are taken at once, and the interest waits for that.
bool TcpPduPam::wantsReadEvents() const {
    const bool stays = !levelTriggered() || (serving_ && reader_->aheadBytes() != 0);
    return closing_ == Closing::draining ||
           (isReading() && (!reader_->holdsPdu() || (stays && fd()->notifyOnReadable())));
}

bool TcpPduPam::wantsWriteEvents() const {
    return isWriting() && writer_->isWaiting();
}

// A transfer in a direction that is off is not waited for.
bool TcpPduPam::mustWait(TcpPduPamEnableMode mode) const {
    return (mode == tcpEnableModeReadOnly && wantsWriteEvents()) ||
           (mode == tcpEnableModeWriteOnly && isReading() && reader_->isReceiving());
}

void TcpPduPam::enableModeIs(TcpPduPamEnableMode mode) {
    Mox::require(Mox::findEnumerator<TcpPduPamEnableMode>(mode) != nullptr, "Unexpected value");
    const Mox::Ptr<TcpPduPam> hold(this);
    if (closed()) {
        return;
    }
    if ((mode & tcpEnableModeWriteOnly) == 0) {
        flushGathered();  // It has been taken: it is late only to be sent with others.
    }
    const bool waits = mustWait(mode);
    if (changed(pendingMode_, waits ? mode : tcpEnableModeNone)) {
        mark(pendingModeChanged);
    }
    if (waits) {
        MOX_TRACE(facility, 5,
                  mode == tcpEnableModeReadOnly ? "Waiting for txPkt before setting enabled to "
                                                : "Waiting for rxPkt before setting enabled to ",
                  mode);
    } else {
        modeIs(mode);
    }
    followStates();
    if (const WatchError failure = watch(); failure.error != 0) {
        modeIs(tcpEnableModeNone);
        settle();
        publish();
        throw Mox::ErrnoException(failure.error, "epoll_ctl");
    }
    serveBuffered();
    publish();
}

void TcpPduPam::modeIs(TcpPduPamEnableMode mode) {
    const bool wasEnabled = enabled();
    if (!changed(enableMode_, mode)) {
        return;
    }
    mark(enableModeChanged);
    if (enabled() != wasEnabled) {
        mark(enabledChanged);
    }
    initialized_ = initialized_ || enabled();
}

// Brings all that follows from the states into line, before anything is published. A socket that
// the loop cannot watch ends the direction that needs it, from which more may follow.
void TcpPduPam::settle() {
    for (;;) {
        followStates();
        const WatchError failure = watch();
        if (failure.error == 0) {
            return;
        }
        if (closing_ == Closing::draining) {
            endClosing();
        } else if (failure.ofWriting) {
            writer_->fail();
            writeErrorIs(watchFailed, failure.error);
        } else {
            readFailed(withError(watchFailed, failure.error));
        }
    }
}

void TcpPduPam::followStates() {
    if (closing_ == Closing::sending) {
        followClosing();
    }
    if (const auto mode = pendingMode_; mode != tcpEnableModeNone && !mustWait(mode)) {
        MOX_TRACE(facility, 5,
                  mode == tcpEnableModeReadOnly
                      ? "pending txPkt complete, setting enabledMode to readOnly"
                      : "pending rxPkt complete, setting enabledMode to writeOnly");
        pendingMode_ = tcpEnableModeNone;
        mark(pendingModeChanged);
        modeIs(mode);
    }
    if (changed(readable_, reader_->holdsPdu())) {
        mark(readableChanged);
    }
    if (changed(writable_, hasTxRoom())) {
        mark(writableChanged);
        if (writable_) {
            mark(writableCounted);
        }
    }
}

// After an exception from an observer of the registration, the next turn does the rest.
TcpPduPam::WatchError TcpPduPam::watch() try {
    using R = TcpFileDescriptorEventRegistration;
    // A registration leaves level-triggered interest to the next report, unless it is disabled. The
    // next owner of the stream must not meet it.
    const bool drains = closing_ == Closing::draining;
    const bool watches = enabled() || drains;
    const bool endsReading =
        fd()->notifyOnReadable() && !reader_->isOpen() && !drains && levelTriggered();
    if (!endsReading && fd()->enabled() == watches &&
        fd()->notifyOnReadable() == wantsReadEvents() &&
        fd()->notifyOnWritable() == wantsWriteEvents()) {
        return {};  // As after most messages.
    }
    int error = fdFlagIs(&R::enabled, &R::enabledIs, watches && !endsReading);
    if (error == 0) {
        error = fdFlagIs(&R::notifyOnReadable, &R::notifyOnReadableIs, wantsReadEvents());
    }
    error = error != 0 ? error : fdFlagIs(&R::enabled, &R::enabledIs, watches);
    if (error != 0) {
        return {error, /*ofWriting=*/false};
    }
    error = fdFlagIs(&R::notifyOnWritable, &R::notifyOnWritableIs, wantsWriteEvents());
    return {error, /*ofWriting=*/true};
} catch (...) {
    deferredServing_->request();
    throw;
}

void (*const TcpPduPam::publishers[])(TcpPduPam*) = {
    [](TcpPduPam* pam) { pam->txErrnoIs(0); },
    [](TcpPduPam* pam) { pam->txErrnoIs(pam->unpublishedTxErrno_); },
    [](TcpPduPam* pam) { pam->notify(txErrorReasonAttr); },
    [](TcpPduPam* pam) { pam->txErrorsInc(std::exchange(pam->uncountedTxErrors_, 0)); },
    [](TcpPduPam* pam) { pam->txDropsInc(std::exchange(pam->uncountedTxDrops_, 0)); },
    [](TcpPduPam* pam) { pam->notify(rxErrorReasonAttr); },
    [](TcpPduPam* pam) { pam->rxErrorsInc(1); },
    [](TcpPduPam* pam) { pam->notify(readableAttr); },
    [](TcpPduPam* pam) { pam->readableCountInc(1); },
    [](TcpPduPam* pam) { pam->notify(enableModeAttr); },
    [](TcpPduPam* pam) { pam->notify(enabledAttr); },
    [](TcpPduPam* pam) { pam->notify(writableAttr); },
    [](TcpPduPam* pam) { pam->writableCountInc(pam->writable_ ? 1 : 0); },
    [](TcpPduPam* pam) { pam->notify(pendingEnableReadOnlyOrWriteOnlyModeAttr); },
    [](TcpPduPam* pam) { pam->notify(readOnePktOnlyAttr); },
    [](TcpPduPam* pam) { pam->notify(txQueueBytesAttr); },
    [](TcpPduPam* pam) { pam->notify(closedAttr); },
};

// Notifies of all that has changed. An operation that an observer calls publishes also what is left
// here, so that all is published when it returns.
void TcpPduPam::publish() {
    try {
        while (changes_ != 0) {
            const auto first = static_cast<uint32_t>(std::countr_zero(changes_));
            changes_ &= changes_ - 1;
            publishers[first](this);
        }
    } catch (...) {
        if (hasToServe()) {
            deferredServing_->request();  // No event comes for the rest.
        }
        throw;
    }
}

void TcpPduPam::keepaliveOptsIs(const TcpKeepaliveOptions& options) {
    if (changed(keepaliveOpts_, options)) {
        const Mox::Ptr<TcpPduPam> hold(this);
        handleKeepaliveOptions();
        notify(keepaliveOptsAttr);
    }
}

void TcpPduPam::handleKeepaliveOptions() {
    const uint32_t failures = setSockOptKeepalive(fileDescriptor()->descriptor(), keepaliveOpts_);
    if (failures == 0) {
        return;
    }
    const int error = errno;
    const Mox::Ptr<TcpPduPam> hold(this);
    tcpOptErrors_ += failures;
    attributeIs(tcpOptErrorReason_, withError("Setsockopt failed with ", error),
                tcpOptErrorReasonAttr);
    notify(tcpOptErrorsAttr);
}

// The text names another function than this one, and is promised as it is.
uint16_t TcpPduPam::getPduSize() {
    Mox::require(false, "Need to implement getRemainingLength in a derived class");
    return 0;
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
