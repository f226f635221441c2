// Descriptors of one event loop that become ready.

#include <sys/eventfd.h>
#include <unistd.h>

#include <vector>

#include "Mox/EventLoop.h"
#include "growth/Growth.h"

namespace {

class Descriptors : public PavoBench::Endpoints {
  public:
    explicit Descriptors(uint32_t count) {
        fds_.reserve(count);
        watches_.reserve(count);
        const double before = PavoBench::heapBytes();
        for (uint32_t i = 0; i < count; ++i) {
            fds_.push_back(Mox::fileDescriptorFactory(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)));
            fds_.back()->watchingIs(Mox::FileDescriptor::Watching::edge);
            watches_.emplace_back(fds_.back(), Mox::FileDescriptor::readableCountAttr,
                                  [this] { ++reports_; });
            fds_.back()->notifyOnReadableIs(true);
        }
        work(count);
        bytesOfOne = (PavoBench::heapBytes() - before) / count;
    }

    double work(uint32_t busy) override {
        for (uint32_t i = 0; i < busy; ++i) {
            eventfd_write(fds_[i]->descriptor(), 1);
        }
        reports_ = 0;
        const double start = PavoBench::threadSeconds();
        PavoBench::turnUntil(loop_, [&] { return reports_ >= busy; });
        const double seconds = PavoBench::threadSeconds() - start;
        for (uint32_t i = 0; i < busy; ++i) {
            eventfd_t value = 0;
            eventfd_read(fds_[i]->descriptor(), &value);
        }
        return seconds;
    }

  private:
    Mox::EventLoop loop_;
    std::vector<Mox::Ptr<Mox::FileDescriptor>> fds_;
    std::vector<Mox::Watch<Mox::FileDescriptor>> watches_;
    uint32_t reports_ = 0;
};

[[maybe_unused]] const bool registered = [] {
    PavoBench::registerGrowth("Events",
                              [](uint32_t count) { return std::make_unique<Descriptors>(count); });
    return true;
}();

}  // namespace
