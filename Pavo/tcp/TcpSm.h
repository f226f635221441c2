/// @file
/// What the machines of both ends of a TCP connection have in common.
#pragma once

#include <cstdint>
#include <functional>

#include "Keel/TimerWheel.h"
#include "Mox/Entity.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/tcp/TcpConfig.h"
#include "Pavo/tcp/TcpFd.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrWithMask.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// The base of the machines: a reactor on a configuration, with a retry timer, an overall time-out,
/// the registration of the one socket that it works on, and the application of socket options.
///
/// It holds its configuration, registration and registration factory; nothing of these holds it.
/// Nothing it does throws because a system call failed. Everything runs on the thread of the event
/// loop, and whatever it calls may call it back, or drop it.
class PAVO_EXPORT TcpSmBase : public Mox::Described<TcpSmBase> {
  public:
    /// Which socket options are applied to.
    enum SdType : uint32_t {
        sdListening = 0,
        sdAccepted = 1,  ///< It inherits from its listener, and nothing is taken back from it.
        sdConnecting = 2,
        sdEstablished = 3,  ///< Keys and segment size were settled by the handshake.
    };

    static constexpr auto description() { return Mox::classRecord("Pavo::TcpSmBase"); }

    /// Switched off, it hears nothing of its configuration and its socket; timers go on.
    void hasNotificationActiveIs(bool active) override;
    void zeroReferencesIs(bool zero) override;
    /// The retry timer has expired. The base fails with the assertion "Need to implement
    /// handleRetry in derived class".
    virtual void handleRetry();
    virtual void stopRetryTimerImpl();
    /// Arms the retry timer for `intervalSeconds` from now.
    virtual void restartRetryTimerImpl(uint32_t intervalSeconds);
    /// +infinity while idle.
    virtual double retryTimerExpireTime() const;
    /// The overall time-out has expired. The base fails with the assertion "Need to implement
    /// handleTimeout in derived class".
    virtual void handleTimeout();
    virtual void stopTimeoutTimerImpl();
    /// Arms the overall time-out for `timeout()` seconds from now.
    virtual void startTimeoutTimerImpl();
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
    /// With true, takes the machine out of use: no reactor and no timer calls it any more.
    virtual void moxDoZombieReactors(bool zombie);

    /// Starts the overall time-out, unless it runs already or none is configured.
    void startTimeoutTimer();
    void stopTimeoutTimer() { stopTimeoutTimerImpl(); }

    const Mox::Ptr<TcpConfigBase>& tcpConfig() const { return tcpConfig_; }
    const Mox::Ptr<TcpFileDescriptorEventRegistrationFactory>& fdEventRegistrationFactory() const {
        return fdEventRegistrationFactory_;
    }
    Keel::TimerWheel* timerWheel() const { return timerWheel_; }
    const Keel::Timer& retryTimer() const { return retryTimer_; }
    const Keel::Timer& timeoutTimer() const { return timeoutTimer_; }
    /// The registration of the socket that is listening, or connecting; null when there is none.
    const Mox::Ptr<TcpFileDescriptorEventRegistration>& fd() const { return fd_; }
    /// Retries since the owner's start, or since the last connection.
    uint32_t retryTimes() const { return retryTimes_; }
    bool initialized() const { return initialized_; }
    /// Lets the options of the next accepted connection fail, once.
    bool failApplySocketOptionsInTest() const { return failApplySocketOptionsInTest_; }
    void failApplySocketOptionsInTestIs(bool fail) { failApplySocketOptionsInTest_ = fail; }
    /// What the machine's own socket carries.
    TcpSocketOptions lastOptionsApplied() const { return lastOptionsApplied_; }

    // The configuration read through; the default value of the type without one.

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

    /// For factories, once: lets the machine work, and calls `handleInitialized`.
    void initializedIs();

  protected:
    /// A start under way. One that is asked for meanwhile, by an observer of what the first one
    /// does, is put off: where starts fail at once they would nest without end.
    class Start {
      public:
        explicit Start(TcpSmBase* machine) : machine_(machine), isNested_(machine->starting_) {
            (isNested_ ? machine->startAsked_ : machine->starting_) = true;
        }
        Start(const Start&) = delete;
        Start& operator=(const Start&) = delete;
        ~Start() {
            if (!isNested_) {
                machine_->starting_ = false;
                machine_->startAsked_ = false;
            }
        }
        bool isNested() const { return isNested_; }

      private:
        TcpSmBase* machine_;
        bool isNested_;
    };

    TcpSmBase(TcpFileDescriptorEventRegistrationFactory* fdEventRegistrationFactory,
              Keel::TimerWheel* timerWheel, Mox::Ptr<TcpConfigBase> tcpConfig);
    ~TcpSmBase() override;

    /// An observer has asked for a start during the one under way, which has led to nothing.
    bool isStartOwed() const;
    /// A stop takes the wish for a start back.
    void startAskedDel() { startAsked_ = false; }

    bool edgeTriggeredFileDescriptor() const;
    void retryTimesIs(uint32_t times) { retryTimes_ = times; }

    /// Registers `fd` for room to write, or for data, and calls `handler` on each event. False with
    /// `errno` set when the event loop cannot watch it; the socket is then to be forgotten.
    bool fdIs(const Mox::Ptr<TcpFileDescriptor>& fd, bool writable, std::function<void()> handler);
    /// Disables the registration and drops it; `traceText` says so.
    void fdDel(const char* traceText = "Disabling fd");
    /// The same, and nothing is applied to a socket any more.
    void forgetSocket(const char* traceText = "Disabling fd");
    /// A number for the machine's present course. Whoever tells observers something looks
    /// afterwards whether it is still the same: they may have stopped the machine, or started it
    /// anew.
    uint32_t course() const { return course_; }
    uint32_t courseInc() { return ++course_; }

  private:
    class ConfigReactor;
    class FdReactor;
    struct OptionStep;

    static const OptionStep optionSteps[];

    int applyMd5Auth(int sd, bool enabled);

    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdEventRegistrationFactory_;
    Keel::TimerWheel* timerWheel_;
    Mox::Ptr<TcpConfigBase> tcpConfig_;
    Mox::Ptr<Mox::Notifiee> configReactor_;
    Keel::Timer retryTimer_;
    Keel::Timer timeoutTimer_;
    Mox::Ptr<TcpFileDescriptorEventRegistration> fd_;
    Mox::Ptr<Mox::Notifiee> fdReactor_;
    uint32_t retryTimes_ = 0;
    uint32_t course_ = 0;
    bool initialized_ = false;
    bool starting_ = false;
    bool startAsked_ = false;
    bool failApplySocketOptionsInTest_ = false;
    TcpSocketOptions lastOptionsApplied_;
};

}  // namespace Pavo
