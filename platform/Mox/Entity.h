/// @file
/// Entities, whose attributes notify observers when they change, and the observers.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <type_traits>
#include <utility>

#include "Mox/Export.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

namespace Mox {

class Entity;
class Notifiee;

/// The token of an attribute of `Owner`; `Key` is given for a collection, whose changes name the
/// member that changed. Numbers run on through a chain of classes, and are below 64.
template <class Owner, class... Key>
struct Attribute : AttributeBase {
    constexpr Attribute(uint8_t attributeNumber, const char* attributeName)
        : AttributeBase{attributeNumber, attributeName} {}
};

/// One change of one attribute, as observers are told of it.
struct Change {
    const AttributeBase& attribute;
    /// The member of a collection that changed; null for a plain attribute.
    const void* keyAddress;

    bool is(const AttributeBase& other) const { return attribute.number == other.number; }
    /// The changed member of the collection that `token` names.
    template <class Owner, class Key>
    const Key& key(const Attribute<Owner, Key>&) const {
        return *static_cast<const Key*>(keyAddress);
    }
};

/// A set of attributes of one entity.
class AttributeSet {
  public:
    constexpr AttributeSet() = default;
    constexpr AttributeSet(const AttributeBase& one) : bits_(uint64_t{1} << one.number) {}
    constexpr AttributeSet(std::initializer_list<AttributeSet> several) {
        for (const AttributeSet& each : several) {
            bits_ |= each.bits_;
        }
    }
    static constexpr AttributeSet all() {
        AttributeSet set;
        set.bits_ = ~uint64_t{0};
        return set;
    }

    constexpr bool contains(const AttributeBase& one) const { return bits_ >> one.number & 1; }

  private:
    uint64_t bits_ = 0;
};

/// The observers of one entity, in the order in which they came.
///
/// While a change is told, an observer may remove itself or others, add observers, set the
/// attribute again (the others then hear of the newer change first) or drop the last reference to
/// the entity: whoever was removed is not called afterwards, whoever was added is not called for
/// this change. An exception from an observer ends the telling and passes through.
class MOX_EXPORT NotifieeList {
  public:
    NotifieeList() = default;
    ~NotifieeList();
    NotifieeList(const NotifieeList&) = delete;
    NotifieeList& operator=(const NotifieeList&) = delete;

    bool empty() const { return first_ == nullptr; }
    /// Takes every observer off.
    void delAll();
    /// Calls every active observer that wants the attribute. Allocates nothing.
    void notify(const Change& change);

  private:
    friend class Entity;
    friend class Notifiee;
    struct Walk;

    void add(Notifiee* notifiee);
    void remove(Notifiee* notifiee);

    Notifiee* first_ = nullptr;
    Notifiee* last_ = nullptr;
    Walk* walks_ = nullptr;   // The tellings under way, innermost first.
    Entity* gone_ = nullptr;  // The owner, once its last reference has gone during one.
    uint64_t added_ = 0;
};

/// The base of everything with notifying attributes. An attribute is stored and told only when its
/// value changes; the entity's own handler runs before outside observers.
class MOX_EXPORT Entity : public PtrInterface {
  public:
    static const FwkType type;

    NotifieeList* notifieeList() override { return &notifiees_; }
    const FwkType* fwkType() const override;
    /// Puts the end off until no change of this entity is being told.
    void zeroReferencesIs(bool zero) override;
    /// The name under which a directory holds the entity; empty when it has none.
    virtual String name() const;
    /// Told when the entity is put into a parent, with null when it is taken out.
    virtual void handleParent(Ptr<Entity> parent);

  protected:
    Entity() = default;
    ~Entity() override = default;

    /// Stores `value`; true when that changed `field`.
    template <class Field>
    static bool changed(Field& field, std::type_identity_t<Field> value) {
        if (field == value) {
            return false;
        }
        field = std::move(value);
        return true;
    }

    /// Stores `value` and tells observers when that changed `field`: what most setters are.
    template <class Field>
    void attributeIs(Field& field, std::type_identity_t<Field> value,
                     const AttributeBase& attribute) {
        if (changed(field, std::move(value))) {
            notify(attribute);
        }
    }

    void notify(const AttributeBase& attribute) { tell({attribute, nullptr}); }
    template <class Owner, class Key>
    void notify(const Attribute<Owner, Key>& attribute, const std::type_identity_t<Key>& key) {
        tell({attribute, &key});
    }

  private:
    friend class NotifieeList;

    void tell(const Change& change) {
        if (!notifiees_.empty()) {
            notifiees_.notify(change);
        }
    }

    NotifieeList notifiees_;
};

/// An observer: a reactor on attributes of one entity, which it keeps alive. It hears nothing while
/// its notifications are not active, and nothing once its last reference has gone. The entity holds
/// it weakly; one that drops its own last reference while it is called ends when the call does.
class MOX_EXPORT Notifiee : public PtrInterface {
  public:
    Entity* notifier() const { return notifier_.ptr(); }
    /// Leaves the entity observed so far and observes `notifier`, unless it is null.
    void notifierIs(Ptr<Entity> notifier);

    void zeroReferencesIs(bool zero) override;
    virtual void handleChange(const Change& change) = 0;

  protected:
    /// Inactive until `hasNotificationActiveIs(true)`, as `Mox::make` does.
    Notifiee(Ptr<Entity> notifier, AttributeSet wanted);
    ~Notifiee() override;

  private:
    friend class NotifieeList;
    struct Call;

    Ptr<Entity> notifier_;
    Call* call_ = nullptr;  // The innermost one under way.
    Notifiee* previous_ = nullptr;
    Notifiee* next_ = nullptr;
    uint64_t addedAs_ = 0;
    AttributeSet wanted_;
};

template <class Owner, class T>
concept BaseOf = std::derived_from<T, Owner>;

/// Calls a function when attributes of an entity change, for as long as it lives: a member of an
/// agent. It may be destroyed from inside the call.
template <class T>
class Watch {
  public:
    Watch() = default;
    template <BaseOf<T> Owner>
    Watch(const Ptr<T>& notifier, const Attribute<Owner>& attribute, std::function<void()> handler)
        : Watch(notifier, AttributeSet(attribute),
                [handler = std::move(handler)](const Change&) { handler(); }) {}
    /// For a collection: the function gets the changed member.
    template <BaseOf<T> Owner, class Key>
    Watch(const Ptr<T>& notifier, const Attribute<Owner, Key>& attribute,
          std::function<void(const std::type_identity_t<Key>&)> handler)
        : Watch(notifier, AttributeSet(attribute),
                [&attribute, handler = std::move(handler)](const Change& change) {
                    handler(change.key(attribute));
                }) {}
    Watch(const Ptr<T>& notifier, AttributeSet wanted, std::function<void(const Change&)> handler)
        : reactor_(make<Reactor>(notifier, wanted, std::move(handler))) {}

    Watch(Watch&&) noexcept = default;
    Watch& operator=(Watch&& other) noexcept {
        Watch taken(std::move(other));
        std::swap(reactor_, taken.reactor_);  // What was watched before ends with `taken`.
        return *this;
    }
    ~Watch() {
        if (reactor_) {
            reactor_->notifierIs(nullptr);
        }
    }

    void hasNotificationActiveIs(bool active) { reactor_->hasNotificationActiveIs(active); }

  private:
    class Reactor : public Notifiee {
      public:
        Reactor(const Ptr<T>& notifier, AttributeSet wanted,
                std::function<void(const Change&)> handler)
            : Notifiee(notifier, wanted), handler_(std::move(handler)) {}
        void handleChange(const Change& change) override { handler_(change); }

      private:
        std::function<void(const Change&)> handler_;
    };

    Ptr<Reactor> reactor_;
};

}  // namespace Mox
