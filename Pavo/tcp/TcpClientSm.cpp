#include "Pavo/tcp/TcpClientSm.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/tcp/TcpConnSocket.h"
#include "Pavo/tcp/TcpDiagnosis.h"
#include "Pavo/tcp/TcpSockOpt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpClientSm");

using Status = TcpClientStatus::ConnectionStatus;

// `value` shifted to the left; the largest number where bits would be lost.
uint32_t shifted(uint32_t value, uint32_t bits) {
    const uint64_t wide = bits < 32 ? uint64_t{value} << bits : UINT64_MAX;
    return value == 0 ? 0 : static_cast<uint32_t>(std::min<uint64_t>(wide, UINT32_MAX));
}

// Both ends are the same: the kernel chose the port to which it then connected, where no socket
// listens.
bool isConnectedToItself(const TcpConnSocket& connection) {
    return connection.srcIpAddr() == connection.dstIpAddr() &&
           connection.srcPort() == connection.dstPort();
}

}  // namespace

TcpClientSm::TcpClientSm(TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
                         Keel::TimerWheel* timerWheel, uint32_t clientId,
                         Mox::Ptr<TcpClientConfig> tcpClientConfig,
                         Mox::Ptr<TcpClientStatus> tcpClientStatus)
    : Described(fdEventRegistrationFactory, timerWheel, tcpClientConfig),
      clientId_(clientId),
      tcpClientConfig_(std::move(tcpClientConfig)),
      tcpClientStatus_(std::move(tcpClientStatus)),
      attempt_(std::make_unique<TcpAttempt>(timerWheel)) {
    Mox::require(tcpClientStatus_ != nullptr, "tcpClientStatus");
}

TcpClientSm::~TcpClientSm() = default;

Mox::String TcpClientSm::formatDerivedType() const {
    return "TcpClientSm " + Mox::String(std::to_string(clientId_));
}

AddressFamily TcpClientSm::af() const {
    return tcpClientConfig_ ? tcpClientConfig_->serverIpAddr().af() : ipunknown;
}

uint32_t TcpClientSm::retryTimerJitterPercentage() const {
    return 0;
}

void TcpClientSm::handleInitialized() {
    publish([this] {
        useMoxEventLoop_ = true;
        forgetSocket();
        tcpClientStatus_->resetConnSocket();
        tcpClientStatus_->connectionStatusIs(Status::idle);
    });
}

void TcpClientSm::moxDoZombieReactors(bool zombie) {
    if (zombie) {
        cleanup();
    }
    TcpSmBase::moxDoZombieReactors(zombie);
}

bool TcpClientSm::startConnection() {
    retryTimesIs(0);
    return attempt(/*isRetry=*/false);
}

void TcpClientSm::handleRetry() {
    if (initialized()) {
        retryTimesIs(retryTimes() + 1);
        attempt(/*isRetry=*/true);
    }
}

bool TcpClientSm::attempt(bool isRetry) {
    if (!initialized() || !tcpClientConfig_) {
        return false;
    }
    const Mox::Ptr<TcpClientSm> hold(this);
    publish([this, isRetry] {
        makeAttempt([this, isRetry] { connectNewSocket(isRetry); },
                    [this] { fd() ? restartRetryTimer() : planRetry(retryInterval()); });
    });
    return fd() != nullptr;
}

void TcpClientSm::connectNewSocket(bool isRetry) {
    const bool isAbandoned = isRetry && abandonAttempt();
    if (!isRetry) {
        attempt_->end();
    }
    forgetSocket("Disabling fd from previous connection attempt");
    startTimeoutTimer();
    const auto failure = openSocket(
        edgeTriggeredFileDescriptor(), /*forWriting=*/true,
        [this](int sd) {
            tcpClientStatus_->connectionAttemptCountInc(1);
            return setUpAndConnect(sd);
        },
        [this] { handleConnect(); });
    if (failure) {
        fail(failure->function, failure->error);
    } else {
        attempt_->begin(networkNamespace());
        tcpClientStatus_->connectionStatusIs(Status::connecting);
        restartRetryTimer();
    }
    tcpClientStatus_->connectionAbandonedCountInc(isAbandoned ? 1 : 0);
    diagnose();
}

// Whether there was an attempt without an answer.
bool TcpClientSm::abandonAttempt() {
    if (!fd()) {
        return false;
    }
    const auto& keys = tcpClientConfig_->md5Auth();
    const TcpSocketOptions options = lastOptionsApplied();
    const bool isSigned = options.option(optionMd5Auth) &&
                          std::any_of(keys.begin(), keys.end(), [this](const auto& each) {
                              return each.first.contains(tcpClientConfig_->serverIpAddr());
                          });
    attempt_->endUnanswered(fd()->fileDescriptor()->descriptor(),
                            {.signature = isSigned, .ttl = options.option(optionRxMinTtl)});
    return true;
}

// Null, or the function word of the call that failed.
const char* TcpClientSm::setUpAndConnect(int sd) {
    const uint32_t ifIndex = tcpClientConfig_->ifIndex();
    const char* failed = nullptr;
    if (socketBindClient(sd, af(), tcpClientConfig_->clientIpAddr(), ifIndex, &failed) < 0) {
        return failed;
    }
    if (applySocketOptions(sd, sdConnecting) != 0) {
        return "Setsockopt";
    }
    const int result = socketConnect(sd, tcpClientConfig_->serverIpAddr(),
                                     tcpClientConfig_->serverPort(), ifIndex);
    return result < 0 && errno != EINPROGRESS ? "Connect" : nullptr;
}

void TcpClientSm::handleConnect() {
    if (!initialized() || !fd()) {
        return;
    }
    const auto socket = fd()->fileDescriptor();
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(socket->descriptor(), SOL_SOCKET, SO_ERROR, &error, &length) < 0) {
        fail("Getsockopt", errno);
        return;
    }
    if (error != 0) {
        fail("Connect", error);
        return;
    }
    const TcpConnSocket connection =
        socketConnected(socket, tcpClientConfig_->serverIpAddr(), tcpClientConfig_->serverPort());
    if (!connection) {
        fail("Getsockname", errno);
        return;
    }
    if (isConnectedToItself(connection)) {
        fail("Connect", ECONNREFUSED);
        return;
    }
    publish([&] {
        stopTimeoutTimer();
        stopRetryTimer();
        fdDel();  // The owner watches the descriptor from now on; its options stay applied.
        retryTimesIs(0);
        attempt_->end();
        tcpClientStatus_->connSocketIs(connection);
        tcpClientStatus_->connectionSuccessCountInc(1);
        tcpClientStatus_->connectionStatusIs(Status::connected);
        diagnose();
    });
}

void TcpClientSm::fail(const char* function, int error) {
    publish([&] {
        if (error != ETIMEDOUT || !abandonAttempt()) {
            attempt_->end();
        }
        recordError(function, strerror(error));
        restartRetryTimer();
        diagnose();
    });
}

void TcpClientSm::handleClientError(const Mox::String& function, const Mox::String& errorText) {
    publish([&] {
        attempt_->end();
        recordError(function, errorText);
        diagnose();
    });
}

void TcpClientSm::recordError(const Mox::String& function, const Mox::String& errorText) {
    publish([&] {
        const Mox::String reason = function + " (" + errorText + ")";
        MOX_TRACE(facility, 1, formatDerivedType(), ": ", reason);
        tcpClientStatus_->reasonIs(reason);
        attempt_->stop();
        forgetSocket();
        tcpClientStatus_->resetConnSocket();
        tcpClientStatus_->connectionErrorCountInc(1);
        tcpClientStatus_->connectionStatusIs(Status::failed);
    });
}

void TcpClientSm::diagnose() {
    tcpClientStatus_->diagnosisIs(tcpDiagnosis(ignoredKeysText(), attempt_->hint()));
}

void TcpClientSm::restartRetryTimer() {
    const Status status = tcpClientStatus_->connectionStatus();
    uint32_t interval = retryInterval();
    if (status == Status::failed) {
        const uint32_t retries =
            tcpClientConfig_ ? tcpClientConfig_->exponentialBackoffRetries() : 0;
        interval = retries == 0 ? interval : shifted(interval, retryTimes() % retries);
    } else if (status != Status::idle) {
        Mox::require(status == Status::connecting,
                     "tcpClientStatus()->connectionStatus() == "
                     "TcpClientStatus::ConnectionStatus::connecting_");
        interval = tcpClientConfig_ ? tcpClientConfig_->kernelTcpTimeout() : 0;
    }
    planRetry(interval);
}

void TcpClientSm::planRetry(uint32_t intervalSeconds) {
    publish([&] {
        restartRetryTimerImpl(intervalSeconds);
        tcpClientStatus_->retryTimerNextIs(retryTimerExpireTime());
        tcpClientStatus_->retryTimerIntervalIs(intervalSeconds);
    });
}

void TcpClientSm::stopRetryTimer() {
    publish([this] {
        stopRetryTimerImpl();
        tcpClientStatus_->retryTimerNextIs(retryTimerExpireTime());
    });
}

void TcpClientSm::stopConnection() {
    if (!initialized()) {
        return;
    }
    publish([this] {
        stopTimeoutTimer();
        stopRetryTimer();
        retryTimesIs(0);
        tcpClientStatus_->connectionStatusIs(Status::idle);
        tcpClientStatus_->resetConnSocket();
        forgetSocket();
        attempt_->stop();
    });
}

void TcpClientSm::handleTimeout() {
    publish([this] {
        const bool isAbandoned = abandonAttempt();
        stopConnection();
        tcpClientStatus_->connectionStatusIs(Status::timedout);
        tcpClientStatus_->connectionAbandonedCountInc(isAbandoned ? 1 : 0);
        diagnose();
    });
}

int TcpClientSm::getClientSocket() const {
    const auto& socket =
        fd() ? fd()->fileDescriptor() : tcpClientStatus_->connSocket().fileDescriptor();
    return socket ? socket->descriptor() : -1;
}

void TcpClientSm::handleSocketOptions() {
    const int sd = getClientSocket();
    if (sd >= 0 && applySocketOptions(sd, sdEstablished) != 0) {
        fail("Setsockopt", errno);
    }
}

void TcpClientSm::handleSocketMd5AuthOption(IpGenAddrWithMask addrWithMask) {
    MOX_TRACE(facility, 2, addrWithMask,
              " Ignoring MD5 change, will be applied at start of new connection");
}

void TcpClientSm::publish(const std::function<void()>& changes) {
    TcpSmBase::publish(&tcpClientStatus_->publisher_, changes);
}

Mox::Ptr<TcpClientSm> tcpClientSmFactory(
    TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
    Keel::TimerWheel* timerWheel, uint32_t clientId, Mox::Ptr<TcpClientConfig> tcpClientConfig,
    Mox::Ptr<TcpClientStatus> tcpClientStatus) {
    const auto machine =
        Mox::make<TcpClientSm>(fdEventRegistrationFactory, timerWheel, clientId,
                               std::move(tcpClientConfig), std::move(tcpClientStatus));
    machine->initializedIs();
    return machine;
}

}  // namespace Pavo
