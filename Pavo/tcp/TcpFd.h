/// @file
/// TCP descriptors, and who wants to hear of their readiness.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "Mox/Entity.h"
#include "Mox/FileDescriptor.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// One TCP descriptor, non-blocking and close-on-exec from birth. It is shared by whoever works on
/// the stream, and closed when the last of them lets go.
class PAVO_EXPORT TcpFileDescriptor : public Mox::Described<TcpFileDescriptor> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::TcpFileDescriptor"); }

    /// Takes over a descriptor that somebody else opened, as it is.
    TcpFileDescriptor(int descriptor, bool edgeTriggered);

    /// Opens a TCP socket in the namespace `ns`; null with `errno` set on failure. A family other
    /// than IPv4 and IPv6 is refused with the assertion "Unknown af".
    static Mox::Ptr<TcpFileDescriptor> socket(AddressFamily af, const NamespaceName& ns,
                                              bool edgeTriggered);
    /// Accepts a connection on a listening socket of the family `af`, which is refused as above;
    /// null with `errno` set (EAGAIN when there is none) on failure. The namespace is for the
    /// trace: the connection lives where its listener does.
    static Mox::Ptr<TcpFileDescriptor> socketAccept(int serverFd, AddressFamily af,
                                                    const NamespaceName& ns, bool edgeTriggered);

    int descriptor() const { return descriptor_; }
    /// How readiness is watched: when it comes, or as long as it lasts.
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

/// Says whether and for what the owner wants to hear of a descriptor, and counts the events: an
/// owner watches `readableCount` and `writableCount`. It is born disabled, with both kinds of
/// interest off. Dropping or disabling it leaves the descriptor open.
///
/// This one is bound to nothing: a test calls `handleReadable` and `handleWritable` by hand. An
/// observer may, while it is told, disable or drop the registration.
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

    /// Called when the attribute has changed, before any observer; the base does nothing.
    virtual void handleEnabled();
    virtual void handleNotifyOnReadable();
    virtual void handleNotifyOnWritable();
    /// An event has come: adds one to `readableCount`, or `writableCount`.
    /// @pre enabled, and interested (assertions "enabled()", "notifyOnReadable()",
    /// "notifyOnWritable()").
    virtual void handleReadable();
    virtual void handleWritable();
    /// Disables.
    virtual void handleDel();

    const Mox::Ptr<TcpFileDescriptor>& fileDescriptor() const { return fileDescriptor_; }
    bool enabled() const { return enabled_; }
    void enabledIs(bool enabled);
    bool notifyOnReadable() const { return notifyOnReadable_; }
    void notifyOnReadableIs(bool notify);
    bool notifyOnWritable() const { return notifyOnWritable_; }
    void notifyOnWritableIs(bool notify);
    uint32_t readableCount() const { return readableCount_; }
    uint32_t writableCount() const { return writableCount_; }

    /// "<fd=%d;read=%d;write=%d>": the number and the two interests.
    Mox::String stringValue() const;

  protected:
    ~TcpFileDescriptorEventRegistration() override;

  private:
    Mox::Ptr<TcpFileDescriptor> fileDescriptor_;
    bool enabled_ = false;
    bool notifyOnReadable_ = false;
    bool notifyOnWritable_ = false;
    uint32_t readableCount_ = 0;
    uint32_t writableCount_ = 0;
};

PAVO_EXPORT std::ostream& operator<<(std::ostream& out,
                                     const TcpFileDescriptorEventRegistration& registration);

/// Makes registrations; this one those for tests, bound to nothing.
class PAVO_EXPORT TcpFileDescriptorEventRegistrationFactory
    : public Mox::Described<TcpFileDescriptorEventRegistrationFactory> {
  public:
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TcpFileDescriptorEventRegistrationFactory");
    }

    TcpFileDescriptorEventRegistrationFactory() = default;
    ~TcpFileDescriptorEventRegistrationFactory() override;

    virtual Mox::Ptr<TcpFileDescriptorEventRegistration> createEventRegistration(
        Mox::Ptr<TcpFileDescriptor> fileDescriptor);
};

class TcpFileDescriptorEventRegistrationMoxcSm;

/// A registration that the thread's event loop serves.
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

/// Binds a registration to the event loop's view of its descriptor, which it borrows: there is
/// interest in the loop while the registration is enabled and wants to hear, level- or
/// edge-triggered as the descriptor says, and each readiness event becomes one of the
/// registration's. The registration owns it; it points back without owning.
class PAVO_EXPORT TcpFileDescriptorEventRegistrationMoxcSm
    : public Mox::Described<TcpFileDescriptorEventRegistrationMoxcSm> {
  public:
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TcpFileDescriptorEventRegistrationMoxcSm");
    }

    explicit TcpFileDescriptorEventRegistrationMoxcSm(
        TcpFileDescriptorEventRegistrationMoxc* registration);

    void zeroReferencesIs(bool zero) override;

    virtual void handleEnabled();
    virtual void handleNotifyOnReadable();
    virtual void handleNotifyOnWritable();
    virtual void handleReadable();
    virtual void handleWritable();
    /// With true, takes all interest off and detaches the inner reactor.
    virtual void moxDoZombieReactors(bool zombie);

  protected:
    ~TcpFileDescriptorEventRegistrationMoxcSm() override;

  private:
    TcpFileDescriptorEventRegistrationMoxc* registration_;
    Mox::Ptr<Mox::FileDescriptor> fd_;
    Mox::Ptr<Mox::Notifiee> reactor_;
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

}  // namespace Pavo
