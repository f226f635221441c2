#include "Mox/FileDescriptor.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <string>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/EventLoop.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"

namespace Mox {

FileDescriptor::FileDescriptor(int descriptor, Ownership ownership)
    : descriptor_(descriptor), ownership_(ownership) {
    const int flags = fcntl(descriptor_, F_GETFL);
    if (flags < 0) {
        const ErrnoException error(errno, "fcntl(F_GETFL)");
        closeNumber(giveUp());  // Owned already, though no destructor runs after this.
        throw error;
    }
    nonBlocking_ = (flags & O_NONBLOCK) != 0;
}

FileDescriptor::~FileDescriptor() {
    closeNumber(giveUp());  // Notifies nobody: an observer would have kept this object alive.
}

void FileDescriptor::close() {
    const Ptr<FileDescriptor> hold(this);
    const Interests before = interests();
    closeNumber(giveUp());
    notifyOfChanges(before);
}

int FileDescriptor::descriptorRelease() {
    const Ptr<FileDescriptor> hold(this);
    const Interests before = interests();
    const int number = giveUp();
    notifyOfChanges(before);
    return number;
}

// Interest ends before the number is given up: the kernel keeps an entry of a closed number whose
// file lives on in a duplicate, and nobody could delete it any more.
int FileDescriptor::giveUp() {
    notifyOnReadable_ = false;
    notifyOnWritable_ = false;
    if (loop_ != nullptr) {
        loop_->interestLost(this);
    }
    return std::exchange(descriptor_, -1);
}

void FileDescriptor::closeNumber(int number) {
    if (ownership_ == Ownership::owned && number >= 0) {
        const ErrnoKeeper keeper;
        (void)::close(number);  // Linux frees the number whatever it returns.
    }
}

void FileDescriptor::notifyOfChanges(Interests before) {
    if (before.readable != notifyOnReadable_) {
        notify(notifyOnReadableAttr);
    }
    if (before.writable != notifyOnWritable_) {
        notify(notifyOnWritableAttr);
    }
}

String FileDescriptor::name() const {
    return String("fd ") + std::string_view(std::to_string(descriptor_));
}

void FileDescriptor::watchingIs(Watching watching) {
    const Watching before = std::exchange(watching_, watching);
    if (loop_ != nullptr) {
        try {
            loop_->watch(this);
        } catch (...) {
            watching_ = before;
            throw;
        }
        loop_->unqueue(&readReport_);  // The kernel reports again what is ready.
    }
    triedToRead_ = true;  // A new way of watching, a new report.
}

void FileDescriptor::nonBlockingIs(bool nonBlocking) {
    const int flags = fcntl(descriptor_, F_GETFL);
    const int wanted = nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (flags < 0 || (wanted != flags && fcntl(descriptor_, F_SETFL, wanted) < 0)) {
        throwErrnoException("fcntl(F_SETFL)");
    }
    attributeIs(nonBlocking_, nonBlocking, nonBlockingAttr);
}

void FileDescriptor::notifyOnReadableIs(bool notify) {
    triedToRead_ = triedToRead_ || (notify && !notifyOnReadable_);  // New interest, a new report.
    watch(&notifyOnReadable_, notify, notifyOnReadableAttr);
}

void FileDescriptor::notifyOnWritableIs(bool notify) {
    watch(&notifyOnWritable_, notify, notifyOnWritableAttr);
}

void FileDescriptor::watch(bool* interest, bool notifyNow,
                           const Attribute<FileDescriptor>& attribute) {
    // With an edge-triggered descriptor, setting interest again asks for what is there already.
    const bool again = notifyNow && *interest && watching_ == Watching::edge;
    if (*interest == notifyNow && !again) {
        return;
    }
    const bool before = std::exchange(*interest, notifyNow);
    if (!notifyNow) {
        if (loop_ != nullptr) {
            loop_->interestLost(this);
        }
    } else {
        EventLoop* loop = loop_ != nullptr ? loop_ : EventLoop::current();
        require(loop != nullptr, "EventLoop::current()");
        try {
            loop->watch(this);
        } catch (...) {
            *interest = before;
            throw;
        }
    }
    if (before != notifyNow) {
        notify(attribute);
    }
}

uint32_t FileDescriptor::epollEvents() const {
    return (notifyOnReadable_ ? uint32_t{EPOLLIN} : 0u) |
           (notifyOnWritable_ ? uint32_t{EPOLLOUT} : 0u) |
           (watching_ == Watching::level ? 0u : uint32_t{EPOLLET});
}

void FileDescriptor::readinessSeen(bool readable, bool writable) {
    if (readable && notifyOnReadable_) {
        if (watching_ != Watching::tracked || triedToRead_) {
            loop_->queue(&readReport_);
        }
    }
    if (writable && notifyOnWritable_) {
        loop_->queue(&writeReport_);
    }
}

void FileDescriptor::readTried(bool moreMayWait) {
    if (watching_ != Watching::tracked) {
        return;
    }
    triedToRead_ = true;
    if (loop_ == nullptr || !notifyOnReadable_) {
        return;
    }
    if (moreMayWait) {
        loop_->queue(&readReport_);
    } else {
        loop_->unqueue(&readReport_);
    }
}

void FileDescriptor::report(const Report& due) {
    if (&due == &readReport_) {
        triedToRead_ = false;
        readableCountIs(readableCount_ + 1);
        return;
    }
    const Ptr<FileDescriptor> hold(this);  // The first of two changes may drop the last reference.
    const Interests before = interests();
    ++writableCount_;
    if (watching_ == Watching::tracked) {
        notifyOnWritable_ = false;
        loop_->interestLost(this);
    }
    notify(writableCountAttr);  // First, since an exception from an observer ends the rest.
    notifyOfChanges(before);
}

Ptr<FileDescriptor> fileDescriptorFactory(int descriptor, FileDescriptor::Ownership ownership) try {
    return make<FileDescriptor>(descriptor, ownership);
} catch (const std::bad_alloc&) {
    if (ownership == FileDescriptor::Ownership::owned) {
        (void)::close(descriptor);  // Nobody else knows of it.
    }
    throw;
}

}  // namespace Mox
