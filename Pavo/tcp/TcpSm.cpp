#include "Pavo/tcp/TcpSm.h"

#include <cerrno>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/tcp/TcpSockOpt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpSm");

constexpr Mox::AttributeSet<TcpConfigBase> configAttributes{
    TcpConfigBase::optionsAttr,
    TcpConfigBase::txTtlAttr,
    TcpConfigBase::txDsAttr,
    TcpConfigBase::rxMinTtlAttr,
    TcpConfigBase::md5AuthAttr,
    TcpConfigBase::sockMaxSegSizeAttr,
    TcpConfigBase::pathMtuDiscoveryAttr,
    TcpConfigBase::dstIntfIfIndexAttr,
};

constexpr uint32_t sockets(std::initializer_list<TcpSmBase::SdType> types) {
    uint32_t bits = 0;
    for (const TcpSmBase::SdType each : types) {
        bits |= 1u << each;
    }
    return bits;
}

constexpr uint32_t allSockets = sockets({TcpSmBase::sdListening, TcpSmBase::sdAccepted,
                                         TcpSmBase::sdConnecting, TcpSmBase::sdEstablished});
constexpr uint32_t beforeHandshake = sockets({TcpSmBase::sdListening, TcpSmBase::sdConnecting});

}  // namespace

// Both reactors hold the machine while it works, since an observer of its status may drop it.
class TcpSmBase::ConfigReactor : public Mox::Notifiee {
  public:
    ConfigReactor(const Mox::Ptr<TcpConfigBase>& config, TcpSmBase* machine)
        : Notifiee(config, configAttributes), machine_(machine) {}

    void handleChange(const Mox::Change& change) override {
        const Mox::Ptr<TcpSmBase> hold(machine_);
        if (!hold->initialized()) {
            return;
        }
        if (change.is(TcpConfigBase::md5AuthAttr)) {
            hold->handleSocketMd5AuthOption(change.key(TcpConfigBase::md5AuthAttr));
        } else {
            hold->handleSocketOptions();
        }
    }

  private:
    TcpSmBase* machine_;
};

class TcpSmBase::FdReactor : public Mox::Notifiee {
  public:
    FdReactor(const Mox::Ptr<TcpFileDescriptorEventRegistration>& registration,
              Mox::AttributeSet<TcpFileDescriptorEventRegistration> wanted, TcpSmBase* machine,
              std::function<void()> handler)
        : Notifiee(registration, wanted), machine_(machine), handler_(std::move(handler)) {}

    void handleChange(const Mox::Change&) override {
        const Mox::Ptr<TcpSmBase> hold(machine_);
        handler_();
    }

  private:
    TcpSmBase* machine_;
    std::function<void()> handler_;
};

struct TcpSmBase::OptionStep {
    TcpSocketOption option;
    uint32_t sockets;  // A bit for each kind to which it may be applied.
    const char* errorText;
    int (*apply)(TcpSmBase& machine, int sd, bool enabled);
};

// An IPv6 socket that takes IPv4 connections has options of both levels, each for its family.
template <class Setter>
int TcpSmBase::forFamilies(Setter setter) const {
    const int result = setter(af());
    return result == 0 && takesIp4_ ? setter(ipv4) : result;
}

// In the order of the bits. After the handshake keys and segment size cannot change any more: the
// kernel would stall the connection, or ignore the value.
const TcpSmBase::OptionStep TcpSmBase::optionSteps[] = {
    {optionTxTtl, allSockets, "TxTtl error: af=",
     [](TcpSmBase& m, int sd, bool on) {
         return m.forFamilies([&](auto af) { return setSockOptTxTtl(af, sd, on, m.txTtl()); });
     }},
    {optionTxDs, allSockets, "TxDs error: af=",
     [](TcpSmBase& m, int sd, bool on) {
         return m.forFamilies([&](auto af) { return setSockOptTxDs(af, sd, on, m.txDs()); });
     }},
    {optionRxMinTtl, allSockets, "RxMinTtl error: af=",
     [](TcpSmBase& m, int sd, bool on) {
         return m.forFamilies(
             [&](auto af) { return setSockOptRxMinTtl(af, sd, on, m.rxMinTtl()); });
     }},
    {optionMd5Auth, beforeHandshake,
     "Md5Auth error: af=", [](TcpSmBase& m, int sd, bool on) { return m.applyMd5Auth(sd, on); }},
    {optionSockMaxSegSize, beforeHandshake, "MSS error: af=",
     [](TcpSmBase& m, int sd, bool on) {
         return setSockOptMaxSegSize(sd, on ? m.sockMaxSegSize() : uint16_t{0});
     }},
    {optionPathMtuDiscovery, allSockets, "Path MTU discovery error: af=",
     [](TcpSmBase& m, int sd, bool on) {
         return m.forFamilies([&](auto af) {
             return setSockOptPathMtuDiscovery(af, sd, on && m.pathMtuDiscovery());
         });
     }},
    {optionDontRoute, allSockets, "DontRoute error: af=",
     [](TcpSmBase& m, int sd, bool on) {
         return setSockOptDontRoute(m.af(), sd, on, m.dstIntfIfIndex());
     }},
};

TcpSmBase::TcpSmBase(TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
                     Keel::TimerWheel* timerWheel, Mox::Ptr<TcpConfigBase> tcpConfig)
    : fdEventRegistrationFactory_(fdEventRegistrationFactory),
      timerWheel_(timerWheel),
      tcpConfig_(std::move(tcpConfig)),
      configReactor_(Mox::make<ConfigReactor>(tcpConfig_, this)),
      retryTimer_(timerWheel,
                  [this] {
                      const Mox::Ptr<TcpSmBase> hold(this);
                      handleRetry();
                  }),
      timeoutTimer_(timerWheel, [this] {
          const Mox::Ptr<TcpSmBase> hold(this);
          handleTimeout();
      }) {}

TcpSmBase::~TcpSmBase() = default;

void TcpSmBase::hasNotificationActiveIs(bool active) {
    PtrInterface::hasNotificationActiveIs(active);
    if (configReactor_) {
        configReactor_->hasNotificationActiveIs(active);
    }
    // An observer of the registration may take it from the machine.
    const auto registration = fd_;
    const auto reactor = fdReactor_;
    if (!registration) {
        return;
    }
    reactor->hasNotificationActiveIs(active);
    try {
        registration->enabledIs(active);  // Else the loop would report what no reactor handles.
    } catch (const Mox::ErrnoException&) {
        hasNotificationActiveIs(false);
        throw;
    }
}

void TcpSmBase::zeroReferencesIs(bool zero) {
    if (zero) {
        try {
            moxDoZombieReactors(true);
        } catch (...) {  // The last holder lets go in a destructor, which cannot pass it on.
            MOX_TRACE(facility, 0, formatDerivedType(), ": an observer of its end has thrown");
            TcpSmBase::moxDoZombieReactors(true);
        }
    }
    PtrInterface::zeroReferencesIs(zero);
}

void TcpSmBase::moxDoZombieReactors(bool zombie) {
    if (!zombie || !configReactor_) {
        return;
    }
    initialized_ = false;
    configReactor_->notifierIs(nullptr);
    configReactor_ = nullptr;
    retryTimer_.expiryIs(Keel::TimerWheel::idle);
    timeoutTimer_.expiryIs(Keel::TimerWheel::idle);
    forgetSocket();
}

void TcpSmBase::handleRetry() {
    Mox::require(false, "Need to implement handleRetry in derived class");
}

void TcpSmBase::stopRetryTimerImpl() {
    retryTimer_.expiryIs(Keel::TimerWheel::idle);
}

void TcpSmBase::restartRetryTimerImpl(uint32_t intervalSeconds) {
    retryTimer_.expiryIs(timerWheel_->now() + intervalSeconds);
}

double TcpSmBase::retryTimerExpireTime() const {
    return retryTimer_.expiry();
}

void TcpSmBase::handleTimeout() {
    Mox::require(false, "Need to implement handleTimeout in derived class");
}

void TcpSmBase::stopTimeoutTimerImpl() {
    timeoutTimer_.expiryIs(Keel::TimerWheel::idle);
}

void TcpSmBase::startTimeoutTimerImpl() {
    timeoutTimer_.expiryIs(timerWheel_->now() + timeout());
}

double TcpSmBase::timeoutTimerExpireTime() const {
    return timeoutTimer_.expiry();
}

Mox::String TcpSmBase::formatDerivedType() const {
    return "TcpSmBase";
}

AddressFamily TcpSmBase::af() const {
    Mox::require(false, "must be implemented by derived type");
    return ipunknown;
}

void TcpSmBase::handleInitialized() {
    Mox::require(false, "Need to implement handleInitialized in derived class");
}

int TcpSmBase::applySocketOptions(int sd, SdType sdType) {
    const bool modifying = sdType != sdAccepted;
    const TcpSocketOptions wanted = options();
    for (const OptionStep& step : optionSteps) {
        const bool enabled = wanted.option(step.option);
        const bool disabled = modifying && lastOptionsApplied_.option(step.option);
        if ((step.sockets >> sdType & 1) == 0 || (!enabled && !disabled)) {
            continue;
        }
        const int result = step.apply(*this, sd, enabled);
        if (result != 0) {
            const int error = errno;
            MOX_TRACE(facility, 0, step.errorText, af(), " sd=", sd, " errno=", error);
            return result;
        }
    }
    if (modifying) {
        lastOptionsApplied_ = wanted;
    }
    return 0;
}

int TcpSmBase::applyMd5Auth(int sd, bool enabled) {
    if (!tcpConfig_) {
        return 0;
    }
    for (const auto& [peer, key] : tcpConfig_->md5Auth()) {
        Mox::require(!enabled || !key.empty(), "!key.empty()");
        const bool isMapped = takesIp4_ && peer.af() == ipv4;
        if (peer.af() != af() && !isMapped) {
            MOX_TRACE(facility, 2, formatDerivedType(), ": MD5 key of another family: ", peer);
            continue;
        }
        const int result = setSockMd5AuthOption(sd, isMapped ? v4MappedPeer(peer) : peer,
                                                enabled ? key : Mox::String());
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

const char* TcpSmBase::ignoredKeysText() {
    static constexpr char text[] = "keys in md5Auth are ignored while optionMd5Auth is off";
    const bool isIgnored =
        tcpConfig_ && !options().option(optionMd5Auth) && tcpConfig_->md5Auth().members() != 0;
    if (isIgnored && !hasTracedIgnoredKeys_) {
        MOX_TRACE(facility, 0, formatDerivedType(), ": ", text);
    }
    hasTracedIgnoredKeys_ = isIgnored;
    return isIgnored ? text : "";
}

void TcpSmBase::handleSocketOptions() {
    Mox::require(false, "Need to implement in derived class");
}

void TcpSmBase::handleSocketMd5AuthOption(IpGenAddrWithMask) {
    Mox::require(false, "Need to implement in derived class");
}

// It runs through all attempts of one effort, hence only where it does not run yet. A time-out that
// is negative or no number counts as none.
void TcpSmBase::startTimeoutTimer() {
    if (timeout() > 0 && timeoutTimerExpireTime() == Keel::TimerWheel::idle) {
        startTimeoutTimerImpl();
    }
}

void TcpSmBase::initializedIs() {
    initialized_ = true;
    handleInitialized();
}

NamespaceName TcpSmBase::networkNamespace() const {
    return tcpConfig_ ? tcpConfig_->networkNamespace() : NamespaceName();
}

uint32_t TcpSmBase::retryInterval() const {
    return tcpConfig_ ? tcpConfig_->retryInterval() : 0;
}

double TcpSmBase::timeout() const {
    return tcpConfig_ ? tcpConfig_->timeout() : 0;
}

TcpSocketOptions TcpSmBase::options() const {
    return tcpConfig_ ? tcpConfig_->options() : TcpSocketOptions();
}

IpTtl TcpSmBase::txTtl() const {
    return tcpConfig_ ? tcpConfig_->txTtl() : IpTtl();
}

IpDscp TcpSmBase::txDs() const {
    return tcpConfig_ ? tcpConfig_->txDs() : IpDscp();
}

IpTtl TcpSmBase::rxMinTtl() const {
    return tcpConfig_ ? tcpConfig_->rxMinTtl() : IpTtl();
}

Mox::String TcpSmBase::md5Auth(const IpGenAddrWithMask& addrWithMask) const {
    return tcpConfig_ ? tcpConfig_->md5Auth(addrWithMask) : Mox::String();
}

uint16_t TcpSmBase::sockMaxSegSize() const {
    return tcpConfig_ ? tcpConfig_->sockMaxSegSize() : uint16_t{0};
}

bool TcpSmBase::pathMtuDiscovery() const {
    return tcpConfig_ && tcpConfig_->pathMtuDiscovery();
}

uint32_t TcpSmBase::dstIntfIfIndex() const {
    return tcpConfig_ ? tcpConfig_->dstIntfIfIndex() : 0;
}

bool TcpSmBase::edgeTriggeredFileDescriptor() const {
    return tcpConfig_ && tcpConfig_->edgeTriggeredFileDescriptor();
}

void TcpSmBase::publish(TcpStatusPublisherBase* publisher, const std::function<void()>& changes) {
    if (publisher->isChanging()) {
        changes();
        return;
    }
    const Mox::Ptr<TcpSmBase> hold(this);
    // An attempt lasts until it is published, also where an observer throws.
    const struct Restored {
        ~Restored() { flag = value; }
        bool& flag;
        bool value;
    } restored{isAttempting_, isAttempting_};
    publisher->publish(changes);
}

void TcpSmBase::makeAttempt(const std::function<void()>& attempt,
                            const std::function<void()>& planRetry) {
    if (!isAttempting_) {
        isAttempting_ = true;
        attempt();
    } else if (retryTimerExpireTime() == Keel::TimerWheel::idle) {
        planRetry();
    }
}

std::optional<TcpSmBase::Failure> TcpSmBase::openSocket(
    bool edgeTriggered, bool forWriting, const std::function<const char*(int)>& setUp,
    std::function<void()> handler) {
    const auto socket = TcpFileDescriptor::socket(af(), networkNamespace(), edgeTriggered);
    if (!socket) {
        return Failure{"Socket", errno};
    }
    const char* const failed = setUp(socket->descriptor());
    if (failed != nullptr) {
        return Failure{failed, errno};  // Taken before the descriptor is closed.
    }
    if (!registerSocket(socket, forWriting, std::move(handler))) {
        return Failure{"Socket", errno};
    }
    return std::nullopt;
}

// False with `errno` set when the event loop cannot watch the socket.
bool TcpSmBase::registerSocket(const Mox::Ptr<TcpFileDescriptor>& fd, bool forWriting,
                               std::function<void()> handler) {
    using Registration = TcpFileDescriptorEventRegistration;
    try {
        const auto registration = fdEventRegistrationFactory_->createEventRegistration(fd);
        fdReactor_ = Mox::make<FdReactor>(
            registration,
            forWriting ? Registration::writableCountAttr : Registration::readableCountAttr, this,
            std::move(handler));
        fd_ = registration;
        if (forWriting) {
            registration->notifyOnWritableIs(true);
        } else {
            registration->notifyOnReadableIs(true);
        }
        fdReactor_->hasNotificationActiveIs(hasNotificationActive());
        registration->enabledIs(hasNotificationActive());
        return true;
    } catch (const Mox::ErrnoException& error) {
        errno = error.errnoValue();
        return false;
    }
}

void TcpSmBase::fdDel(const char* traceText) {
    const auto registration = std::exchange(fd_, nullptr);
    if (!registration) {
        return;
    }
    MOX_TRACE(facility, 5, formatDerivedType(), ": ", traceText, " ",
              registration->fileDescriptor()->descriptor());
    std::exchange(fdReactor_, nullptr)->notifierIs(nullptr);
    registration->handleDel();  // Takes the interest out of the loop before the number can close.
}

void TcpSmBase::forgetSocket(const char* traceText) {
    lastOptionsApplied_ = TcpSocketOptions();
    fdDel(traceText);
}

}  // namespace Pavo
