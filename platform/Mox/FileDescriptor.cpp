#include "Mox/FileDescriptor.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/EventLoop.h"
#include "Mox/Exception.h"

namespace Mox {

FileDescriptor::FileDescriptor(int descriptor, Ownership ownership)
    : descriptor_(descriptor), ownership_(ownership) {
    const int flags = fcntl(descriptor_, F_GETFL);
    if (flags < 0) {
        const ErrnoException error(errno, "fcntl(F_GETFL)");
        close();  // Owned from the first line on: no destructor runs for what is not made.
        throw error;
    }
    nonBlocking_ = (flags & O_NONBLOCK) != 0;
}

FileDescriptor::~FileDescriptor() {
    close();
}

void FileDescriptor::close() {
    const int descriptor = descriptorRelease();
    if (ownership_ == Ownership::owned && descriptor >= 0) {
        (void)::close(descriptor);  // Linux frees the number whatever it answers.
    }
}

String FileDescriptor::name() const {
    return String("fd ") + std::string_view(std::to_string(descriptor_));
}

int FileDescriptor::descriptorRelease() {
    // Interest goes before the number does: an entry of a closed number whose file lives on in a
    // duplicate could not be deleted any more.
    if (loop_ != nullptr) {
        notifyOnReadable_ = false;
        notifyOnWritable_ = false;
        loop_->unwatch(this);
    }
    return std::exchange(descriptor_, -1);
}

void FileDescriptor::watchingIs(Watching watching) {
    watching_ = watching;
    triedToRead_ = true;  // A new way of watching, a new report.
    if (loop_ != nullptr) {
        loop_->watch(this);
    }
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
    // An edge-triggered owner that asks again wants to hear of what is there already.
    const bool again = notifyNow && *interest && watching_ == Watching::edge;
    if (*interest == notifyNow && !again) {
        return;
    }
    EventLoop* loop = loop_ != nullptr ? loop_ : EventLoop::current();
    require(loop != nullptr, "EventLoop::current()");
    const bool before = std::exchange(*interest, notifyNow);
    try {
        loop->watch(this);
    } catch (...) {
        *interest = false;
        throw;
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
    if (watching_ == Watching::tracked) {
        notifyOnWritableIs(false);
    }
    writableCountInc(1);
}

Ptr<FileDescriptor> fileDescriptorFactory(int descriptor, FileDescriptor::Ownership ownership) {
    return make<FileDescriptor>(descriptor, ownership);
}

}  // namespace Mox
