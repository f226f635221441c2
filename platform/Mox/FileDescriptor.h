/// @file
/// File descriptors as entities, whose readiness the event loop reports.
#pragma once

#include <cstdint>

#include "Mox/Entity.h"
#include "Mox/Export.h"

namespace Mox {

class EventLoop;

/// A file descriptor that the thread's event loop watches. It bumps `readableCount` and
/// `writableCount`, by one a report; an owner watches these, or derives a machine from them.
///
/// How readiness is watched:
/// - `tracked`, for owners that say what their reads and writes met. Data that waits is reported
///   once a turn as long as the owner has tried to read since the last report: an owner that reads
///   a packet a report is called again, one that never reads costs a single wake-up. Room to write
///   is watched only from a write that met none until it is reported. Readiness is kept here, so
///   this costs no system call;
/// - `level`: reported each turn while it lasts and interest is on;
/// - `edge`: reported when it comes, and again when interest is switched on.
///
/// A hang-up or an error of the descriptor counts as readiness for whatever interest there is;
/// without interest the descriptor is not watched at all.
class MOX_EXPORT FileDescriptor : public EntityOf<FileDescriptor> {
  public:
    /// Who closes the descriptor: this object, with its last reference, or somebody else.
    enum class Ownership { owned, borrowed };
    enum class Watching { tracked, level, edge };

    static constexpr Attribute<FileDescriptor> readableCountAttr{0, "readableCount"};
    static constexpr Attribute<FileDescriptor> writableCountAttr{1, "writableCount"};
    static constexpr Attribute<FileDescriptor> nonBlockingAttr{2, "nonBlocking"};
    static constexpr Attribute<FileDescriptor> notifyOnReadableAttr{3, "notifyOnReadable"};
    static constexpr Attribute<FileDescriptor> notifyOnWritableAttr{4, "notifyOnWritable"};
    static constexpr auto description() {
        return classRecord("Mox::FileDescriptor",
                           attribute(readableCountAttr, &FileDescriptor::readableCount),
                           attribute(writableCountAttr, &FileDescriptor::writableCount),
                           attribute(nonBlockingAttr, &FileDescriptor::nonBlocking),
                           attribute(notifyOnReadableAttr, &FileDescriptor::notifyOnReadable),
                           attribute(notifyOnWritableAttr, &FileDescriptor::notifyOnWritable));
    }

    /// @throws Mox::ErrnoException "fcntl(F_GETFL)" when `descriptor` is not open; owned, it is
    /// then closed.
    explicit FileDescriptor(int descriptor, Ownership ownership = Ownership::owned);
    ~FileDescriptor() override;

    String name() const override;

    /// The number, or -1 once it was given up.
    int descriptor() const { return descriptor_; }
    /// Ends all watching and gives the number up: the caller closes it.
    int descriptorRelease();
    /// Ends all watching and gives the number up, closed where it is owned: what the last reference
    /// does too, but now, whoever else still holds this object.
    void close();

    Watching watching() const { return watching_; }
    void watchingIs(Watching watching);

    uint32_t readableCount() const { return readableCount_; }
    void readableCountIs(uint32_t count) { attributeIs(readableCount_, count, readableCountAttr); }
    uint32_t readableCountInc(uint32_t delta) {
        return attributeInc(readableCount_, delta, readableCountAttr);
    }
    uint32_t writableCount() const { return writableCount_; }
    void writableCountIs(uint32_t count) { attributeIs(writableCount_, count, writableCountAttr); }
    uint32_t writableCountInc(uint32_t delta) {
        return attributeInc(writableCount_, delta, writableCountAttr);
    }

    /// O_NONBLOCK, as it was when this object was made and as it was set here since.
    bool nonBlocking() const { return nonBlocking_; }
    /// @throws Mox::ErrnoException "fcntl(F_SETFL)".
    void nonBlockingIs(bool nonBlocking);

    /// Interest in reading. Needs an event loop on this thread (assertion "EventLoop::current()").
    /// @throws Mox::ErrnoException "epoll_ctl" when the kernel cannot watch such a descriptor, a
    /// regular file for one; interest is then off.
    bool notifyOnReadable() const { return notifyOnReadable_; }
    void notifyOnReadableIs(bool notify);
    /// Interest in room to write; as for reading. When `tracked`, it ends with the report.
    bool notifyOnWritable() const { return notifyOnWritable_; }
    void notifyOnWritableIs(bool notify);

    /// Says that the owner tried to read, and whether more data may wait: false after EAGAIN. Of no
    /// effect unless `tracked`.
    void readTried(bool moreMayWait);
    /// Says that a write met EAGAIN: room is then reported once, as soon as there is some.
    void writeMetNoRoom() { notifyOnWritableIs(true); }

  private:
    friend class EventLoop;

    // A place in the loop's queue of reports to make.
    struct Report {
        FileDescriptor* owner;
        Report* previous = nullptr;
        Report* next = nullptr;
        uint32_t turn = 0;
        bool queued = false;
    };

    void watch(bool* interest, bool notify, const Attribute<FileDescriptor>& attribute);
    void readinessSeen(bool readable, bool writable);
    void report(const Report& due);
    uint32_t epollEvents() const;

    int descriptor_;
    Ownership ownership_;
    Watching watching_ = Watching::tracked;
    bool nonBlocking_ = false;
    bool notifyOnReadable_ = false;
    bool notifyOnWritable_ = false;
    bool triedToRead_ = true;  // Tracked: since the last report; the first report needs no try.
    uint32_t readableCount_ = 0;
    uint32_t writableCount_ = 0;
    uint32_t slot_ = 0;
    EventLoop* loop_ = nullptr;  // Null while the kernel does not watch.
    Report readReport_{this};
    Report writeReport_{this};
};

/// A descriptor that is closed with the last reference, unless `ownership` says otherwise.
/// @throws Mox::ErrnoException "fcntl(F_GETFL)" when `descriptor` is not open.
MOX_EXPORT Ptr<FileDescriptor> fileDescriptorFactory(
    int descriptor, FileDescriptor::Ownership ownership = FileDescriptor::Ownership::owned);

}  // namespace Mox
