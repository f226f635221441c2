#include "Pavo/pam/PamConnector.h"

#include <algorithm>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/packet/VlanUtils.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::PamConnector");

constexpr int dropLevel = 1;
constexpr int callLevel = 9;

}  // namespace

PamConnectorPam::PamConnectorPam(Mox::String name, PamConnector* connector)
    : EntityOf(std::move(name)), connector_(connector) {}

PamConnectorPam::~PamConnectorPam() {
    notifieeList()->delAll();
    if (otherEnd_ != nullptr) {
        otherEnd_->attributeIs(otherEnd_->otherEnd_, nullptr, otherEndAttr);
    }
}

void PamConnectorPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(otherEnd_ != nullptr, "otherEnd()");
    Mox::require(pkt != nullptr, "pkt != __null");
    // An observer may drop or part the two ends.
    const Mox::Ptr<PamConnectorPam> hold(this);
    const Mox::Ptr<PamConnectorPam> receiver(otherEnd_);
    if (receiver->inputQueueMembers() > receiver->maxBuffer_) {
        MOX_TRACE(facility, dropLevel, "Dropping packet");
        receiver->rxDropsIs(receiver->rxDrops() + 1);
        writableCountIs(writableCount() + 1);
        return;
    }
    // An observer that throws stops neither the packet nor the other notifications.
    FirstException exception;
    exception.collect([&] { peekPktIs(pkt); });
    exception.collect([&] { peekPktCountIs(peekPktCount_ + 1); });
    exception.collect([&] { peekPktIs(nullptr); });
    receiver->inputQueueEnq(std::move(pkt));
    MOX_TRACE(facility, callLevel,
              "PamConnector: enqueue, total packets: ", receiver->inputQueueMembers());
    if (connector_ != nullptr) {
        connector_->doScheduleEvent();
    }
    exception.collect([&] { writableCountIs(writableCount() + 1); });
    exception.rethrow();
}

void PamConnectorPam::doGetRxPkt() {
    Mox::Ptr<Pkt> pkt = inputQueueDeq();
    if (pkt && connector_ != nullptr && connector_->separateVlanTagHdr()) {
        maybeOffloadAnyVlanTag(pkt);
    }
    rxPktIs(std::move(pkt));
}

void PamConnectorPam::otherEndIs(const Mox::Ptr<PamConnectorPam>& end) {
    if (end == otherEnd_) {
        return;
    }
    // All ends are changed before the first observer is notified.
    const Mox::Ptr<PamConnectorPam> ends[] = {this, end, otherEnd_, end ? end->otherEnd_ : nullptr};
    const auto& [self, joined, left, leftByJoined] = ends;
    for (const Mox::Ptr<PamConnectorPam>& parted : {left, leftByJoined}) {
        if (parted) {
            parted->otherEnd_ = nullptr;
        }
    }
    otherEnd_ = joined.ptr();
    if (joined) {
        joined->otherEnd_ = this;
    }
    for (const Mox::Ptr<PamConnectorPam>& each : ends) {
        if (each) {
            each->notify(otherEndAttr);
        }
    }
}

PamConnectorPam::InputQueue::const_iterator PamConnectorPam::find(uint32_t index) const {
    return std::find_if(inputQueue_.begin(), inputQueue_.end(),
                        [index](const QueuedPkt& each) { return each.index == index; });
}

Mox::Ptr<Pkt> PamConnectorPam::inputQueue(uint32_t index) const {
    const auto it = find(index);
    return it == inputQueue_.end() ? nullptr : it->pkt;
}

uint32_t PamConnectorPam::inputQueueEnq(Mox::Ptr<Pkt> pkt) {
    inputQueue_.push_back({nextIndex_, std::move(pkt)});
    return nextIndex_++;
}

Mox::Ptr<Pkt> PamConnectorPam::inputQueueDeq() {
    if (inputQueue_.empty()) {
        return nullptr;
    }
    Mox::Ptr<Pkt> first = std::move(inputQueue_.front().pkt);
    inputQueue_.pop_front();
    return first;
}

Mox::Ptr<Pkt> PamConnectorPam::inputQueueFront() const {
    return inputQueue_.empty() ? nullptr : inputQueue_.front().pkt;
}

Mox::Ptr<Pkt> PamConnectorPam::inputQueueBack() const {
    return inputQueue_.empty() ? nullptr : inputQueue_.back().pkt;
}

void PamConnectorPam::inputQueueDel(uint32_t index) {
    const auto it = find(index);
    if (it != inputQueue_.end()) {
        inputQueue_.erase(it);
    }
}

void PamConnectorPam::leave(const PamConnector* connector) {
    if (connector == connector_) {
        connector_ = nullptr;
        otherEndIs(nullptr);
    }
}

PamConnector::PamConnector(Mox::Clock* clock) : clock_(clock) {
    delivery_.emplace(clock, [this] { handleClock(); });
    handleInitializedBase();
}

// The map is emptied first, since observers of the parting ends may do anything.
PamConnector::~PamConnector() {
    notifieeList()->delAll();
    const auto ends = std::exchange(pam_, {});
    for (const auto& [name, end] : ends) {
        end->leave(this);
    }
}

void PamConnector::handleInitializedBase() {
    MOX_TRACE(facility, callLevel, "handleInitializedBase");
    initializedIs(true);
    for (const char* name : {"pam0", "pam1"}) {
        pamIs(Mox::make<PamConnectorPam>(name, this));
    }
    pam("pam0")->otherEndIs(pam("pam1"));
}

Mox::Ptr<PamConnectorPam> PamConnector::pam(const Mox::String& name) const {
    const Mox::Ptr<PamConnectorPam>* end = pam_.find(name);
    return end == nullptr ? nullptr : *end;
}

void PamConnector::pamIs(const Mox::Ptr<PamConnectorPam>& end) {
    const Mox::Ptr<PamConnector> hold(this);
    const Mox::String name = end->name();
    const Mox::Ptr<PamConnectorPam> before = pam(name);
    if (!pam_.is(name, end)) {
        return;
    }
    end->connector_ = this;
    if (before) {
        before->leave(this);
    }
    notify(pamAttr, name);
}

void PamConnector::pamDel(Mox::String name) {
    const Mox::Ptr<PamConnector> hold(this);
    const Mox::Ptr<PamConnectorPam> end = pam(name);
    if (pam_.del(name)) {
        end->leave(this);
        notify(pamAttr, name);
    }
}

void PamConnector::pamDelAll() {
    const Mox::Ptr<PamConnector> hold(this);
    const auto ends = pam_;
    for (const auto& [name, end] : ends) {
        pamDel(name);
    }
}

void PamConnector::clockDel() {
    delivery_.reset();
    attributeIs(clock_, nullptr, clockAttr);
}

void PamConnector::doScheduleEvent() {
    Mox::require(initialized_, "initialized()");
    if (delivery_ && delivery_->isIdle()) {
        delivery_->expiryIs(clock_->now() + deliverySeconds);
    }
}

// Both numbers are taken before the first notification, so that an answer is announced by the next
// event whichever end answers.
void PamConnector::handleClock() {
    if (!initialized_) {
        return;
    }
    const Mox::Ptr<PamConnector> hold(this);
    const Mox::Ptr<PamConnectorPam> end0 = pam("pam0");
    const Mox::Ptr<PamConnectorPam> end1 = pam("pam1");
    const uint32_t packets0 = end0 ? end0->inputQueueMembers() : 0;
    const uint32_t packets1 = end1 ? end1->inputQueueMembers() : 0;
    FirstException exception;
    announce(end0, packets0, &exception);
    announce(end1, packets1, &exception);
    exception.rethrow();
}

void PamConnector::announce(const Mox::Ptr<PamConnectorPam>& end, uint32_t packets,
                            FirstException* exception) {
    if (!end) {
        return;
    }
    MOX_TRACE(facility, callLevel, "PamConnector: handleClock ", end->name(),
              ", total packets: ", packets);
    // An end that a receiver took out is not notified any more.
    for (; packets != 0 && end->connector_ == this; --packets) {
        exception->collect([&end] { end->readableCountIs(end->readableCount() + 1); });
        MOX_TRACE(facility, callLevel, "PamConnector: handleClock ", end->name(),
                  ", remaining packets: ", end->inputQueueMembers());
    }
}

Mox::Ptr<PamConnector> pamConnectorFactory(Mox::Clock* clock) {
    return Mox::make<PamConnector>(clock);
}

}  // namespace Pavo
