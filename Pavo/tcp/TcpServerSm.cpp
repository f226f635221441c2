#include "Pavo/tcp/TcpServerSm.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/tcp/TcpConnSocket.h"
#include "Pavo/tcp/TcpDiagnosis.h"
#include "Pavo/tcp/TcpSockOpt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpServerSm");

}  // namespace

TcpServerSm::TcpServerSm(TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
                         Keel::TimerWheel* timerWheel, Mox::Ptr<TcpServerConfig> tcpServerConfig,
                         Mox::Ptr<TcpServerStatus> tcpServerStatus)
    : Described(fdEventRegistrationFactory, timerWheel, tcpServerConfig),
      tcpServerConfig_(std::move(tcpServerConfig)),
      tcpServerStatus_(std::move(tcpServerStatus)),
      watch_(std::make_unique<TcpListenerWatch>(timerWheel, [this] { diagnose(); })) {
    Mox::require(tcpServerStatus_ != nullptr, "tcpServerStatus");
    if (tcpServerConfig_) {
        peerRxMinTtlWatch_ = {tcpServerConfig_, TcpServerConfig::peerRxMinTtlAttr,
                              [this](const IpGenAddrWithMask&) { handlePeerRxMinTtl(); }};
    }
}

TcpServerSm::~TcpServerSm() = default;

Mox::String TcpServerSm::formatDerivedType() const {
    return "TcpServerSm";
}

AddressFamily TcpServerSm::af() const {
    return tcpServerConfig_ ? tcpServerConfig_->listenIpAddr().af() : ipunknown;
}

void TcpServerSm::handleInitialized() {
    publish([this] {
        forgetSocket();
        tcpServerStatus_->listeningIs(false);
        tcpServerStatus_->reasonIs("Not started");
    });
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
    publish([this] {
        stopListener();
        startListener();
    });
    return fd() != nullptr;
}

void TcpServerSm::handleRetry() {
    retryTimesIs(retryTimes() + 1);
    start();
}

bool TcpServerSm::start() {
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
    const Mox::Ptr<TcpServerSm> hold(this);
    publish(
        [this] { makeAttempt([this] { listenOnNewSocket(); }, [this] { restartRetryTimer(); }); });
    return fd() != nullptr;
}

void TcpServerSm::listenOnNewSocket() {
    tcpServerStatus_->serverStartTimesInc(1);
    startTimeoutTimer();
    watch_->begin();
    const auto failure = openSocket(
        /*edgeTriggered=*/false, /*forWriting=*/false, [this](int sd) { return setUpAndBind(sd); },
        [this] { handleAccept(); });
    if (failure) {
        handleServerError(failure->function, strerror(failure->error));
        restartRetryTimer();
        diagnose();
        return;
    }
    // A socket whose port another one took first does not listen: it is reported readable, and
    // accept(2) gives the error.
    (void)listen(fd()->fileDescriptor()->descriptor(), backlog_);
    stopRetryTimer();
    tcpServerStatus_->listeningIs(true);
    tcpServerStatus_->reasonIs("Listening");
    diagnose();
}

// Null, or the function word of the call that failed.
const char* TcpServerSm::setUpAndBind(int sd) {
    if (setSocketOptionInteger(sd, SOL_SOCKET, SO_REUSEADDR, 1, /*verify=*/true) != 0) {
        return "Setsockopt(REUSE)";
    }
    takesIp4Is(af() == ipv6 && !v6Only_);
    if (applySocketOptions(sd, sdListening) != 0) {
        return "Setsockopt";
    }
    if (af() == ipv6 &&
        setSocketOptionInteger(sd, IPPROTO_IPV6, IPV6_V6ONLY, v6Only_, /*verify=*/true) != 0) {
        return "Setsockopt(V6OONLY)";
    }
    if (tcpServerConfig_->peerRxMinTtl().members() != 0 && setSockOptSaveSyn(sd, true) != 0) {
        watch_->faultIs("the kernel keeps no SYN, by which peerRxMinTtl judges");
        return "Setsockopt";
    }
    return socketBind(sd, tcpServerConfig_->listenIpAddr(), tcpServerConfig_->listenPort()) != 0
               ? "Bind"
               : nullptr;
}

void TcpServerSm::handleServerError(const Mox::String& function, const Mox::String& errorText) {
    publish([&] {
        const Mox::String reason = function + " (" + errorText + ")";
        MOX_TRACE(facility, 1, formatDerivedType(), ": ", reason);
        tcpServerStatus_->reasonIs(reason);
        watch_->countingIs(false, {});
        forgetSocket();
        tcpServerStatus_->listeningIs(false);
    });
}

// Restarts the listener at once, unless it has just been restarted for a failure.
void TcpServerSm::listenerFailed(const char* function, int error) {
    const double now = timerWheel()->now();
    const uint32_t delay = now - restartTime_ < retryInterval() ? retryInterval() : 0;
    restartTime_ = now + delay;
    publish([&] {
        handleServerError(function, strerror(error));
        restartListenerDeferred();
        if (delay > 0) {
            restartRetryTimerImpl(delay);
        }
    });
}

void TcpServerSm::restartListenerDeferred() {
    if (!initialized()) {
        return;
    }
    publish([this] {
        stopListener();
        restartRetryTimerImpl(0);
    });
}

void TcpServerSm::restartRetryTimer() {
    restartRetryTimerImpl(retryInterval());
}

void TcpServerSm::stopRetryTimer() {
    stopRetryTimerImpl();
}

void TcpServerSm::stopListener() {
    if (!initialized()) {
        return;
    }
    publish([this] {
        stopTimeoutTimer();
        stopRetryTimer();
        retryTimesIs(0);
        tcpServerStatus_->listeningIs(false);
        tcpServerStatus_->connSocketDelAll();
        watch_->countingIs(false, {});
        forgetSocket();
    });
}

void TcpServerSm::handleTimeout() {
    publish([this] {
        stopListener();
        tcpServerStatus_->serverTimedOutTimesInc(1);
    });
}

void TcpServerSm::handleAccept() {
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
    const TcpConnSocket connection = Pavo::socketAccepted(fd);
    if (!connection) {
        return;
    }
    MOX_TRACE(facility, 5, formatDerivedType(), ": Accepted from ", connection.dstIpAddr(),
              " port ", connection.dstPort());
    const bool judgesTtl = tcpServerConfig_ && tcpServerConfig_->peerRxMinTtl().members() != 0;
    const IpTtl least =
        judgesTtl ? tcpServerConfig_->peerRxMinTtlOf(connection.dstIpAddr()) : IpTtl();
    if (judgesTtl && refuses(connection, least)) {
        return;
    }
    const bool failsInTest = failApplySocketOptionsInTest();
    failApplySocketOptionsInTestIs(false);
    int result = applySocketOptions(fd->descriptor(), sdAccepted);
    if (result == 0) {
        result = applyPeerTtl(fd->descriptor(), least);
    }
    if (result != 0 || failsInTest) {
        listenerFailed("Setsockopt", result != 0 ? errno : EINVAL);
        return;
    }
    publish([&] {
        restartTime_ = -std::numeric_limits<double>::infinity();
        tcpServerStatus_->connSocketEnq(connection);
        tcpServerStatus_->connSocketCountInc(1);
    });
}

// True, and counted, when the SYN came from too far, or nobody knows from where. The SYN of a peer
// without a minimum is taken too, since the kernel keeps its memory until then.
bool TcpServerSm::refuses(const TcpConnSocket& connection, IpTtl least) {
    const auto ttl = synTtl(connection.fileDescriptor()->descriptor());
    if (least == IpTtl() || (ttl && *ttl >= least)) {
        return false;
    }
    publish([&] {
        watch_->refusedIs(connection.dstIpAddr(), ttl, least);
        MOX_TRACE(facility, 1, formatDerivedType(), ": ", watch_->text());
        tcpServerStatus_->connSocketRefusedCountInc(1);
        diagnose();
    });
    return true;
}

// The listener's own minimum, which the connection has inherited, is not lowered.
int TcpServerSm::applyPeerTtl(int sd, IpTtl least) {
    const IpTtl inherited = options().option(optionRxMinTtl) ? rxMinTtl() : IpTtl();
    if (least <= inherited) {
        return 0;
    }
    const int result = setSockOptRxMinTtl(af(), sd, /*enabled=*/true, least);
    const bool isBoth = af() == ipv6 && !v6Only_;
    return result == 0 && isBoth ? setSockOptRxMinTtl(ipv4, sd, /*enabled=*/true, least) : result;
}

bool TcpServerSm::isProtected() const {
    const auto& config = *tcpServerConfig_;
    return (options().option(optionMd5Auth) && config.md5Auth().members() != 0) ||
           options().option(optionRxMinTtl) || config.peerRxMinTtl().members() != 0;
}

void TcpServerSm::diagnose() {
    const Mox::Ptr<TcpServerSm> hold(this);
    publish([this] {
        watch_->countingIs(fd() && isProtected(), networkNamespace());
        tcpServerStatus_->diagnosisIs(tcpDiagnosis(ignoredKeysText(), watch_->text()));
    });
}

void TcpServerSm::handleSocketOptions() {
    if (!fd()) {
        return;
    }
    if (applySocketOptions(fd()->fileDescriptor()->descriptor(), sdListening) != 0) {
        listenerFailed("Setsockopt", errno);
        return;
    }
    diagnose();
}

void TcpServerSm::handlePeerRxMinTtl() {
    if (!initialized() || !hasNotificationActive() || !fd()) {
        return;
    }
    const Mox::Ptr<TcpServerSm> hold(this);
    const bool isWanted = tcpServerConfig_->peerRxMinTtl().members() != 0;
    if (setSockOptSaveSyn(fd()->fileDescriptor()->descriptor(), isWanted) != 0) {
        listenerFailed("Setsockopt", errno);
        return;
    }
    diagnose();
}

void TcpServerSm::handleSocketMd5AuthOption(IpGenAddrWithMask) {
    restartListenerDeferred();
}

void TcpServerSm::publish(const std::function<void()>& changes) {
    TcpSmBase::publish(&tcpServerStatus_->publisher_, changes);
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
