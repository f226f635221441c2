/// @file
/// Sockets and devices that packets are read from and written to directly, without an endpoint
/// around them.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "Mox/FileDescriptor.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"

namespace Pavo {

/// The base of packet sockets. It owns the descriptor, which is non-blocking. Failures are thrown;
/// only a lack of data or of room is not an error. To be notified of readiness, observe
/// `fileDescriptor()`, and after a send that found no room call its `writeMetNoRoom()`.
///
/// A read that fails is reported as readable once more, since packets may wait after a pending
/// error. When the next read fails too, the descriptor is readable again at the kernel's next event
/// only: an error that stays, such as EBADFD of a deleted tap device, does not keep the loop busy.
class PAVO_EXPORT PktSocket : public Mox::Described<PktSocket> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::PktSocket"); }

    /// Sends one packet. Returns the bytes sent, or -1 with `errno` EAGAIN when there was no room:
    /// the packet is then not sent.
    /// @throws Mox::ErrnoException "sendmsg" for any other error, after writing "error sending
    /// pkt:", the error's number and its text to standard error.
    virtual int32_t sendPkt(Mox::Ptr<Pkt> pkt, sockaddr_in dest);
    /// Reads one packet of at most 1536 bytes, the size of a packet's buffer; the kernel cuts a
    /// longer one off there. Null when there is none. `from`, unless null, is set to the first 16
    /// bytes of the sender's address. An interrupted read is fatal, since a non-blocking descriptor
    /// has none: "(*__errno_location ()) != 4"; so is a descriptor that is not non-blocking:
    /// "fileDescriptor_->nonBlocking()".
    /// @throws Mox::ErrnoException "recvfrom", after writing " error is  ", the error's number and
    /// its text to standard error.
    /// @throws Mox::InternalException "read from tap socket returned 0", for any kind of socket.
    /// @throws Mox::MemoryException "Unable to allocate Pkt".
    virtual Mox::Ptr<Pkt> recvPkt(sockaddr_in* from);

    /// The system calls of the two; -1 with `errno` on failure.
    /// @{
    virtual int32_t recvfrom(int fd, void* buf, uint32_t len, int flags, sockaddr* from,
                             uint32_t* fromLen);
    virtual int32_t sendmsg(Mox::Ptr<Pkt> pkt, sockaddr_in dest);
    /// @}

    /// As it was made with.
    const Mox::String& name() const { return name_; }
    /// Owned by the socket; null in one that is not open.
    const Mox::Ptr<Mox::FileDescriptor>& fileDescriptor() const { return fileDescriptor_; }

  protected:
    explicit PktSocket(Mox::String name);
    ~PktSocket() override;

    /// Takes the descriptor, which is not null, and makes it non-blocking.
    /// @throws Mox::ErrnoException "fcntl(F_SETFL)".
    void fileDescriptorIs(Mox::Ptr<Mox::FileDescriptor> fileDescriptor);
    /// The descriptor's number; -1 while there is none, with which system calls fail with EBADF.
    int fd() const { return fileDescriptor_ ? fileDescriptor_->descriptor() : -1; }
    /// One sendmsg(2), without flags; a null `dest` sends where the socket is bound or connected.
    int32_t sendTo(const Pkt& pkt, const void* dest, uint32_t destBytes) const;

  private:
    Mox::Ptr<Pkt> newPkt() const;
    void readEnded(bool isGood, bool isEmpty);

    Mox::String name_;
    Mox::Ptr<Mox::FileDescriptor> fileDescriptor_;
    Mox::Ptr<Pkt::Manager> pktManager_;
    bool hasReadFailed_ = false;  // The last read did.
};

/// A tap device, which is read and written as a file; addresses have no meaning here.
class PAVO_EXPORT TapPktSocket : public Mox::Described<TapPktSocket, PktSocket> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::TapPktSocket"); }

    /// On the descriptor of an open device (the kernel's networking/tuntap.rst), which it makes
    /// non-blocking.
    /// @throws Mox::ErrnoException "fcntl(F_SETFL)".
    TapPktSocket(Mox::String name, Mox::Ptr<Mox::FileDescriptor> tap);

    /// One read(2). `from` is unchanged, and its length becomes 0.
    int32_t recvfrom(int fd, void* buf, uint32_t len, int flags, sockaddr* from,
                     uint32_t* fromLen) override;
    /// One writev(2).
    int32_t sendmsg(Mox::Ptr<Pkt> pkt, sockaddr_in dest) override;

  protected:
    ~TapPktSocket() override;
};

}  // namespace Pavo
