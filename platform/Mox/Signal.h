/// @file
/// Signals as events of the loop.
#pragma once

#include "Mox/Entity.h"
#include "Mox/Export.h"
#include "Mox/FileDescriptor.h"

namespace Mox {

/// A signal that arrives as an event of this thread's loop, by signalfd(2): handlers are ordinary
/// functions, not restricted as signal handlers are. `signalFactory` makes one; an agent that ends
/// cleanly on SIGTERM is
///
///     Mox::EventLoop loop;
///     const Mox::Watch<Mox::Signal> end(Mox::signalFactory(SIGTERM), Mox::Signal::countAttr,
///                                       [&loop] { loop.stop(); });
///     loop.run();
///
/// While the object lives, the signal is blocked in this thread; afterwards the signal mask is as
/// it was before. No signal is lost: one that arrives between two turns is reported in the next,
/// and one that was not reported when the object ends takes its usual effect then. If the loop ends
/// first, `signalFactory` makes the next loop watch the signal. The kernel keeps
/// a standard signal that is already pending as one; real-time signals are counted one by one.
///
/// Threads: a signal to the process goes to any thread that does not block it. New threads inherit
/// the mask, so the object is made before other threads start, or those block the signal too
/// (pthread_sigmask(3)). Programs that the agent executes inherit the mask as well: the child
/// unblocks the signal between fork(2) and exec(3).
class MOX_EXPORT Signal : public EntityOf<Signal> {
  public:
    static constexpr Attribute<Signal> countAttr{0, "count"};
    static constexpr auto description() {
        return classRecord("Mox::Signal", attribute(countAttr, &Signal::count));
    }

    /// For `signalFactory`. A second object for a signal of one thread is refused with the
    /// assertion "!signals[ number ]".
    explicit Signal(int number);

    /// Restores the mask. On the thread that made the object: assertion "signals[ number ] ==
    /// this".
    void zeroReferencesIs(bool zero) override;
    /// "signal 15".
    String name() const override;

    /// As in signal(7).
    int number() const { return number_; }
    /// Signals received since the object was made.
    uint32_t count() const { return count_; }

  private:
    friend Ptr<Signal> signalFactory(int number);

    void handleReadable();

    const int number_;
    uint32_t count_ = 0;
    bool wasBlocked_ = false;
    Ptr<FileDescriptor> fd_;
    Watch<FileDescriptor> readable_;
};

/// The object of a signal on this thread; the same one for all callers, while one of them holds it.
/// Needs an event loop on this thread (assertion "EventLoop::current()").
/// @throws Mox::ErrnoException "signal" (EINVAL) when `number` is no signal that can be caught;
/// "signalfd" or "epoll_ctl". The signal mask is then unchanged.
[[nodiscard]] MOX_EXPORT Ptr<Signal> signalFactory(int number);

}  // namespace Mox
