/// @file
/// The base of machines that follow a readable and a writable count.
#pragma once

#include <utility>

#include "Mox/Entity.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"

namespace Pavo {

/// A machine of class `Machine` that follows the readiness of one entity: an inner reactor calls
/// `Machine::handleReadable` when `Notifier::readableCountAttr` changes, and
/// `Machine::handleWritable` when `Notifier::writableCountAttr` does. The machine is kept alive
/// during a call, in which it may be dropped.
///
/// It has no state but being attached or not. It is attached from its creation, unless the notifier
/// is null, until `moxDoZombieReactors(true)`, which `Machine` declares and which the end of the
/// last reference calls. The virtual functions are declared by `Machine`, which fixes their order.
template <class Machine, class Notifier>
class PAVO_EXPORT ReadinessSm : public Mox::Described<Machine> {
  public:
    /// Detaches the machine before it is deleted.
    void zeroReferencesIs(bool zero) override {
        if (zero) {
            machine()->moxDoZombieReactors(true);
        }
        Mox::PtrInterface::zeroReferencesIs(zero);
    }

  protected:
    /// Attached, unless `notifier` is null.
    explicit ReadinessSm(const Mox::Ptr<Notifier>& notifier)
        : reactor_(notifier ? Mox::make<Reactor>(notifier, this) : nullptr) {}
    ~ReadinessSm() override = default;

    /// Until `detach`.
    bool isAttached() const { return reactor_ != nullptr; }
    /// @pre attached.
    Notifier* notifier() const { return static_cast<Notifier*>(reactor_->notifier()); }
    /// Whether changes of the counts are passed on.
    void reactorActiveIs(bool active) { reactor_->hasNotificationActiveIs(active); }
    /// From now on nothing calls the machine, and it no longer holds the notifier.
    void detach() {
        if (const Mox::Ptr<Reactor> reactor = std::exchange(reactor_, nullptr)) {
            reactor->notifierIs(nullptr);
        }
    }

  private:
    class Reactor : public Mox::Notifiee {
      public:
        Reactor(const Mox::Ptr<Notifier>& notifier, ReadinessSm* sm)
            : Notifiee(notifier, {Notifier::readableCountAttr, Notifier::writableCountAttr}),
              sm_(sm) {}

        void handleChange(const Mox::Change& change) override {
            const Mox::Ptr<Machine> machine(sm_->machine());
            if (change.is(Notifier::readableCountAttr)) {
                machine->handleReadable();
            } else {
                machine->handleWritable();
            }
        }

      private:
        ReadinessSm* sm_;
    };

    Machine* machine() { return static_cast<Machine*>(this); }

    Mox::Ptr<Reactor> reactor_;
};

}  // namespace Pavo
