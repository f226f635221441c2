/// @file
/// The machine that turns a descriptor's readiness into an endpoint's counts.
#pragma once

#include "Mox/FileDescriptor.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/ReadinessSm.h"

namespace Pavo {

class Pam;

/// Adds one to a PAM's `readableCount` or `writableCount` each time the descriptor is reported
/// readable or writable, and to both when it is created, so that a new PAM makes a read and a write
/// attempt at once. It has no other state. The PAM owns it; it points back without owning.
class PAVO_EXPORT PamFdSm : public ReadinessSm<PamFdSm, Mox::FileDescriptor> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::PamFdSm"); }

    /// A null descriptor is not watched, and no count changes. If the PAM gives the descriptor up
    /// during the notification of `readableCount`, `writableCount` does not change.
    PamFdSm(Mox::Ptr<Mox::FileDescriptor> fd, Pam* pam);

    /// Switches the watching of the descriptor with the machine.
    void hasNotificationActiveIs(bool active) override;
    /// Increments the count of the PAM; called when that of the descriptor has changed.
    /// @{
    virtual void handleReadable();
    virtual void handleWritable();
    /// @}
    /// With true, detaches the reactor on the descriptor: nothing calls the machine any more.
    virtual void moxDoZombieReactors(bool zombie);

  protected:
    ~PamFdSm() override;

  private:
    Pam* pam_;
    bool readsAgain_ = false;  // Interest in reading comes back with the activity.
};

/// A new machine for `pam` on `fd`.
PAVO_EXPORT Mox::Ptr<PamFdSm> PamFdSmIs(Mox::Ptr<Mox::FileDescriptor> fd, Pam* pam);

}  // namespace Pavo
