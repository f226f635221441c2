/// @file
/// The common part of the machines of both ends of a TCP connection.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "Keel/TimerWheel.h"
#include "Mox/Entity.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/tcp/TcpConfig.h"
#include "Pavo/tcp/TcpFd.h"
#include "Pavo/tcp/TcpStatusPublisher.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrWithMask.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// The base of the machines: a reactor on a configuration, with a retry timer, an overall time-out,
/// the registration of the one socket that it works on, and the application of socket options.
///
/// It holds its configuration, registration and registration factory; none of them holds it. A
/// system call that fails never leads to an exception. Everything runs on the thread of the event
/// loop.
///
/// **Observers.** A machine first finishes its step: descriptor, timers and all attributes of its
/// status. Then it notifies of each change, in the order in which the changes were made, and does
/// nothing more. So an observer of the status finds a machine at rest. It may call every operation
/// of the machine, change its configuration, drop it, or throw:
/// - Changes that an observer makes are notified before the remaining observers are notified of the
///   older change, so these read the newest values.
/// - A stop is final: no timer, no descriptor and no later change of the interrupted step remain.
/// - A start is made at once, except inside a notification of another start, where starts that fail
///   immediately would nest without end. There it changes nothing while an attempt is under way or
///   its retry is planned; otherwise the next attempt follows after `retryInterval`.
/// - When an observer throws, all other changes are still notified; then the first exception goes
///   to the caller of the step, which is the event loop where the loop has called. An exception
///   from a notification during the machine's destruction is traced and dropped.
class PAVO_EXPORT TcpSmBase : public Mox::Described<TcpSmBase> {
  public:
    /// Which socket options are applied to.
    enum SdType : uint32_t {
        sdListening = 0,
        sdAccepted = 1,  ///< inherits from its listener; no default is put back
        sdConnecting = 2,
        sdEstablished = 3,  ///< the handshake has settled keys and segment size
    };

    static constexpr auto description() { return Mox::classRecord("Pavo::TcpSmBase"); }

    /// Switched off, it is not notified by its configuration and its socket; timers go on.
    /// @throws Mox::ErrnoException "epoll_ctl" when the loop cannot watch the socket again; the
    /// machine is then still switched off.
    void hasNotificationActiveIs(bool active) override;
    void zeroReferencesIs(bool zero) override;
    /// The retry timer has expired. The base fails with the assertion "Need to implement
    /// handleRetry in derived class".
    virtual void handleRetry();
    /// Makes the retry timer idle.
    virtual void stopRetryTimerImpl();
    /// Arms the retry timer for `intervalSeconds` from now.
    virtual void restartRetryTimerImpl(uint32_t intervalSeconds);
    /// +infinity while idle.
    virtual double retryTimerExpireTime() const;
    /// The overall time-out has expired. The base fails with the assertion "Need to implement
    /// handleTimeout in derived class".
    virtual void handleTimeout();
    /// Makes the overall time-out idle.
    virtual void stopTimeoutTimerImpl();
    /// Arms the overall time-out for `timeout()` seconds from now.
    virtual void startTimeoutTimerImpl();
    /// In seconds of the clock; +infinity while idle.
    virtual double timeoutTimerExpireTime() const;
    /// How traces name the machine.
    virtual Mox::String formatDerivedType() const;
    /// The family of the sockets. The base fails with the assertion "must be implemented by derived
    /// type".
    virtual AddressFamily af() const;
    /// Runs once, at the end of the factory. The base fails with the assertion "Need to implement
    /// handleInitialized in derived class".
    virtual void handleInitialized();
    /// Applies to a socket the options that are on, and puts back the kernel's defaults of those
    /// that were on before, in the order of their bits up to the first that fails. 0, or -1 with
    /// `errno` as that one left it.
    virtual int applySocketOptions(int sd, SdType sdType);
    /// `options` or the value of an option has changed. The base fails with the assertion "Need to
    /// implement in derived class", as does the next.
    virtual void handleSocketOptions();
    /// The key of this peer or prefix has changed.
    virtual void handleSocketMd5AuthOption(IpGenAddrWithMask addrWithMask);
    /// With true, takes the machine out of use: it is stopped, and no reactor and no timer calls it
    /// any more.
    virtual void moxDoZombieReactors(bool zombie);

    /// Starts the overall time-out, unless it runs already or none is configured.
    void startTimeoutTimer();
    /// Makes the overall time-out idle.
    void stopTimeoutTimer() { stopTimeoutTimerImpl(); }

    /// As it was made with.
    /// @{
    const Mox::Ptr<TcpConfigBase>& tcpConfig() const { return tcpConfig_; }
    const Mox::Ptr<TcpFileDescriptorEventRegistrationFactory>& fdEventRegistrationFactory() const {
        return fdEventRegistrationFactory_;
    }
    Keel::TimerWheel* timerWheel() const { return timerWheel_; }
    /// @}
    /// The timers, to be looked at.
    /// @{
    const Keel::Timer& retryTimer() const { return retryTimer_; }
    const Keel::Timer& timeoutTimer() const { return timeoutTimer_; }
    /// @}
    /// The registration of the socket that is listening, or connecting; null when there is none.
    const Mox::Ptr<TcpFileDescriptorEventRegistration>& fd() const { return fd_; }
    /// Retries since the owner's start, or since the last connection.
    uint32_t retryTimes() const { return retryTimes_; }
    /// Set by the factory.
    bool initialized() const { return initialized_; }
    /// For tests: makes the options of the next accepted connection fail, once.
    bool failApplySocketOptionsInTest() const { return failApplySocketOptionsInTest_; }
    void failApplySocketOptionsInTestIs(bool fail) { failApplySocketOptionsInTest_ = fail; }
    /// What the machine's own socket, listening, connecting or connected, carries.
    TcpSocketOptions lastOptionsApplied() const { return lastOptionsApplied_; }

    /// Read through from the configuration; without one, the default value of the type.
    /// @{
    NamespaceName networkNamespace() const;
    uint32_t retryInterval() const;
    double timeout() const;
    TcpSocketOptions options() const;
    IpTtl txTtl() const;
    IpDscp txDs() const;
    IpTtl rxMinTtl() const;
    Mox::String md5Auth(const IpGenAddrWithMask& addrWithMask) const;
    uint16_t sockMaxSegSize() const;
    bool pathMtuDiscovery() const;
    uint32_t dstIntfIfIndex() const;
    /// @}

    /// For factories, once: lets the machine work, and calls `handleInitialized`.
    void initializedIs();

  protected:
    /// A call that failed, by its function word ("Bind"), and its `errno`.
    struct Failure {
        /// Of static storage.
        const char* function;
        /// As the call left it.
        int error;
    };

    /// `fdEventRegistrationFactory` is held, `timerWheel` is not.
    TcpSmBase(TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
              Keel::TimerWheel* timerWheel, Mox::Ptr<TcpConfigBase> tcpConfig);
    ~TcpSmBase() override;

    /// For a machine with an IPv6 socket, before options are applied to it: whether the socket
    /// takes IPv4 connections too.
    void takesIp4Is(bool takesIp4) { takesIp4_ = takesIp4; }

    /// Read through from the configuration.
    bool edgeTriggeredFileDescriptor() const;
    /// What an owner has to be told of keys that the options turn off; else empty. The first time
    /// it is traced too.
    const char* ignoredKeysText();
    /// Sets the count of retries.
    void retryTimesIs(uint32_t times) { retryTimes_ = times; }

    /// Makes the changes of `changes()` and publishes them, or adds them to those that are being
    /// made. Every operation that changes the status does it in here, so that an operation that
    /// consists of others publishes once.
    void publish(TcpStatusPublisherBase* publisher, const std::function<void()>& changes);
    /// Calls `attempt`, which tries to open a socket. Inside a notification of another attempt it
    /// calls only `planRetry`, and that only while the retry timer is idle.
    /// @pre it is called by the changes of `publish`.
    void makeAttempt(const std::function<void()>& attempt, const std::function<void()>& planRetry);
    /// Opens a socket and sets it up with `setUp(descriptor)`, which gives null or the function
    /// word of the call that failed, with `errno` set. Then registers it for room to write, or for
    /// data; each event calls `handler`. A failure may leave a registration, for `forgetSocket`.
    std::optional<Failure> openSocket(bool edgeTriggered, bool forWriting,
                                      const std::function<const char*(int)>& setUp,
                                      std::function<void()> handler);
    /// Disables the registration and drops it; `traceText` says so.
    void fdDel(const char* traceText = "Disabling fd");
    /// The same, and `lastOptionsApplied` is empty.
    void forgetSocket(const char* traceText = "Disabling fd");

  private:
    class ConfigReactor;
    class FdReactor;
    struct OptionStep;

    static const OptionStep optionSteps[];

    template <class Setter>
    int forFamilies(Setter setter) const;
    int applyMd5Auth(int sd, bool enabled);
    bool registerSocket(const Mox::Ptr<TcpFileDescriptor>& fd, bool forWriting,
                        std::function<void()> handler);

    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdEventRegistrationFactory_;
    Keel::TimerWheel* timerWheel_;
    Mox::Ptr<TcpConfigBase> tcpConfig_;
    Mox::Ptr<Mox::Notifiee> configReactor_;
    Keel::Timer retryTimer_;
    Keel::Timer timeoutTimer_;
    Mox::Ptr<TcpFileDescriptorEventRegistration> fd_;
    Mox::Ptr<Mox::Notifiee> fdReactor_;
    uint32_t retryTimes_ = 0;
    bool initialized_ = false;
    bool takesIp4_ = false;
    bool hasTracedIgnoredKeys_ = false;
    bool isAttempting_ = false;  // Until the attempt has been published.
    bool failApplySocketOptionsInTest_ = false;
    TcpSocketOptions lastOptionsApplied_;
};

}  // namespace Pavo
