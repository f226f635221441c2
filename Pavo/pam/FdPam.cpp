#include "Pavo/pam/FdPam.h"

#include "Mox/Assert.h"
#include "Mox/EventLoop.h"
#include "Mox/Trace.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/pam/PktSender.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::FdPam");

}  // namespace

FdPam::FdPam(Mox::String name, const Steps& steps) : EntityOf(std::move(name)), steps_(steps) {
    batchSenderIs(sendBatch);
}

FdPam::~FdPam() = default;

void FdPam::enabledIs(bool enabled) {
    if (enabled == enabled_) {
        return;
    }
    const Mox::Ptr<FdPam> hold(this);  // An observer may drop the endpoint.
    if (enabled) {
        steps_.open(this);
        start();
    } else {
        cleanup();
    }
}

void FdPam::requireEventLoop() {
    Mox::require(Mox::EventLoop::current() != nullptr,
                 "EventLoop::current(): enabling needs an event loop on this thread");
}

void FdPam::start() {
    try {
        // Before the machine first increments the counts, on which agents read and write.
        attributeIs(enabled_, true, enabledAttr);
        socket_.watchFor(this);
    } catch (...) {
        cleanup();
        throw;
    }
}

void FdPam::cleanup() {
    FirstException exception;
    exception.collect([this] { steps_.close(this); });
    exception.collect([this] { attributeIs(enabled_, false, enabledAttr); });
    exception.rethrow();
}

void FdPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(enabled_, "enabled()");
    Mox::require(pkt != nullptr, "pkt != nullptr");
    (void)sendBatch(this, {&pkt, 1});
}

uint32_t FdPam::sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts) {
    FdPam& self = *static_cast<FdPam*>(pam);
    Mox::require(self.enabled_, "enabled()");
    // An observer of a count may close the descriptor, or drop the endpoint.
    const Mox::Ptr<FdPam> hold(&self);
    self.txErrnoIs(0);
    const Mox::Ptr<Mox::FileDescriptor> fd = self.fileDesc();
    const TxResult result = self.steps_.send(&self, fd ? fd->descriptor() : -1, pkts);
    return countSent(&self, fd, result, facility);
}

}  // namespace Pavo
