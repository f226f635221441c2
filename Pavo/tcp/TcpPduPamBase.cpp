#include "Pavo/tcp/TcpPduPamBase.h"

#include <utility>

#include "Mox/Exception.h"

namespace Pavo {

TcpPduPamBase::TcpPduPamBase(Mox::String name, Mox::Ptr<TcpFileDescriptor> fileDescriptor,
                             Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory)
    : EntityOf(std::move(name)),
      fileDescriptor_(std::move(fileDescriptor)),
      fdFactory_(std::move(fdFactory)),
      fd_(fdFactory_->createEventRegistration(fileDescriptor_)),
      tcpPduFdSm_(Mox::make<TcpPduFdSm>(fd_, this)) {}

TcpPduPamBase::~TcpPduPamBase() {
    fdDel();
}

void TcpPduPamBase::zeroReferencesIs(bool zero) {
    if (zero) {
        fdDel();
    }
    Pam::zeroReferencesIs(zero);
}

void TcpPduPamBase::handleSocketReadable() {
    attributeIs(socketReadableCount_, socketReadableCount_ + 1, socketReadableCountAttr);
}

void TcpPduPamBase::handleSocketWritable() {
    attributeIs(socketWritableCount_, socketWritableCount_ + 1, socketWritableCountAttr);
}

void TcpPduPamBase::fdDel() {
    if (const auto machine = std::exchange(tcpPduFdSm_, nullptr)) {
        machine->moxDoZombieReactors(true);  // The machine may be held elsewhere, and points here.
    }
    if (const auto registration = std::exchange(fd_, nullptr)) {
        registration->handleDel();
    }
}

int TcpPduPamBase::fdFlagIs(bool (TcpFileDescriptorEventRegistration::*flag)() const,
                            void (TcpFileDescriptorEventRegistration::*flagIs)(bool), bool value) {
    TcpFileDescriptorEventRegistration& registration = *fd_;
    if ((registration.*flag)() == value) {
        return 0;
    }
    try {
        (registration.*flagIs)(value);
    } catch (const Mox::ErrnoException& exception) {
        if ((registration.*flag)() == value) {
            throw;  // The loop watches: an observer has thrown.
        }
        return exception.errnoValue();
    }
    return 0;
}

TcpPduFdSm::TcpPduFdSm(Mox::Ptr<TcpFileDescriptorEventRegistration> fd, TcpPduPamBase* pam)
    : ReadinessSm(fd), pam_(pam) {}

TcpPduFdSm::~TcpPduFdSm() = default;

void TcpPduFdSm::moxDoZombieReactors(bool zombie) {
    if (zombie) {
        detach();
    }
}

void TcpPduFdSm::handleReadable() {
    pam_->handleSocketReadable();
}

void TcpPduFdSm::handleWritable() {
    pam_->handleSocketWritable();
}

}  // namespace Pavo
