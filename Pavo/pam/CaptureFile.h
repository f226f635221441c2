/// @file
/// Capture files in the pcapng format (draft-ietf-opsawg-pcapng), which tshark(1) and its kin read.
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

/// What the packets of an interface begin with (the registry of LINKTYPE values).
enum class CaptureLinkType : uint16_t {
    ethernet = 1,  ///< An Ethernet header, without preamble and checksum.
    rawIp = 101,   ///< An IPv4 or IPv6 header.
    user0 = 147,   ///< What sender and reader agree on.
};

/// The direction of a packet, as pcapng has it.
enum class CaptureDirection : uint32_t {
    inbound = 1,
    outbound = 2,
};

/// A file of packets with their interfaces, directions and times in nanoseconds.
///
/// A thread of its own writes, so that whoever hands packets over never waits for a disk: what does
/// not fit into the queue is dropped and counted, and so is what the file has no room for. A write
/// that fails is counted, with the packets it was to write; the file is then cut back to its last
/// whole block, and what comes later is tried again. Packets wait 20 ms at most for others to be
/// written with.
///
/// To be used from one thread only, the one that runs the event loop; a child of fork(2) has no
/// such thread and is not to touch the file.
class PAVO_EXPORT CaptureFile final : public Mox::Described<CaptureFile> {
  public:
    /// How large things may grow, in bytes.
    struct Limits {
        uint64_t fileBytes = 100 << 20;
        uint32_t queueBytes = 4 << 20;
    };
    struct Stats {
        uint64_t packets = 0;      ///< Taken, and written unless counted below.
        uint64_t drops = 0;        ///< Not taken, for want of room in the queue or the file.
        uint64_t lost = 0;         ///< Taken, but not written.
        uint32_t writeErrors = 0;  ///< Writes that failed.
        int32_t writeErrno = 0;    ///< The `errno` of the last one that did.
    };
    /// A part of a packet.
    struct Piece {
        const uint8_t* data;
        uint32_t bytes;
    };

    static constexpr auto description() { return Mox::classRecord("Pavo::CaptureFile"); }

    /// The most of a packet that the file has; tshark refuses files with more.
    static constexpr uint32_t maxPktBytes = 262144;

    /// Creates a regular file that its owner alone may read, or empties it.
    /// @throws Mox::ErrnoException "open(<path>)", "write(<path>)" or "pthread_create".
    /// @throws std::bad_alloc, std::length_error for queues that do not fit into memory.
    CaptureFile(const Mox::String& path, Limits limits);

    /// Adds an interface and returns its number. Waits for the file; is counted towards its size,
    /// and never refused.
    /// @throws Mox::ErrnoException "write(<path>)"; the file is then as it was.
    uint32_t newInterface(const Mox::String& name, CaptureLinkType linkType);

    /// Takes a packet, in pieces that follow one another, with the time of the call; of a longer
    /// one the first `maxPktBytes`, and its length. Never waits.
    void pktIs(uint32_t interface, CaptureDirection direction, const Piece* pieces,
               uint32_t pieceCount);

    /// Waits until all that was taken is written or lost.
    void flush();

    Stats stats() const;

  protected:
    /// Waits for what is still to be written.
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

    // Guards the file. Whoever holds both mutexes took this one first.
    std::mutex fileMutex_;
    uint64_t fileBytes_ = 0;
    bool isTorn_ = false;  // It ends with part of a block and could not be cut back.

    // Guards the rest, and is held for moments only.
    mutable std::mutex queueMutex_;
    std::condition_variable queued_;
    std::condition_variable idle_;
    // One is filled while the other is written; neither grows.
    Blocks queue_;
    Blocks blocks_;  // The writer's alone.
    uint64_t queuedPackets_ = 0;
    uint64_t takenBytes_ = 0;  // What the file will hold when all is written.
    Stats stats_;
    bool isWriting_ = false;
    bool isFlushing_ = false;
    bool isEnding_ = false;
};

/// @throws Mox::ErrnoException as the constructor does.
PAVO_EXPORT Mox::Ptr<CaptureFile> captureFileFactory(const Mox::String& path,
                                                     CaptureFile::Limits limits = {});

}  // namespace Pavo
