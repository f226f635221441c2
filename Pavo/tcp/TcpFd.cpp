#include "Pavo/tcp/TcpFd.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Trace.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpFd");

int domainOf(AddressFamily af) {
    Mox::require(af == ipv4 || af == ipv6, "Unknown af");
    return af == ipv4 ? AF_INET : AF_INET6;
}

template <class T>
Mox::String printed(const T& pieces) {
    return Mox::String(std::string_view(pieces.str()));
}

}  // namespace

TcpFileDescriptor::TcpFileDescriptor(int descriptor, bool edgeTriggered)
    : descriptor_(descriptor), edgeTriggered_(edgeTriggered) {}

TcpFileDescriptor::~TcpFileDescriptor() {
    if (descriptor_ >= 0) {
        const Mox::ErrnoKeeper keeper;
        (void)close(descriptor_);  // Linux frees the number whatever it returns.
    }
}

// The object is made before the descriptor, which so has an owner as soon as it is open.
Mox::Ptr<TcpFileDescriptor> TcpFileDescriptor::socket(AddressFamily af, const NamespaceName& ns,
                                                      bool edgeTriggered) {
    const int domain = domainOf(af);
    const auto fd = tcpFileDescriptorFactory(-1, edgeTriggered);
    fd->descriptor_ = socketAt(domain, SOCK_STREAM | SOCK_NONBLOCK, 0, ns.value().c_str());
    MOX_TRACE(facility, 5, "Socket: af=", af, " networkNamespace=", ns,
              " descriptor=", fd->descriptor_, " edgeTriggered=", edgeTriggered);
    return fd->descriptor_ >= 0 ? fd : nullptr;
}

Mox::Ptr<TcpFileDescriptor> TcpFileDescriptor::socketAccept(int serverFd, AddressFamily af,
                                                            const NamespaceName& ns,
                                                            bool edgeTriggered) {
    sockaddr_in6 peer;
    socklen_t length = domainOf(af) == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    const auto fd = tcpFileDescriptorFactory(-1, edgeTriggered);
    fd->descriptor_ = accept4(serverFd, reinterpret_cast<sockaddr*>(&peer), &length,
                              SOCK_NONBLOCK | SOCK_CLOEXEC);
    MOX_TRACE(facility, 5, "Accept: serverFileDescriptor=", serverFd, " af=", af,
              " networkNamespace=", ns, " edgeTriggered=", edgeTriggered,
              " descriptor=", fd->descriptor_);
    return fd->descriptor_ >= 0 ? fd : nullptr;
}

Mox::String TcpFileDescriptor::stringValue() const {
    std::ostringstream out;
    out << "Value('Pavo::TcpFileDescriptor', ** {'descriptor': " << descriptor_
        << ", 'edgeTriggered': " << (edgeTriggered_ ? "true" : "false") << "})";
    return printed(out);
}

Mox::String valueToStrep(const Mox::Ptr<TcpFileDescriptor>& fd) {
    return fd ? fd->stringValue() : Mox::String("Value('')");
}

std::ostream& operator<<(std::ostream& out, const TcpFileDescriptor& fd) {
    return out << fd.stringValue();
}

Mox::Ptr<TcpFileDescriptor> tcpFileDescriptorFactory(int descriptor, bool edgeTriggered) {
    return Mox::make<TcpFileDescriptor>(descriptor, edgeTriggered);
}

TcpFileDescriptorEventRegistration::~TcpFileDescriptorEventRegistration() = default;

void TcpFileDescriptorEventRegistration::handleEnabled() {}

void TcpFileDescriptorEventRegistration::handleNotifyOnReadable() {}

void TcpFileDescriptorEventRegistration::handleNotifyOnWritable() {}

void TcpFileDescriptorEventRegistration::handleReadable() {
    Mox::require(enabled(), "enabled()");
    Mox::require(notifyOnReadable(), "notifyOnReadable()");
    attributeIs(readableCount_, readableCount_ + 1, readableCountAttr);
}

void TcpFileDescriptorEventRegistration::handleWritable() {
    Mox::require(enabled(), "enabled()");
    Mox::require(notifyOnWritable(), "notifyOnWritable()");
    attributeIs(writableCount_, writableCount_ + 1, writableCountAttr);
}

void TcpFileDescriptorEventRegistration::handleDel() {
    enabledIs(false);
}

void TcpFileDescriptorEventRegistration::flagIs(bool* flag, bool value, void (Self::*handler)(),
                                                const Mox::Attribute<Self>& attribute) {
    if (!changed(*flag, value)) {
        return;
    }
    try {
        (this->*handler)();
    } catch (...) {
        *flag = !value;
        throw;
    }
    notify(attribute);
}

void TcpFileDescriptorEventRegistration::enabledIs(bool enabled) {
    flagIs(&enabled_, enabled, &Self::handleEnabled, enabledAttr);
}

void TcpFileDescriptorEventRegistration::notifyOnReadableIs(bool wanted) {
    flagIs(&notifyOnReadable_, wanted, &Self::handleNotifyOnReadable, notifyOnReadableAttr);
}

void TcpFileDescriptorEventRegistration::notifyOnWritableIs(bool wanted) {
    flagIs(&notifyOnWritable_, wanted, &Self::handleNotifyOnWritable, notifyOnWritableAttr);
}

Mox::String TcpFileDescriptorEventRegistration::stringValue() const {
    std::ostringstream out;
    out << "<fd=" << fileDescriptor_->descriptor() << ";read=" << notifyOnReadable_
        << ";write=" << notifyOnWritable_ << ">";
    return printed(out);
}

std::ostream& operator<<(std::ostream& out,
                         const TcpFileDescriptorEventRegistration& registration) {
    return out << registration.stringValue();
}

TcpFileDescriptorEventRegistrationFactory::~TcpFileDescriptorEventRegistrationFactory() = default;

Mox::Ptr<TcpFileDescriptorEventRegistration>
TcpFileDescriptorEventRegistrationFactory::createEventRegistration(
    Mox::Ptr<TcpFileDescriptor> fileDescriptor) {
    return Mox::make<TcpFileDescriptorEventRegistration>(std::move(fileDescriptor));
}

TcpFileDescriptorEventRegistrationMoxc::TcpFileDescriptorEventRegistrationMoxc(
    Mox::Ptr<TcpFileDescriptor> fileDescriptor)
    : EntityOf(std::move(fileDescriptor)),
      sm_(Mox::make<TcpFileDescriptorEventRegistrationMoxcSm>(this)) {}

TcpFileDescriptorEventRegistrationMoxc::~TcpFileDescriptorEventRegistrationMoxc() = default;

void TcpFileDescriptorEventRegistrationMoxc::zeroReferencesIs(bool zero) {
    if (zero) {
        sm_->moxDoZombieReactors(true);  // The machine may be held elsewhere, and points here.
    }
    TcpFileDescriptorEventRegistration::zeroReferencesIs(zero);
}

void TcpFileDescriptorEventRegistrationMoxc::handleEnabled() {
    sm_->handleEnabled();
}

void TcpFileDescriptorEventRegistrationMoxc::handleNotifyOnReadable() {
    sm_->handleNotifyOnReadable();
}

void TcpFileDescriptorEventRegistrationMoxc::handleNotifyOnWritable() {
    sm_->handleNotifyOnWritable();
}

TcpFileDescriptorEventRegistrationMoxcSm::TcpFileDescriptorEventRegistrationMoxcSm(
    TcpFileDescriptorEventRegistrationMoxc* registration)
    : ReadinessSm(Mox::fileDescriptorFactory(registration->fileDescriptor()->descriptor(),
                                             Mox::FileDescriptor::Ownership::borrowed)),
      registration_(registration),
      fd_(notifier()) {
    fd_->watchingIs(registration->fileDescriptor()->edgeTriggered()
                        ? Mox::FileDescriptor::Watching::edge
                        : Mox::FileDescriptor::Watching::level);
}

TcpFileDescriptorEventRegistrationMoxcSm::~TcpFileDescriptorEventRegistrationMoxcSm() = default;

void TcpFileDescriptorEventRegistrationMoxcSm::moxDoZombieReactors(bool zombie) {
    if (zombie && isAttached()) {
        detach();
        fd_->descriptorRelease();  // Before the owner closes it.
    }
}

void TcpFileDescriptorEventRegistrationMoxcSm::handleEnabled() {
    try {
        handleNotifyOnReadable();
        handleNotifyOnWritable();
    } catch (...) {
        fd_->notifyOnReadableIs(false);  // The loop may watch for one of the two.
        throw;
    }
}

// A level-triggered interest that ends while the registration stays enabled is left to the next
// report. If it is switched on again before that, as for every packet, no system call is made.
void TcpFileDescriptorEventRegistrationMoxcSm::handleNotifyOnReadable() {
    const bool wanted = registration_->notifyOnReadable();
    const bool level = fd_->watching() == Mox::FileDescriptor::Watching::level;
    if (registration_->enabled() && !wanted && level) {
        return;
    }
    fd_->notifyOnReadableIs(registration_->enabled() && wanted);
}

void TcpFileDescriptorEventRegistrationMoxcSm::handleNotifyOnWritable() {
    fd_->notifyOnWritableIs(registration_->enabled() && registration_->notifyOnWritable());
}

void TcpFileDescriptorEventRegistrationMoxcSm::handleReadable() {
    if (!registration_->notifyOnReadable()) {
        fd_->notifyOnReadableIs(false);
        return;
    }
    registration_->handleReadable();
}

// The loop reports only what there is interest in.
void TcpFileDescriptorEventRegistrationMoxcSm::handleWritable() {
    registration_->handleWritable();
}

Mox::Ptr<TcpFileDescriptorEventRegistration>
TcpFileDescriptorEventRegistrationFactoryMoxc::createEventRegistration(
    Mox::Ptr<TcpFileDescriptor> fileDescriptor) {
    return Mox::make<TcpFileDescriptorEventRegistrationMoxc>(std::move(fileDescriptor));
}

Mox::Ptr<TcpFileDescriptorEventRegistrationFactoryMoxc>
tcpFileDescriptorEventRegistrationFactoryMoxcFactory() {
    return Mox::make<TcpFileDescriptorEventRegistrationFactoryMoxc>();
}

}  // namespace Pavo
