/// @file
/// File descriptors as entities, whose readiness the event loop reports.
#pragma once

#include <cstdint>

#include "Mox/Entity.h"
#include "Mox/Export.h"

namespace Mox {

class EventLoop;

/// A file descriptor that the thread's event loop watches. Each report adds one to `readableCount`
/// or `writableCount`; owners observe these.
///
/// How readiness is watched:
/// - `tracked`, for owners that report the results of their reads and writes. Data that waits is
///   reported once in each turn as long as the owner has tried to read since the last report: an
///   owner that reads a packet for each report is called again, one that never reads costs a single
///   wake-up. Room to write is watched only from a write that found none until it is reported.
///   Readiness is kept in this object, so this costs no system call;
/// - `level`: reported in each turn while it lasts and interest is on;
/// - `edge`: reported when it comes, and again when interest is switched on.
///
/// A hang-up or an error of the descriptor counts as readiness for each interest that is on;
/// without interest the descriptor is not watched at all.
///
/// While an observer is notified, it may close the descriptor, change interests and drop the last
/// reference. Every operation stores all that it changes before it notifies.
///
/// A number must be given up here before it is closed elsewhere. If it is closed early, and the
/// kernel gives it out again, it belongs to the next object for which the loop watches it. The
/// first object, if it was watched, then has no number any more: its interests are off, without a
/// notification, and it closes nothing; one that was not watched still closes the number. As long
/// as a duplicate of the closed descriptor is open and ready, a `level` interest of the first
/// object ends every wait of the loop at once.
class MOX_EXPORT FileDescriptor : public EntityOf<FileDescriptor> {
  public:
    /// Whether this object closes the descriptor, with its last reference, or its caller does.
    enum class Ownership { owned, borrowed };
    /// How readiness is watched; see above.
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

    /// "fd 5"; "fd -1" after the number was given up.
    String name() const override;

    /// The number, or -1 after it was given up or lost to another object.
    int descriptor() const { return descriptor_; }
    /// Ends all watching, gives the number up and then notifies of the interests that were on. The
    /// caller closes the number that is returned; an exception from an observer leaves it open.
    int descriptorRelease();
    /// Ends all watching, closes the number if it is owned, and then notifies of the interests that
    /// were on. The last reference does the same, without notifications.
    void close();

    /// `tracked` at first.
    Watching watching() const { return watching_; }
    /// @throws Mox::ErrnoException "epoll_ctl" when the number was closed early; nothing changes.
    void watchingIs(Watching watching);

    /// Reports of data to read, of an end of the stream or of an error, since the object was made.
    uint32_t readableCount() const { return readableCount_; }
    void readableCountIs(uint32_t count) { attributeIs(readableCount_, count, readableCountAttr); }
    uint32_t readableCountInc(uint32_t delta) {
        return attributeInc(readableCount_, delta, readableCountAttr);
    }
    /// Reports of room to write since the object was made.
    uint32_t writableCount() const { return writableCount_; }
    void writableCountIs(uint32_t count) { attributeIs(writableCount_, count, writableCountAttr); }
    uint32_t writableCountInc(uint32_t delta) {
        return attributeInc(writableCount_, delta, writableCountAttr);
    }

    /// O_NONBLOCK, as it was when this object was made and as it was set here since.
    bool nonBlocking() const { return nonBlocking_; }
    /// @throws Mox::ErrnoException "fcntl(F_SETFL)".
    void nonBlockingIs(bool nonBlocking);

    /// Interest in reading. Switching it on needs an event loop on this thread (assertion
    /// "EventLoop::current()"); switching it off never fails.
    /// @throws Mox::ErrnoException "epoll_ctl" when the kernel cannot watch the descriptor: EPERM
    /// for a regular file, EEXIST when another object watches the number, EBADF when it is closed.
    /// The interest is then unchanged.
    bool notifyOnReadable() const { return notifyOnReadable_; }
    void notifyOnReadableIs(bool notify);
    /// Interest in room to write; as for reading. When `tracked`, it ends with the report.
    bool notifyOnWritable() const { return notifyOnWritable_; }
    void notifyOnWritableIs(bool notify);

    /// For `tracked`, after the owner tried to read: whether more data may wait, which is false
    /// after EAGAIN. Without effect otherwise.
    void readTried(bool moreMayWait);
    /// After a write that failed with EAGAIN: room is reported once, as soon as there is some.
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
    struct Interests {
        bool readable;
        bool writable;
    };

    Interests interests() const { return {notifyOnReadable_, notifyOnWritable_}; }
    int giveUp();
    void closeNumber(int number);
    void notifyOfChanges(Interests before);
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
    EventLoop* loop_ = nullptr;  // Null while the kernel does not watch.
    Report readReport_{this};
    Report writeReport_{this};
};

/// A descriptor that is closed with the last reference, unless it is borrowed.
/// @throws Mox::ErrnoException "fcntl(F_GETFL)" when `descriptor` is not open.
MOX_EXPORT Ptr<FileDescriptor> fileDescriptorFactory(
    int descriptor, FileDescriptor::Ownership ownership = FileDescriptor::Ownership::owned);

}  // namespace Mox
