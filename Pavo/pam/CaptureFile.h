/// @file
/// Capture files in the pcapng format (draft-ietf-opsawg-pcapng), which tshark(1) and others read.
#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"

namespace Pavo {

/// The header that the packets of an interface begin with (the registry of LINKTYPE values).
enum class CaptureLinkType : uint16_t {
    ethernet = 1,   ///< An Ethernet header, without preamble and checksum.
    rawIp = 101,    ///< An IPv4 or IPv6 header.
    user0 = 147,    ///< A format that sender and reader agree on.
    netlink = 253,  ///< The header of 16 bytes that a device nlmon adds, then netlink messages.
};

/// The direction of a packet, with the values of pcapng.
enum class CaptureDirection : uint32_t {
    inbound = 1,
    outbound = 2,
};

/// A file of packets with their interfaces, directions and times in nanoseconds.
///
/// A thread of its own writes, so that the caller never waits for a disk. A packet that does not
/// fit into the queue or into the file is dropped and counted. A failed write is counted together
/// with its packets; the file is then cut back to its last whole block, and later packets are
/// written again. The writer waits at most 20 ms for more packets to write together.
///
/// Use it only on the thread of the event loop. A child of fork(2) has no
/// writing thread and must not use the object.
class PAVO_EXPORT CaptureFile final : public Mox::Described<CaptureFile> {
  public:
    /// The largest sizes of the file and of the queue, in bytes.
    ///
    /// Members: 100 MiB and 4 MiB by default.
    struct Limits {
        uint64_t fileBytes = 100 << 20;
        uint32_t queueBytes = 4 << 20;
    };
    /// Counts since the file was created.
    struct Stats {
        uint64_t packets = 0;      ///< Queued, and written unless counted as lost.
        uint64_t drops = 0;        ///< Not queued: no room in the queue or the file.
        uint64_t lost = 0;         ///< Queued, but not written.
        uint32_t writeErrors = 0;  ///< Writes that failed.
        int32_t writeErrno = 0;    ///< The `errno` of the last failed write.
    };
    /// A part of a packet.
    ///
    /// Members: its first byte, and how many there are.
    struct Piece {
        const uint8_t* data;
        uint32_t bytes;
    };

    static constexpr auto description() { return Mox::classRecord("Pavo::CaptureFile"); }

    /// The most bytes of a packet that the file holds; tshark refuses files with more.
    static constexpr uint32_t maxPktBytes = 262144;

    /// Creates a regular file with mode 0600. An existing regular file is emptied and gets this
    /// mode too; a process that has it open already can still read it, so put captures of secrets
    /// into a new file. A symbolic link is not followed.
    /// @throws Mox::ErrnoException "open(<path>)", with ELOOP for a symbolic link, EPERM for an
    /// existing file of another user or with another hard link; the file is then unchanged.
    /// "write(<path>)"; "pthread_create".
    /// @throws std::bad_alloc, std::length_error for queues that do not fit into memory.
    /// Above RLIMIT_FSIZE the kernel sends SIGXFSZ to the caller of this and of `newInterface`: an
    /// agent that sets this limit ignores the signal.
    CaptureFile(const Mox::String& path, Limits limits);

    /// Adds an interface and returns its number. Writes at once, waiting for the file; the block
    /// counts towards the file's size, but is written even above the limit.
    /// @throws Mox::ErrnoException "write(<path>)"; the file is then unchanged.
    uint32_t newInterface(const Mox::String& name, CaptureLinkType linkType);

    /// Queues a packet, given as pieces in order, with the time of the call. Of a packet longer
    /// than `maxPktBytes` the first bytes and the length are kept. Never waits.
    void pktIs(uint32_t interface, CaptureDirection direction, const Piece* pieces,
               uint32_t pieceCount);

    /// Waits until all queued packets are written or lost.
    void flush();

    /// The counts as they are now, while the writer runs.
    Stats stats() const;

  protected:
    /// Waits until all queued packets are written or lost.
    ~CaptureFile() override;

  private:
    using Blocks = std::string;  // Of bytes.

    struct Descriptor {
        ~Descriptor();
        int number = -1;
    };

    static void runWriter(void* self);
    void writer();
    int append(const Blocks& blocks);
    bool isFull(uint64_t bytes) const;
    bool isHalfFull() const { return queue_.size() >= limits_.queueBytes / 2; }

    const Mox::String path_;
    const Limits limits_;
    Descriptor fd_;
    pthread_t thread_{};
    uint32_t interfaces_ = 0;

    // Guards the file. A thread that needs both mutexes locks this one first.
    std::mutex fileMutex_;
    uint64_t fileBytes_ = 0;
    bool isTorn_ = false;  // The file ends with part of a block and could not be cut back.

    // Guards the rest; never held during a system call on the file.
    mutable std::mutex queueMutex_;
    std::condition_variable queued_;
    std::condition_variable idle_;
    // One is filled while the other is written. Both keep the capacity that they begin with.
    Blocks queue_;
    Blocks blocks_;  // Used by the writing thread only.
    uint64_t queuedPackets_ = 0;
    uint64_t takenBytes_ = 0;  // The size of the file when all queued blocks are written.
    Stats stats_;
    bool isWriting_ = false;
    bool isFlushing_ = false;
    bool isEnding_ = false;
};

/// @throws Mox::ErrnoException as the constructor does.
PAVO_EXPORT Mox::Ptr<CaptureFile> captureFileFactory(const Mox::String& path,
                                                     CaptureFile::Limits limits = {});

}  // namespace Pavo
