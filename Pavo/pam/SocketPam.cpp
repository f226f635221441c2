#include "Pavo/pam/SocketPam.h"

#include <utility>
#include <vector>

#include "Pavo/base/FirstException.h"
#include "Pavo/pam/PktReceiver.h"
#include "Pavo/pam/SocketOptions.h"

namespace Pavo {

SocketPam::SocketPam(Mox::String name, const Steps& steps, const SocketSteps& socketSteps,
                     const Mox::TraceFacility& trace, const char* className)
    : EntityOf(std::move(name), steps),
      socketSteps_(socketSteps),
      receiver_(std::make_unique<PktReceiver>(trace, className)) {}

SocketPam::~SocketPam() = default;

void SocketPam::optionsIs(uint32_t wanted) {
    const Mox::Ptr<SocketPam> hold(this);
    uint32_t reached = options_;
    bool closes = false;
    try {
        if (socket().isOpen()) {
            changeSocketOptions(socketSteps_.optionTable(this), socketSteps_.socketSettings(this),
                                socket().number(), wanted, &reached, &closes);
        }
    } catch (...) {
        FirstException exception;
        exception.collect([] { throw; });
        const bool isOther = changed(options_, reached);
        exception.collect([&] { closes ? cleanup() : void(); });
        exception.collect([&] { isOther ? notify(optionsAttr) : void(); });
        exception.rethrow();
    }
    attributeIs(options_, wanted, optionsAttr);
}

void SocketPam::enableBulkReadIs(bool enable) {
    const Mox::Ptr<SocketPam> hold(this);
    if (bulkIs(&bulk_, enable, socketReadLimit_, rxBufferBytes_, &socket())) {
        notify(enableBulkReadAttr);
    }
}

void SocketPam::doGetRxPkt() {
    if (hasRxPkt()) {
        socket().readEnded(PamSocket::ReadEnd::packets);
        return;  // An observer of its arrival has thrown.
    }
    if (bulk_.isOn) {
        rxPktIs(nullptr);
        readBulk();
    } else {
        readSingle();
    }
}

int32_t SocketPam::doGetBulkRxPkt() {
    return readBulk();
}

void SocketPam::readSingle() {
    Mox::Ptr<Pkt> pkt;
    const RxRound round = socketSteps_.readOne(this, &pkt, rxInfoToFill());
    rxPktFilledIs(std::move(pkt));  // First: an observer of what is counted may read it.
    if (round.wasTried) {
        count(round);
    }
}

void SocketPam::count(const RxRound& round) {
    countRead(this, receiver_.get(), socket(), round, /*countsEmpty=*/false);
}

int32_t SocketPam::readBulk() {
    if (isPublishingSlots()) {
        return 0;
    }
    std::unique_ptr<RxBatch> batch = socketSteps_.readBatch(this);
    if (!batch) {
        slotsReceivedNone();
        return 0;
    }
    const RxRound round = batch->round;
    FirstException exception;
    int32_t packets = 0;
    exception.collect(
        [&] { packets = slotsPublish(&batch->pkts, batch->read(), [&] { count(round); }); });
    receiver_->batchIs(std::move(batch));
    exception.rethrow();
    return packets;
}

}  // namespace Pavo
