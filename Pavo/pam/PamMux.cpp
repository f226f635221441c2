#include "Pavo/pam/PamMux.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <limits>
#include <tuple>

#include "Mox/Assert.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/pam/PamMuxIndex.h"
#include "Pavo/pam/PamSocket.h"
#include "Pavo/pam/ReadinessSm.h"

namespace Pavo {

PamMuxPam::PamMuxPam(Mox::String name, PamMuxMatch match, PamMux* mux)
    : EntityOf(std::move(name)), mux_(mux), match_(std::move(match)) {
    batchSenderIs(sendBatch);
}

PamMuxPam::~PamMuxPam() = default;

void PamMuxPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(pkt != nullptr, "pkt != nullptr");
    (void)send({&pkt, 1});
}

uint32_t PamMuxPam::sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts) {
    return static_cast<PamMuxPam*>(pam)->send(pkts);
}

// The counts of the endpoint below say what it did. They are taken over also where an observer of
// that endpoint throws.
uint32_t PamMuxPam::send(std::span<const Mox::Ptr<Pkt>> pkts) {
    const Mox::Ptr<PamMuxPam> hold(this);
    const Mox::Ptr<PamMux> mux(mux_);
    auto failed = static_cast<uint32_t>(pkts.size());
    uint32_t taken = failed;
    int32_t error = mux ? ENETDOWN : ENOTCONN;
    FirstException exception;
    if (mux && mux->enabled_) {
        const Mox::Ptr<Pam>& lower = mux->lower_;
        const uint32_t errors = lower->txErrors();
        exception.collect([&] {
            if (pkts.size() != 1) {
                taken = lower->txPktsIs(pkts);
            } else {
                lower->txPktIs(pkts[0]);
            }
        });
        error = lower->txErrno();
        // Observers may have sent through other clients meanwhile.
        failed = std::clamp(lower->txErrors() - errors, error != 0 ? 1u : 0u, failed);
        taken -= pkts.size() == 1 && isNoRoom(error) ? 1 : 0;
        if (taken < pkts.size()) {
            mux->waitForRoom(hold);
        }
    }
    exception.collect([&] { txErrnoIs(error); });
    if (failed != 0) {
        exception.collect([&] { txErrorsInc(failed); });
    }
    exception.rethrow();
    return taken;
}

void PamMuxPam::placeIs(int32_t place) {
    if (changed(place_, place)) {
        if (mux_ != nullptr) {
            mux_->isIndexStale_ = true;
        }
        notify(placeAttr);
    }
}

// Counts a packet that does not fit.
bool PamMuxPam::hasRoom() {
    if (waiting() < maxWaiting_) {
        return true;
    }
    rxDropsIs(rxDrops() + 1);
    return false;
}

// Removes the first packet that waits, which was moved out.
void PamMuxPam::firstDel() {
    constexpr std::size_t manyTaken = 64;
    ++firstWaiting_;
    if (firstWaiting_ == waiting_.size()) {
        waitingDel();
    } else if (firstWaiting_ >= manyTaken && firstWaiting_ * 2 >= waiting_.size()) {
        waiting_.erase(waiting_.begin(),
                       waiting_.begin() + static_cast<std::ptrdiff_t>(firstWaiting_));
        firstWaiting_ = 0;
    }
}

void PamMuxPam::waitingDel() {
    waiting_.clear();
    firstWaiting_ = 0;
}

void PamMuxPam::readTried(bool reportsAgain) {
    isReported_ = false;
    isDue_ = reportsAgain && waiting() != 0;
    if (isDue_ && mux_ != nullptr && !isListed_) {
        mux_->reportNextTurn(Mox::Ptr(this));
    }
}

void PamMuxPam::readableIs() {
    if (mux_ != nullptr && !isReported_) {
        isDue_ = true;
        if (!isListed_) {
            mux_->reportNextTurn(Mox::Ptr(this));
        }
    }
}

void PamMuxPam::doGetRxPkt() {
    if (waiting() == 0) {
        rxPktIs(nullptr);
    } else {
        Waiting& first = waiting_[firstWaiting_];
        rxPktIs(std::move(first.pkt), first.info);
        firstDel();
    }
    readTried(true);
}

int32_t PamMuxPam::doGetBulkRxPkt() {
    if (isPublishingSlots()) {
        return 0;
    }
    const uint32_t count = std::min(waiting(), std::max(bulkReadLimit_, 1u));
    std::vector<Mox::Ptr<Pkt>> pkts;
    std::vector<RxInfo> infos;
    pkts.reserve(count);
    infos.reserve(count);
    while (pkts.size() < count) {
        Waiting& first = waiting_[firstWaiting_];
        pkts.push_back(std::move(first.pkt));
        infos.push_back(first.info);
        firstDel();
    }
    readTried(true);
    if (infos.empty()) {
        slotsReceivedNone();
        return 0;
    }
    // The slots of a longer batch before this one are emptied.
    pkts.resize(std::max<std::size_t>(pkts.size(), savedPacket().members()));
    return slotsPublish(&pkts, infos, [] {});
}

void PamMuxPam::report() {
    isListed_ = false;
    if (std::exchange(isDue_, false)) {
        isReported_ = true;
        readableCountInc(1);
    }
}

/// Follows the counts of the endpoint below.
class PamMuxSm : public ReadinessSm<PamMuxSm, Pam> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::PamMuxSm"); }

    PamMuxSm(const Mox::Ptr<Pam>& lower, PamMux* mux) : ReadinessSm(lower), mux_(mux) {}

    void handleReadable() { Mox::Ptr<PamMux>(mux_)->handleReadable(); }
    void handleWritable() { Mox::Ptr<PamMux>(mux_)->handleWritable(); }
    void moxDoZombieReactors(bool zombie) {
        if (zombie) {
            detach();
        }
    }

  private:
    PamMux* mux_;
};

PamMux::PamMux(Mox::String name, Mox::Ptr<Pam> lower, Mox::Clock* clock, CaptureLinkType linkType)
    : name_(std::move(name)),
      lower_((Mox::require(lower != nullptr, "lower != nullptr"), std::move(lower))),
      clock_((Mox::require(clock != nullptr, "clock != nullptr"), clock)),
      linkType_(linkType),
      index_(std::make_unique<PamMuxIndex>()),
      turn_(clock, [this] { handleNextTurn(); }) {}

PamMux::~PamMux() {
    notifieeList()->delAll();
    stop();
    for (const auto& [name, each] : client_) {
        each->mux_ = nullptr;
    }
}

void PamMux::enabledIs(bool enabled) {
    if (enabled == enabled_) {
        return;
    }
    const Mox::Ptr<PamMux> hold(this);
    if (!enabled) {
        stop();
        attributeIs(enabled_, false, enabledAttr);
        return;
    }
    enabled_ = true;
    const auto machine = Mox::make<PamMuxSm>(lower_, this);
    sm_ = machine;
    FirstException exception;
    exception.collect([this] { notify(enabledAttr); });
    if (sm_ == machine) {
        exception.collect([this] { start(); });
    }
    exception.rethrow();
}

// As the machine of a socket does when it is made.
void PamMux::start() {
    FirstException exception;
    exception.collect([&] { handleReadable(); });
    const auto clients = inOrder_;
    for (const Mox::Ptr<PamMuxPam>& each : clients) {
        if (enabled_ && each->mux_ == this) {
            exception.collect([&] { each->writableCountInc(1); });
        }
    }
    exception.rethrow();
}

void PamMux::stop() {
    if (const Mox::Ptr<PamMuxSm> machine = std::exchange(sm_, nullptr)) {
        machine->moxDoZombieReactors(true);
    }
    turn_.expiryIs(Mox::Clock::idle);
    readsNextTurn_ = false;
    for (Clients* each : {&toReport_, &nextTurn_, &roomWaiters_}) {
        each->clear();
    }
    for (const auto& [name, each] : client_) {
        each->waitingDel();
        each->isListed_ = false;
        each->isReported_ = false;
        each->isDue_ = false;
    }
}

Mox::Ptr<PamMuxPam> PamMux::client(const Mox::String& name) const {
    const Mox::Ptr<PamMuxPam>* found = client_.find(name);
    return found == nullptr ? nullptr : *found;
}

Mox::Ptr<PamMuxPam> PamMux::clientIs(const Mox::String& name, PamMuxMatch match) {
    const Mox::Ptr<PamMux> hold(this);
    if (const Mox::Ptr<PamMuxPam> before = client(name)) {
        leave(before);
    }
    const auto made = Mox::make<PamMuxPam>(name, std::move(match), this);
    made->addedAs_ = ++clientsAdded_;
    client_.is(name, made);
    inOrder_.push_back(made);
    isIndexStale_ = true;
    notify(clientAttr, name);
    return made;
}

void PamMux::clientDel(Mox::String name) {
    const Mox::Ptr<PamMux> hold(this);
    const Mox::Ptr<PamMuxPam> gone = client(name);
    if (client_.del(name)) {
        leave(gone);
        notify(clientAttr, name);
    }
}

void PamMux::clientDelAll() {
    const Mox::Ptr<PamMux> hold(this);
    const auto clients = client_;
    FirstException exception;
    for (const auto& [name, each] : clients) {
        if (client(name) == each) {  // Observers may put in others.
            exception.collect([&, &key = name] { clientDel(key); });
        }
    }
    exception.rethrow();
}

void PamMux::leave(const Mox::Ptr<PamMuxPam>& client) {
    client->mux_ = nullptr;
    for (Clients* each : {&toReport_, &nextTurn_, &roomWaiters_}) {
        std::erase(*each, client);
    }
    std::erase(inOrder_, client);
    isIndexStale_ = true;
    index_->clientsDel();
}

void PamMux::updateIndex() {
    if (isIndexStale_) {
        std::sort(inOrder_.begin(), inOrder_.end(), [](const auto& a, const auto& b) {
            return std::tie(a->place_, a->addedAs_) < std::tie(b->place_, b->addedAs_);
        });
        index_->clientsAre(inOrder_);
        isIndexStale_ = false;
    }
}

// All packets are in their queues before the first client is notified.
void PamMux::handleReadable() {
    FirstException exception;
    readLower(&exception);
    if (const uint64_t unclaimed = std::exchange(unclaimedInRead_, 0)) {
        exception.collect([&] { unclaimedPktsIs(unclaimedPkts_ + unclaimed); });
    }
    while (!toReport_.empty()) {
        const Mox::Ptr<PamMuxPam> client = std::move(toReport_.front());
        toReport_.pop_front();
        exception.collect([&] { client->report(); });
    }
    exception.rethrow();
}

// An endpoint has slots while it reads in batches. An observer of what it counts may throw, and may
// disable the multiplexer.
void PamMux::readLower(FirstException* exception) {
    if (!enabled_) {
        return;
    }
    if (std::exchange(isReading_, true)) {  // The packets of the read under way are taken first.
        readsNextTurn_ = true;
        return;
    }
    exception->collect([&] { readOnce(exception); });
    isReading_ = false;
    if (readsNextTurn_) {
        wakeNextTurn();
    }
    if (isIndexStale_) {
        index_->clientsDel();  // It may hold one that a match function took out.
    }
}

void PamMux::readOnce(FirstException* exception) {
    if (lower_->savedPacket().members() != 0) {
        readBatch(exception);
        return;
    }
    Mox::Ptr<Pkt> pkt;
    exception->collect([&] { pkt = lower_->rxPkt(); });
    if (pkt && enabled_) {
        updateIndex();
        distribute(pkt, lower_->rxInfo(), exception);
    }
}

// The slots say what was read where an observer has thrown.
void PamMux::readBatch(FirstException* exception) {
    int64_t packets = std::numeric_limits<uint32_t>::max();
    exception->collect([&] { packets = lower_->rxPktBulk(); });
    updateIndex();
    for (uint32_t slot = 0; enabled_ && slot < packets && lower_->savedPacketRx(slot); ++slot) {
        exception->collect(
            [&] { distribute(lower_->savedPacket(slot), lower_->rxInfo(slot), exception); });
    }
}

void PamMux::distribute(const Mox::Ptr<Pkt>& pkt, const RxInfo& info, FirstException* exception) {
    bool isClaimed = false;
    index_->match(pkt, info, linkType_, exception, [&](const Mox::Ptr<PamMuxPam>& client) {
        if (client->mux_ != this) {
            return true;
        }
        isClaimed = true;
        const bool takesCopy = client->takesCopies_;
        if (client->hasRoom()) {
            client->add(takesCopy ? globalPktManager()->newShallowCopy(pkt) : pkt, info);
            client->isDue_ = !client->isReported_;
        }
        if (client->isDue_ && !std::exchange(client->isListed_, true)) {
            toReport_.push_back(client);
        }
        return takesCopy;
    });
    unclaimedInRead_ += isClaimed ? 0 : 1;
}

// The smallest step of the clock, so that a manual clock makes a stop of its own for it.
void PamMux::reportNextTurn(const Mox::Ptr<PamMuxPam>& client) {
    client->isListed_ = true;
    client->listedIn_ = turnNumber_;
    nextTurn_.push_back(client);
    wakeNextTurn();
}

void PamMux::wakeNextTurn() {
    if (turn_.isIdle()) {
        turn_.expiryIs(std::nextafter(clock_->now(), Mox::Clock::idle));
    }
}

// A client that was reported stays in the list for one turn more, so that what arrives later in
// this turn waits for the next one.
void PamMux::handleNextTurn() {
    const Mox::Ptr<PamMux> hold(this);
    FirstException exception;
    ++turnNumber_;
    if (!isReading_ && std::exchange(readsNextTurn_, false)) {
        exception.collect([this] { handleReadable(); });
    }
    while (!nextTurn_.empty() && nextTurn_.front()->listedIn_ != turnNumber_) {
        const Mox::Ptr<PamMuxPam> client = std::move(nextTurn_.front());
        nextTurn_.pop_front();
        const bool isDue = client->isDue_;
        exception.collect([&] { client->report(); });
        if (isDue && client->mux_ == this && enabled_ && !client->isListed_) {
            reportNextTurn(client);
        }
    }
    exception.rethrow();
}

void PamMux::waitForRoom(const Mox::Ptr<PamMuxPam>& client) {
    ++noRooms_;
    if (client->mux_ == this && enabled_ &&
        std::find(roomWaiters_.begin(), roomWaiters_.end(), client) == roomWaiters_.end()) {
        roomWaiters_.push_back(client);
    }
}

void PamMux::handleWritable() {
    FirstException exception;
    const uint32_t noRoomsBefore = noRooms_;
    for (auto count = roomWaiters_.size();
         count != 0 && !roomWaiters_.empty() && noRooms_ == noRoomsBefore; --count) {
        const Mox::Ptr<PamMuxPam> client = std::move(roomWaiters_.front());
        roomWaiters_.pop_front();
        exception.collect([&] { client->writableCountInc(1); });
    }
    exception.rethrow();
}

Mox::Ptr<PamMux> pamMuxFactory(Mox::String name, Mox::Ptr<Pam> lower, Mox::Clock* clock,
                               CaptureLinkType linkType) {
    return Mox::make<PamMux>(std::move(name), std::move(lower), clock, linkType);
}

}  // namespace Pavo
