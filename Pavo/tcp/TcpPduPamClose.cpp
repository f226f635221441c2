// The orderly end of a stream.
#include <sys/socket.h>

#include <cerrno>
#include <memory>

#include "Mox/Assert.h"
#include "Mox/Clock.h"
#include "Mox/EventLoop.h"
#include "Mox/Trace.h"
#include "Pavo/tcp/DeferredCall.h"
#include "Pavo/tcp/TcpPduPam.h"
#include "Pavo/tcp/TcpPduWriter.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpPduPam");

// Reads in one turn of what nobody wants, so that a peer that sends on leaves time for others.
constexpr int drainingReads = 64;

// Dissolves the association, as connect(2) says, for all who share the stream. An end in the middle
// of a message would look like an orderly one.
void reset(int sd) {
    sockaddr nobody{};
    nobody.sa_family = AF_UNSPEC;
    (void)connect(sd, &nobody, sizeof(nobody));  // It may have been reset already.
}

}  // namespace

void TcpPduPam::closeAfterTx(double seconds, Mox::Clock* clock) {
    Mox::require(seconds >= 0, "seconds >= 0");
    Mox::EventLoop* const loop = Mox::EventLoop::current();
    Mox::Clock* const itsClock = clock == nullptr && loop != nullptr ? loop->clock() : clock;
    const bool isLimited = seconds != Mox::Clock::idle;
    Mox::require(!isLimited || itsClock != nullptr, "clock");
    const Mox::Ptr<TcpPduPam> hold(this);
    if (closed()) {
        return;
    }
    makeDeferredSending();
    closeLimit_.reset();
    if (isLimited) {
        closeLimit_ = std::make_unique<Mox::Timer>(itsClock, [this] { closeLimitReached(); });
        closeLimit_->expiryIs(itsClock->now() + seconds);
    }
    if (closing_ == Closing::no) {
        closing_ = Closing::sending;
        flushGathered();
    }
    settle();
    publish();
}

// What has been sent is still in the kernel. If the descriptor were closed while there is something
// to read, or something came afterwards, the kernel would drop that and reset the connection: so
// the peer ends it.
void TcpPduPam::followClosing() {
    if (writer_->kept() != 0) {
        return;
    }
    if (writer_->hasFailed() || shutdown(fileDescriptor()->descriptor(), SHUT_WR) != 0) {
        endClosing();
        return;
    }
    MOX_TRACE(facility, 5, name(), ": all is sent");
    closing_ = Closing::draining;
    drain();
}

void TcpPduPam::drain() {
    char unwanted[16384];
    for (int left = drainingReads; closing_ == Closing::draining && left > 0; --left) {
        const ssize_t got =
            recv(fileDescriptor()->descriptor(), unwanted, sizeof(unwanted), MSG_DONTWAIT);
        if (got < 0 && errno == EAGAIN) {
            return;
        }
        if (got == 0 || (got < 0 && errno != EINTR)) {
            endClosing();
        }
    }
    if (closing_ == Closing::draining && !levelTriggered()) {
        deferredSending_->request();
    }
}

void TcpPduPam::closeLimitReached() {
    const Mox::Ptr<TcpPduPam> hold(this);
    const int sd = fileDescriptor()->descriptor();
    if (const uint32_t left = writer_->messages()) {
        writer_->fail();
        (void)writer_->takeDropped();
        dropTx(left, ETIMEDOUT);
        reset(sd);
    } else {
        (void)shutdown(sd, SHUT_RDWR);  // For all who share the stream.
    }
    endClosing();
    settle();
    publish();
}

void TcpPduPam::endClosing() {
    closing_ = Closing::closed;
    closeLimit_.reset();
    deferredSending_->cancel();
    if (changed(pendingMode_, tcpEnableModeNone)) {
        mark(pendingModeChanged);
    }
    modeIs(tcpEnableModeNone);
    mark(closedChanged);
}

}  // namespace Pavo
