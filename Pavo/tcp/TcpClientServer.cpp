#include "Pavo/tcp/TcpClientServer.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Trace.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpClientServer");

using Status = TcpClientStatus::ConnectionStatus;

// Makes every change, also where an observer of one throws; what was thrown first passes through.
void tellAll(std::initializer_list<std::function<void()>> changes) {
    std::exception_ptr thrown;
    for (const auto& change : changes) {
        try {
            change();
        } catch (...) {
            thrown = thrown ? thrown : std::current_exception();
        }
    }
    if (thrown) {
        std::rethrow_exception(thrown);
    }
}

// `value` shifted to the left; the largest number where bits would be lost.
uint32_t shifted(uint32_t value, uint32_t bits) {
    const uint64_t wide = bits < 32 ? uint64_t{value} << bits : UINT64_MAX;
    return value == 0 ? 0 : static_cast<uint32_t>(std::min<uint64_t>(wide, UINT32_MAX));
}

Mox::String reasonText(const Mox::String& function, const Mox::String& errorText) {
    return function + " (" + errorText + ")";
}

// Both ends are the same: the kernel chose the port to which it then connected, where nobody
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
      tcpClientStatus_(std::move(tcpClientStatus)) {
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
    useMoxEventLoop_ = true;
    forgetSocket();
    tcpClientStatus_->resetConnSocket();
    tcpClientStatus_->connectionStatusIs(Status::idle);
}

void TcpClientSm::moxDoZombieReactors(bool zombie) {
    if (zombie) {
        cleanup();
    }
    TcpSmBase::moxDoZombieReactors(zombie);
}

bool TcpClientSm::startConnection() {
    retryTimesIs(0);
    return attempt();
}

void TcpClientSm::handleRetry() {
    if (initialized()) {
        retryTimesIs(retryTimes() + 1);
        attempt();
    }
}

bool TcpClientSm::attempt() {
    const Mox::Ptr<TcpClientSm> hold(this);
    if (!initialized() || !tcpClientConfig_) {
        return false;
    }
    const Start start(this);
    if (start.isNested()) {
        return false;
    }
    const bool isUnderWay = openAndConnect(courseInc());
    if (isStartOwed()) {
        planRetry(retryInterval());
    }
    return isUnderWay;
}

bool TcpClientSm::openAndConnect(uint32_t mine) {
    // Holds also where an observer throws, and is set anew as the attempt goes on.
    restartRetryTimerImpl(retryInterval());
    forgetSocket("Disabling fd from previous connection attempt");
    startTimeoutTimer();
    const auto socket =
        TcpFileDescriptor::socket(af(), networkNamespace(), edgeTriggeredFileDescriptor());
    if (!socket) {
        return fail("Socket", errno);
    }
    tcpClientStatus_->connectionAttemptCountInc(1);
    if (course() != mine) {
        return false;
    }
    const char* failed = connectSocket(socket->descriptor());
    if (failed != nullptr) {
        return fail(failed, errno);
    }
    if (!fdIs(socket, /*writable=*/true, [this] { handleConnect(); })) {
        return fail("Socket", errno);
    }
    if (course() == mine) {
        tcpClientStatus_->connectionStatusIs(Status::connecting);
    }
    if (course() == mine) {
        restartRetryTimer();
    }
    return course() == mine;
}

// Null, or the step that failed.
const char* TcpClientSm::connectSocket(int sd) {
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
    const Mox::Ptr<TcpClientSm> hold(this);
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
    const uint32_t mine = courseInc();
    stopTimeoutTimer();
    stopRetryTimerImpl();
    fdDel();  // The owner watches the descriptor from now on.
    retryTimesIs(0);
    // All of it, also where an observer throws: no timer is left to try again.
    tellAll({[&] { tcpClientStatus_->connSocketIs(connection); },
             [&] { tcpClientStatus_->connectionSuccessCountInc(1); },
             [&] {
                 if (course() == mine) {
                     tcpClientStatus_->connectionStatusIs(Status::connected);
                 }
             },
             [&] { tcpClientStatus_->retryTimerNextIs(retryTimerExpireTime()); }});
}

// For the caller to return: no attempt is under way.
bool TcpClientSm::fail(const char* function, int error) {
    const Mox::Ptr<TcpClientSm> hold(this);
    const uint32_t failure = course() + 1;
    restartRetryTimerImpl(retryInterval());
    handleClientError(function, strerror(error));
    if (course() == failure) {
        restartRetryTimer();
    }
    return false;
}

// Counted whatever observers of the first changes have done.
void TcpClientSm::handleClientError(const Mox::String& function, const Mox::String& errorText) {
    const Mox::Ptr<TcpClientSm> hold(this);
    const uint32_t mine = courseInc();
    MOX_TRACE(facility, 1, formatDerivedType(), ": ", function, " (", errorText, ")");
    forgetSocket();
    tcpClientStatus_->reasonIs(reasonText(function, errorText));
    if (course() == mine) {
        tcpClientStatus_->resetConnSocket();
    }
    tcpClientStatus_->connectionErrorCountInc(1);
    if (course() == mine) {
        tcpClientStatus_->connectionStatusIs(Status::failed);
    }
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
    const Mox::Ptr<TcpClientSm> hold(this);
    const uint32_t mine = course();
    restartRetryTimerImpl(intervalSeconds);
    tcpClientStatus_->retryTimerNextIs(retryTimerExpireTime());
    if (course() == mine) {
        tcpClientStatus_->retryTimerIntervalIs(intervalSeconds);
    }
}

void TcpClientSm::stopRetryTimer() {
    stopRetryTimerImpl();
    tcpClientStatus_->retryTimerNextIs(retryTimerExpireTime());
}

void TcpClientSm::stopConnection() {
    const Mox::Ptr<TcpClientSm> hold(this);
    if (initialized()) {
        stop();
    }
}

void TcpClientSm::stop() {
    const uint32_t mine = courseInc();
    startAskedDel();
    retryTimesIs(0);
    stopTimeoutTimer();
    forgetSocket();
    stopRetryTimer();
    if (course() == mine) {
        tcpClientStatus_->connectionStatusIs(Status::idle);
    }
    if (course() == mine) {
        tcpClientStatus_->resetConnSocket();
    }
}

void TcpClientSm::handleTimeout() {
    const Mox::Ptr<TcpClientSm> hold(this);
    const uint32_t stopped = course() + 1;
    stopConnection();
    if (course() == stopped) {
        tcpClientStatus_->connectionStatusIs(Status::timedout);
    }
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

TcpServerSm::TcpServerSm(TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
                         Keel::TimerWheel* timerWheel, Mox::Ptr<TcpServerConfig> tcpServerConfig,
                         Mox::Ptr<TcpServerStatus> tcpServerStatus)
    : Described(fdEventRegistrationFactory, timerWheel, tcpServerConfig),
      tcpServerConfig_(std::move(tcpServerConfig)),
      tcpServerStatus_(std::move(tcpServerStatus)) {
    Mox::require(tcpServerStatus_ != nullptr, "tcpServerStatus");
}

TcpServerSm::~TcpServerSm() = default;

Mox::String TcpServerSm::formatDerivedType() const {
    return "TcpServerSm";
}

AddressFamily TcpServerSm::af() const {
    return tcpServerConfig_ ? tcpServerConfig_->listenIpAddr().af() : ipunknown;
}

void TcpServerSm::handleInitialized() {
    forgetSocket();
    tcpServerStatus_->listeningIs(false);
    tcpServerStatus_->reasonIs("Not started");
}

void TcpServerSm::moxDoZombieReactors(bool zombie) {
    if (zombie) {
        cleanup();
    }
    TcpSmBase::moxDoZombieReactors(zombie);
}

int TcpServerSm::applySocketOptions(int sd, SdType sdType) {
    return TcpSmBase::applySocketOptions(sd, sdType);
}

bool TcpServerSm::startListener() {
    retryTimesIs(0);
    return start();
}

bool TcpServerSm::restartListener() {
    const Mox::Ptr<TcpServerSm> hold(this);
    stopListener();
    return startListener();
}

void TcpServerSm::handleRetry() {
    retryTimesIs(retryTimes() + 1);
    start();
}

bool TcpServerSm::start() {
    const Mox::Ptr<TcpServerSm> hold(this);
    if (!initialized() || !tcpServerConfig_) {
        return false;
    }
    if (tcpServerConfig_->listenPort() == Port(0)) {
        tcpServerStatus_->reasonIs("Listening port is 0");
        return false;
    }
    if (fd()) {
        MOX_TRACE(facility, 5, formatDerivedType(), ": Already listening");
        tcpServerStatus_->reasonIs("Listening");
        return true;
    }
    const Start start(this);
    if (start.isNested()) {
        return false;
    }
    const bool isListening = openAndListen(courseInc());
    if (isStartOwed()) {
        restartRetryTimer();
    }
    return isListening;
}

bool TcpServerSm::openAndListen(uint32_t mine) {
    restartRetryTimer();  // Holds also where an observer throws.
    tcpServerStatus_->serverStartTimesInc(1);
    if (course() != mine) {
        return false;
    }
    startTimeoutTimer();
    const auto socket =
        TcpFileDescriptor::socket(af(), networkNamespace(), /*edgeTriggered=*/false);
    if (!socket) {
        return fail("Socket", errno);
    }
    const char* failed = bindSocket(socket->descriptor());
    if (failed != nullptr) {
        return fail(failed, errno);
    }
    if (!fdIs(socket, /*writable=*/false, [this] { handleAccept(); })) {
        return fail("Socket", errno);
    }
    // A socket whose port another one took first does not listen: it is found readable, and the
    // accept says what is wrong.
    (void)listen(socket->descriptor(), backlog_);
    stopRetryTimer();
    tcpServerStatus_->listeningIs(true);
    if (course() == mine) {
        tcpServerStatus_->reasonIs("Listening");
    }
    return course() == mine;
}

// Null, or the step that failed.
const char* TcpServerSm::bindSocket(int sd) {
    if (setSocketOptionInteger(sd, SOL_SOCKET, SO_REUSEADDR, 1, /*verify=*/true) != 0) {
        return "Setsockopt(REUSE)";
    }
    if (applySocketOptions(sd, sdListening) != 0) {
        return "Setsockopt";
    }
    if (af() == ipv6 &&
        setSocketOptionInteger(sd, IPPROTO_IPV6, IPV6_V6ONLY, v6Only_, /*verify=*/true) != 0) {
        return "Setsockopt(V6OONLY)";
    }
    return socketBind(sd, tcpServerConfig_->listenIpAddr(), tcpServerConfig_->listenPort()) != 0
               ? "Bind"
               : nullptr;
}

// For the caller to return: nobody listens.
bool TcpServerSm::fail(const char* function, int error) {
    const Mox::Ptr<TcpServerSm> hold(this);
    const uint32_t failure = course() + 1;
    handleServerError(function, strerror(error));
    if (course() == failure) {
        restartRetryTimer();
    }
    return false;
}

void TcpServerSm::handleServerError(const Mox::String& function, const Mox::String& errorText) {
    const Mox::Ptr<TcpServerSm> hold(this);
    const uint32_t mine = courseInc();
    MOX_TRACE(facility, 1, formatDerivedType(), ": ", function, " (", errorText, ")");
    forgetSocket();
    tcpServerStatus_->reasonIs(reasonText(function, errorText));
    if (course() == mine) {
        tcpServerStatus_->listeningIs(false);
    }
}

// Starts the listener again at once, unless it has failed just so before.
void TcpServerSm::listenerFailed(const char* function, int error) {
    const Mox::Ptr<TcpServerSm> hold(this);
    const double now = timerWheel()->now();
    const uint32_t delay = now - restartTime_ < retryInterval() ? retryInterval() : 0;
    restartTime_ = now + delay;
    restartRetryTimerImpl(delay);
    const uint32_t failure = course() + 1;
    handleServerError(function, strerror(error));
    if (course() == failure) {
        restartIn(delay);
    }
}

void TcpServerSm::restartListenerDeferred() {
    restartIn(0);
}

// The timer is set before anybody is told, who may stop it again.
void TcpServerSm::restartIn(uint32_t seconds) {
    const Mox::Ptr<TcpServerSm> hold(this);
    if (initialized()) {
        letGo();
        restartRetryTimerImpl(seconds);
        tellStopped();
    }
}

void TcpServerSm::restartRetryTimer() {
    restartRetryTimerImpl(retryInterval());
}

void TcpServerSm::stopRetryTimer() {
    stopRetryTimerImpl();
}

void TcpServerSm::stopListener() {
    const Mox::Ptr<TcpServerSm> hold(this);
    if (initialized()) {
        letGo();
        tellStopped();
    }
}

void TcpServerSm::letGo() {
    courseInc();
    startAskedDel();
    retryTimesIs(0);
    stopTimeoutTimer();
    stopRetryTimer();
    forgetSocket();
}

void TcpServerSm::tellStopped() {
    const uint32_t mine = course();
    tcpServerStatus_->listeningIs(false);
    if (course() == mine) {
        tcpServerStatus_->connSocketDelAll();
    }
}

void TcpServerSm::handleTimeout() {
    const Mox::Ptr<TcpServerSm> hold(this);
    stopListener();
    tcpServerStatus_->serverTimedOutTimesInc(1);
}

void TcpServerSm::handleAccept() {
    const Mox::Ptr<TcpServerSm> hold(this);
    if (!initialized() || !fd()) {
        return;
    }
    const auto accepted =
        TcpFileDescriptor::socketAccept(fd()->fileDescriptor()->descriptor(), af(),
                                        networkNamespace(), edgeTriggeredFileDescriptor());
    if (accepted) {
        socketAccepted(accepted);
    } else if (errno == EAGAIN || errno == EINTR) {
        tcpServerStatus_->serverEagainEintrTimesInc(1);
    } else {
        listenerFailed("Accept", errno);
    }
}

void TcpServerSm::socketAccepted(const Mox::Ptr<TcpFileDescriptor>& fd) {
    const Mox::Ptr<TcpServerSm> hold(this);
    const TcpConnSocket connection = Pavo::socketAccepted(fd);
    if (!connection) {
        return;
    }
    MOX_TRACE(facility, 5, formatDerivedType(), ": Accepted from ", connection.dstIpAddr(),
              " port ", connection.dstPort());
    if (applySocketOptions(fd->descriptor(), sdAccepted) != 0) {
        failApplySocketOptionsInTestIs(false);
        listenerFailed("Setsockopt", errno);
        return;
    }
    if (failApplySocketOptionsInTest()) {
        failApplySocketOptionsInTestIs(false);
        listenerFailed("Setsockopt", EINVAL);
        return;
    }
    restartTime_ = -std::numeric_limits<double>::infinity();
    tcpServerStatus_->connSocketEnq(connection);
    tcpServerStatus_->connSocketCountInc(1);
}

void TcpServerSm::handleSocketOptions() {
    if (fd() && applySocketOptions(fd()->fileDescriptor()->descriptor(), sdListening) != 0) {
        listenerFailed("Setsockopt", errno);
    }
}

void TcpServerSm::handleSocketMd5AuthOption(IpGenAddrWithMask) {
    restartListenerDeferred();
}

Mox::Ptr<TcpServerSm> tcpServerSmFactory(
    TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
    Keel::TimerWheel* timerWheel, Mox::Ptr<TcpServerConfig> tcpServerConfig,
    Mox::Ptr<TcpServerStatus> tcpServerStatus) {
    const auto machine =
        Mox::make<TcpServerSm>(fdEventRegistrationFactory, timerWheel, std::move(tcpServerConfig),
                               std::move(tcpServerStatus));
    machine->initializedIs();
    return machine;
}

}  // namespace Pavo
