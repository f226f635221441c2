#include "Pavo/socket/ServiceThread.h"

#include <sched.h>
#include <signal.h>

#include <memory>

#include "Mox/Trace.h"
#include "netns/netns.h"

namespace Pavo {

namespace {

struct Service {
    void (*run)(void*);
    void* argument;
};

void* serve(void* service) {
    // A thread starts in the namespace of its creator. Without the privilege to switch back, the
    // creator could not have left the process's namespace either.
    (void)setnsByName(DEFAULT_NS, CLONE_NEWNET);
    const Service own = *std::unique_ptr<Service>(static_cast<Service*>(service));
    own.run(own.argument);
    return nullptr;
}

// All signals but those that faults of the thread itself raise.
sigset_t serviceSignalMask() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) {
        sigdelset(&blocked, fault);
    }
    return blocked;
}

}  // namespace

int startServiceThread(pthread_t* thread, const char* name, void (*run)(void*), void* argument) {
    const Mox::ErrnoKeeper errnoKeeper;
    auto service = std::make_unique<Service>(Service{run, argument});
    // The thread inherits the mask. If the thread set it itself, a signal could arrive before.
    const sigset_t blocked = serviceSignalMask();
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    const int error = pthread_create(thread, nullptr, serve, service.get());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error == 0) {
        (void)service.release();  // The thread deletes it.
        (void)pthread_setname_np(*thread, name);
    }
    return error;
}

}  // namespace Pavo
