/// @file
/// TCP descriptors, and registrations for their readiness.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "Mox/Entity.h"
#include "Mox/FileDescriptor.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/ReadinessSm.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// One TCP descriptor. Those opened here are non-blocking and close-on-exec. It is shared by all
/// that work on the stream, and closed with the last reference.
class PAVO_EXPORT TcpFileDescriptor : public Mox::Described<TcpFileDescriptor> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::TcpFileDescriptor"); }

    /// Takes ownership of an open descriptor, and changes no flag of it.
    TcpFileDescriptor(int descriptor, bool edgeTriggered);

    /// Opens a TCP socket in the namespace `ns`; null with `errno` set on failure. A family other
    /// than IPv4 and IPv6 is refused with the assertion "Unknown af".
    static Mox::Ptr<TcpFileDescriptor> socket(AddressFamily af, const NamespaceName& ns,
                                              bool edgeTriggered);
    /// Accepts a connection on a listening socket of the family `af`, which is refused as above;
    /// null with `errno` set (EAGAIN when there is none) on failure. The namespace is only for the
    /// trace: the connection is in the namespace of its listener.
    static Mox::Ptr<TcpFileDescriptor> socketAccept(int serverFd, AddressFamily af,
                                                    const NamespaceName& ns, bool edgeTriggered);

    /// The number, for system calls; this object closes it.
    int descriptor() const { return descriptor_; }
    /// Whether readiness is reported edge-triggered, or else level-triggered (epoll(7)).
    bool edgeTriggered() const { return edgeTriggered_; }

    /// "Value('Pavo::TcpFileDescriptor', ** {'descriptor': %s, 'edgeTriggered': %s})"
    Mox::String stringValue() const;

  protected:
    ~TcpFileDescriptor() override;

  private:
    int descriptor_;
    bool edgeTriggered_;
};

/// The text of `stringValue`; "Value('')" for null.
PAVO_EXPORT Mox::String valueToStrep(const Mox::Ptr<TcpFileDescriptor>& fd);
PAVO_EXPORT std::ostream& operator<<(std::ostream& out, const TcpFileDescriptor& fd);

/// A new handle that owns `descriptor`.
PAVO_EXPORT Mox::Ptr<TcpFileDescriptor> tcpFileDescriptorFactory(int descriptor,
                                                                 bool edgeTriggered);

/// An owner's interest in the readiness of a descriptor, and the counts of its events, of which the
/// owner observes `readableCount` and `writableCount`. It is created disabled, without interest in
/// reading or writing. Dropping or disabling it leaves the descriptor open.
///
/// This class is not bound to an event loop: a test calls `handleReadable` and `handleWritable`. An
/// observer may, while it is notified, disable or drop the registration.
class PAVO_EXPORT TcpFileDescriptorEventRegistration
    : public Mox::EntityOf<TcpFileDescriptorEventRegistration> {
  public:
    using Self = TcpFileDescriptorEventRegistration;
    static constexpr Mox::Attribute<Self> enabledAttr{0, "enabled"};
    static constexpr Mox::Attribute<Self> notifyOnReadableAttr{1, "notifyOnReadable"};
    static constexpr Mox::Attribute<Self> notifyOnWritableAttr{2, "notifyOnWritable"};
    static constexpr Mox::Attribute<Self> readableCountAttr{3, "readableCount"};
    static constexpr Mox::Attribute<Self> writableCountAttr{4, "writableCount"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::TcpFileDescriptorEventRegistration",
            Mox::attribute(enabledAttr, &TcpFileDescriptorEventRegistration::enabled),
            Mox::attribute(notifyOnReadableAttr,
                           &TcpFileDescriptorEventRegistration::notifyOnReadable),
            Mox::attribute(notifyOnWritableAttr,
                           &TcpFileDescriptorEventRegistration::notifyOnWritable),
            Mox::attribute(readableCountAttr, &TcpFileDescriptorEventRegistration::readableCount),
            Mox::attribute(writableCountAttr, &TcpFileDescriptorEventRegistration::writableCount));
    }

    explicit TcpFileDescriptorEventRegistration(Mox::Ptr<TcpFileDescriptor> fileDescriptor)
        : fileDescriptor_(std::move(fileDescriptor)) {}

    /// Called when the attribute has changed, before any observer is notified; the base does
    /// nothing. When it throws, the attribute gets its former value again, no observer is notified,
    /// and the setter passes the exception on.
    /// @{
    virtual void handleEnabled();
    virtual void handleNotifyOnReadable();
    virtual void handleNotifyOnWritable();
    /// @}
    /// An event has come: adds one to `readableCount`, or `writableCount`.
    /// @pre enabled, with that interest (assertions "enabled()", "notifyOnReadable()",
    /// "notifyOnWritable()").
    /// @{
    virtual void handleReadable();
    virtual void handleWritable();
    /// @}
    /// Disables.
    virtual void handleDel();

    /// Shared with the registration.
    const Mox::Ptr<TcpFileDescriptor>& fileDescriptor() const { return fileDescriptor_; }
    /// Whether events are counted; at first false.
    bool enabled() const { return enabled_; }
    void enabledIs(bool enabled);
    /// Interest in data to read; at first false.
    bool notifyOnReadable() const { return notifyOnReadable_; }
    void notifyOnReadableIs(bool notify);
    /// Interest in room to write; at first false.
    bool notifyOnWritable() const { return notifyOnWritable_; }
    void notifyOnWritableIs(bool notify);
    /// Events since the registration was made.
    /// @{
    uint32_t readableCount() const { return readableCount_; }
    uint32_t writableCount() const { return writableCount_; }
    /// @}

    /// "<fd=%d;read=%d;write=%d>": the number and the two interests.
    Mox::String stringValue() const;

  protected:
    ~TcpFileDescriptorEventRegistration() override;

  private:
    void flagIs(bool* flag, bool value, void (Self::*handler)(),
                const Mox::Attribute<Self>& attribute);

    Mox::Ptr<TcpFileDescriptor> fileDescriptor_;
    bool enabled_ = false;
    bool notifyOnReadable_ = false;
    bool notifyOnWritable_ = false;
    uint32_t readableCount_ = 0;
    uint32_t writableCount_ = 0;
};

PAVO_EXPORT std::ostream& operator<<(std::ostream& out,
                                     const TcpFileDescriptorEventRegistration& registration);

/// Makes registrations; this class makes those for tests, which are not bound to an event loop.
class PAVO_EXPORT TcpFileDescriptorEventRegistrationFactory
    : public Mox::Described<TcpFileDescriptorEventRegistrationFactory> {
  public:
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TcpFileDescriptorEventRegistrationFactory");
    }

    TcpFileDescriptorEventRegistrationFactory() = default;
    ~TcpFileDescriptorEventRegistrationFactory() override;

    /// A disabled registration of the descriptor.
    virtual Mox::Ptr<TcpFileDescriptorEventRegistration> createEventRegistration(
        Mox::Ptr<TcpFileDescriptor> fileDescriptor);
};

class TcpFileDescriptorEventRegistrationMoxcSm;

/// A registration that the thread's event loop serves. Its setters throw `Mox::ErrnoException`
/// "epoll_ctl" when the loop cannot watch the descriptor; the attribute is then unchanged.
class PAVO_EXPORT TcpFileDescriptorEventRegistrationMoxc
    : public Mox::EntityOf<TcpFileDescriptorEventRegistrationMoxc,
                           TcpFileDescriptorEventRegistration> {
  public:
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TcpFileDescriptorEventRegistrationMoxc");
    }

    /// @throws Mox::ErrnoException "fcntl(F_GETFL)" for a descriptor that is not open.
    explicit TcpFileDescriptorEventRegistrationMoxc(Mox::Ptr<TcpFileDescriptor> fileDescriptor);

    void zeroReferencesIs(bool zero) override;
    void handleEnabled() override;
    void handleNotifyOnReadable() override;
    void handleNotifyOnWritable() override;

  protected:
    ~TcpFileDescriptorEventRegistrationMoxc() override;

  private:
    Mox::Ptr<TcpFileDescriptorEventRegistrationMoxcSm> sm_;
};

/// Binds a registration to the event loop's view of its descriptor, which it borrows. The loop
/// watches the descriptor, level- or edge-triggered as that says, while the registration is enabled
/// and has an interest; each report of the loop becomes an event of the registration. The
/// registration owns the machine, which points back without owning.
class PAVO_EXPORT TcpFileDescriptorEventRegistrationMoxcSm
    : public ReadinessSm<TcpFileDescriptorEventRegistrationMoxcSm, Mox::FileDescriptor> {
  public:
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TcpFileDescriptorEventRegistrationMoxcSm");
    }

    /// For the registration, which owns the machine.
    explicit TcpFileDescriptorEventRegistrationMoxcSm(
        TcpFileDescriptorEventRegistrationMoxc* registration);

    /// The attribute of the registration has changed.
    /// @{
    virtual void handleEnabled();
    virtual void handleNotifyOnReadable();
    virtual void handleNotifyOnWritable();
    /// @}
    /// The loop has reported the descriptor: an event of the registration.
    /// @{
    virtual void handleReadable();
    virtual void handleWritable();
    /// @}
    /// With true, ends all watching and detaches the inner reactor.
    virtual void moxDoZombieReactors(bool zombie);

  protected:
    ~TcpFileDescriptorEventRegistrationMoxcSm() override;

  private:
    TcpFileDescriptorEventRegistrationMoxc* registration_;
    Mox::Ptr<Mox::FileDescriptor> fd_;
};

/// Makes registrations that the thread's event loop serves.
class PAVO_EXPORT TcpFileDescriptorEventRegistrationFactoryMoxc
    : public Mox::Described<TcpFileDescriptorEventRegistrationFactoryMoxc,
                            TcpFileDescriptorEventRegistrationFactory> {
  public:
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TcpFileDescriptorEventRegistrationFactoryMoxc");
    }

    Mox::Ptr<TcpFileDescriptorEventRegistration> createEventRegistration(
        Mox::Ptr<TcpFileDescriptor> fileDescriptor) override;
};

PAVO_EXPORT Mox::Ptr<TcpFileDescriptorEventRegistrationFactoryMoxc>
tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
/// The same by a short name: what makes the registrations that the thread's event loop serves.
inline Mox::Ptr<TcpFileDescriptorEventRegistrationFactoryMoxc> loopTcpRegistrationFactory() {
    return tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
}

}  // namespace Pavo
