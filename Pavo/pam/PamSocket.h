/// @file
/// The descriptor of an endpoint, and when it is reported.
#pragma once

#include <utility>

#include "Mox/FileDescriptor.h"
#include "Mox/Ptr.h"
#include "Mox/Trace.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/PamFdSm.h"

namespace Pavo {

class Pam;
class PamClientSm;
class PamMuxPam;

/// The descriptor of an endpoint while it is enabled, with the machine that increments the
/// endpoint's counts. Every endpoint that reads from a descriptor has one as a member, which closes
/// the descriptor when it dies. In a test the packets may come from a client of a `PamMux` instead.
///
/// Each attempt to read reports how it ended, before observers are notified of its result. After
/// the first failure in a row the endpoint is reported readable once more, since packets may wait
/// that came after an error which the kernel reports once; after the second one only at the next
/// event of the descriptor. So no failure keeps the loop busy, and no endpoint stops being
/// reported.
class PAVO_EXPORT PamSocket {
  public:
    /// How an attempt to read ended: with packets, with none there (EAGAIN), or with none for
    /// another reason, also before the kernel was asked.
    enum class ReadEnd { packets, empty, failed };

    PamSocket();
    /// Closes; what an observer of the descriptor throws is traced.
    ~PamSocket();
    PamSocket(const PamSocket&) = delete;
    PamSocket& operator=(const PamSocket&) = delete;

    /// The watched descriptor and the machine that watches it; null while there is none.
    /// @{
    const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const { return fileDesc_; }
    const Mox::Ptr<PamFdSm>& fdSm() const { return fdSm_; }
    /// @}
    /// Whether there is a descriptor.
    bool isOpen() const { return fileDesc_ != nullptr; }
    /// The number of the descriptor.
    /// @pre open.
    int number() const { return fileDesc_->descriptor(); }

    /// Holds a descriptor that is not watched yet.
    void fileDescIs(Mox::Ptr<Mox::FileDescriptor> fd) { fileDesc_ = std::move(fd); }
    /// Takes a client in place of a descriptor.
    void clientIs(Mox::Ptr<PamMuxPam> client);
    /// Makes the machine for `pam`, unless there is one, or nothing to watch. It increments both
    /// counts at once; observers of these may close the descriptor or open another.
    void watchFor(Pam* pam);
    /// Ends the watching, and closes the descriptor or drops the client.
    void close();
    /// From now on descriptors are closed with `deferClose`, since their close may block.
    void closesLaterIs() { closesLater_ = true; }

    /// For every attempt to read.
    void readEnded(ReadEnd end);
    /// The same from the `errno` of a system call; 0 when it took packets.
    void readEnded(int error);
    /// After a change that may let a read succeed: reports again where reads have failed, since
    /// packets may wait of which no event will come.
    void readIsPossibleAgain();

  private:
    Mox::Ptr<Mox::FileDescriptor> giveUp();
    void readTried(bool reportsAgain);

    Mox::Ptr<Mox::FileDescriptor> fileDesc_;
    Mox::Ptr<PamFdSm> fdSm_;
    Mox::Ptr<PamMuxPam> client_;
    Mox::Ptr<PamClientSm> clientSm_;
    bool lastReadFailed_ = false;
    bool closesLater_ = false;
};

/// A send on `fd` found no room: room is reported once, as soon as there is some. Traffic does not
/// throw, so where the kernel refuses to watch, that is only traced.
PAVO_EXPORT void waitForRoom(const Mox::Ptr<Mox::FileDescriptor>& fd,
                             const Mox::TraceFacility& trace);

/// Whether an `errno` of a send says that there was no room. A socket whose headers the kernel adds
/// reports a full send buffer as ENOBUFS.
PAVO_EXPORT bool isNoRoom(int error);

}  // namespace Pavo
