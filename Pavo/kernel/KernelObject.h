/// @file
/// What the entities that show objects of the kernel have in common.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <utility>

#include "Mox/Entity.h"

#include "Pavo/base/Export.h"

namespace Pavo {

class KernelInfo;

/// An object of the kernel, as its last message described it. Only messages of the kernel change
/// it. All attributes of a message are stored before the first observer is notified, and the
/// observers of each are notified, also where those of another throw.
class PAVO_EXPORT KernelObject : public Mox::EntityOf<KernelObject> {
  public:
    static constexpr Mox::Attribute<KernelObject> existsAttr{0, "exists"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::KernelObject",
                                Mox::attribute(existsAttr, &KernelObject::exists));
    }

    /// False once the kernel has deleted the object. It does not come back: an equal one that the
    /// kernel makes later is another entity, unless the messages of both changes were lost.
    bool exists() const { return exists_; }

  protected:
    KernelObject() = default;

    /// Stores `value`. Returns the bit of the attribute, 1 << number, when that changed `field`,
    /// else 0.
    template <class Field>
    static uint64_t stored(Field& field, std::type_identity_t<Field> value,
                           const Mox::AttributeBase& attribute) {
        return changed(field, std::move(value)) ? uint64_t{1} << attribute.number : 0;
    }

    /// Notifies of those of `attributes` whose bits are in `changed`; then throws what an observer
    /// threw first. The caller holds the entity.
    void announce(uint64_t changed, std::initializer_list<const Mox::AttributeBase*> attributes);

  private:
    friend class KernelInfo;

    void announceEnd() { notify(existsAttr); }

    bool exists_ = true;
    uint32_t generation_ = 0;  // The dump in which it was seen last.
};

}  // namespace Pavo
