/// @file
/// The reactor inside machines that follow something with a readable and a writable count.
#pragma once

#include "Mox/Entity.h"
#include "Mox/Ptr.h"

namespace Pavo {

/// Calls `machine->handleReadable()` when `Notifier::readableCountAttr` changes and
/// `machine->handleWritable()` when `Notifier::writableCountAttr` does. The machine owns it and is
/// kept alive during a call, in which an agent may drop it.
template <class Notifier, class Machine>
class ReadinessReactor : public Mox::Notifiee {
  public:
    ReadinessReactor(Mox::Ptr<Notifier> notifier, Machine* machine)
        : Notifiee(std::move(notifier), {Notifier::readableCountAttr, Notifier::writableCountAttr}),
          machine_(machine) {}

    void handleChange(const Mox::Change& change) override {
        const Mox::Ptr<Machine> hold(machine_);
        if (change.is(Notifier::readableCountAttr)) {
            hold->handleReadable();
        } else {
            hold->handleWritable();
        }
    }

  private:
    Machine* machine_;
};

}  // namespace Pavo
