/// @file
/// Entities, whose attributes notify observers when they change, and the observers.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Export.h"
#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

namespace Mox {

class Entity;
class Notifiee;

/// `Owner` is `T`, or a base of it.
template <class Owner, class T>
concept BaseOf = std::derived_from<T, Owner>;
/// The token of an attribute that entities of class `T` have.
template <class Token, class T>
concept TokenOf = std::derived_from<Token, AttributeBase> && BaseOf<typename Token::Owner, T>;

/// One change of one attribute.
struct Change {
    /// The attribute that changed.
    const AttributeBase& attribute;
    /// The member of a collection that changed; null for a plain attribute.
    const void* keyAddress;

    /// Whether this is a change of that attribute.
    bool is(const AttributeBase& token) const {
        return attribute.number == token.number && std::string_view(attribute.name) == token.name;
    }
    /// The changed member of the collection that `token` names.
    /// @pre the change is one of that collection (assertion "is(token)").
    template <class Owner, class Key>
    const Key& key(const Attribute<Owner, Key>& token) const {
        require(is(token), "is(token)");
        return *static_cast<const Key*>(keyAddress);
    }
};

/// The type of `allAttributes`.
struct AllAttributes {};
/// The set of all attributes of an entity.
inline constexpr AllAttributes allAttributes;

/// A set of attributes that entities of class `T` have: those of `T` and of its bases.
template <class T>
class AttributeSet {
  public:
    /// The attributes of the tokens; none without one.
    template <TokenOf<T>... Tokens>
    constexpr AttributeSet(const Tokens&... tokens)
        : bits_((uint64_t{0} | ... | (uint64_t{1} << tokens.number))) {}
    /// Every attribute, those of derived classes too.
    constexpr AttributeSet(AllAttributes) : bits_(~uint64_t{0}) {}

    /// Bit i stands for the attribute with the number i.
    constexpr uint64_t bits() const { return bits_; }

  private:
    uint64_t bits_;
};

/// The observers of one entity, notified in the order in which they were added.
///
/// While it is notified, an observer may remove and destroy itself and others, add observers, set
/// the attribute again (the observers after it are then notified of the newer change first), and
/// drop the last reference to the entity. An observer that was removed is not notified any more,
/// and one that was added is not notified of this change. An exception from an observer ends the
/// notification and passes through; the observers after it are not notified of this change.
class MOX_EXPORT NotifieeList {
  public:
    NotifieeList() = default;
    /// @pre no notification is in progress, as for an entity on the stack that is left by its own
    /// observer (assertion "walks_ == nullptr").
    ~NotifieeList();
    NotifieeList(const NotifieeList&) = delete;
    NotifieeList& operator=(const NotifieeList&) = delete;

    /// Nothing observes the entity.
    bool empty() const { return first_ == nullptr; }
    /// Removes every observer.
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
    Walk* walks_ = nullptr;   // The notifications in progress, innermost first.
    Entity* gone_ = nullptr;  // The owner, once its last reference has gone during one.
    uint64_t added_ = 0;
};

/// The base of everything with notifying attributes; a class with attributes derives from
/// `EntityOf`.
class MOX_EXPORT Entity : public Described<Entity> {
  public:
    static constexpr auto description() { return classRecord("Mox::Entity"); }

    NotifieeList* notifieeList() override { return &notifiees_; }
    /// Deletes the object when no notification of it is in progress any more.
    void zeroReferencesIs(bool zero) override;
    /// The name under which a directory holds the entity; empty when it has none.
    virtual String name() const;
    /// Called when the entity is put into a parent, and with null when it is taken out.
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

  private:
    friend class NotifieeList;
    template <class Self, std::derived_from<Entity> Base>
    friend class EntityOf;

    void notifyObservers(const Change& change) {
        if (!notifiees_.empty()) {
            notifiees_.notify(change);
        }
    }

    NotifieeList notifiees_;
};

/// The base of a class of entities: it answers `fwkType()` from `Self::description()`, and has what
/// setters are made of. An attribute is stored, and observers are notified, only when its value
/// changes. Only attributes of `Self` and its bases are accepted.
template <class Self, std::derived_from<Entity> Base = Entity>
class MOX_EXPORT EntityOf : public Described<Self, Base> {
    // Private, so that no other class passes itself off as `Self`.
    friend Self;
    template <class... Args>
    explicit EntityOf(Args&&... args) : Described<Self, Base>(std::forward<Args>(args)...) {}

  protected:
    ~EntityOf() override = default;

    /// Stores `value` and notifies when that changed `field`.
    template <class Field, BaseOf<Self> Owner>
    void attributeIs(Field& field, std::type_identity_t<Field> value,
                     const Attribute<Owner>& token) {
        if (Entity::changed(field, std::move(value))) {
            notify(token);
        }
    }

    /// Adds `delta` to `field` likewise, and returns its value after the notification. Holds the
    /// entity meanwhile.
    template <class Field, BaseOf<Self> Owner>
    Field attributeInc(Field& field, std::type_identity_t<Field> delta,
                       const Attribute<Owner>& token) {
        const Ptr<Entity> hold(this);
        attributeIs(field, static_cast<Field>(field + delta), token);
        return field;
    }

    /// Adds a member to a set, or with false deletes it, and notifies when that changed the set.
    template <class Collection, BaseOf<Self> Owner, class Key>
    void memberIs(Collection& collection, const std::type_identity_t<Key>& key, bool isMember,
                  const Attribute<Owner, Key>& token) {
        if (!isMember) {
            memberDel(collection, key, token);
        } else if (collection.add(key)) {
            notify(token, key);
        }
    }

    /// Deletes the member with that key from a collection, and notifies when there was one.
    template <class Collection, class Key, BaseOf<Self> Owner, class TokenKey>
    void memberDel(Collection& collection, const Key& key,
                   const Attribute<Owner, TokenKey>& token) {
        if (const auto gone = collection.del(key)) {
            notify(token, static_cast<TokenKey>(*gone));
        }
    }

    /// Deletes and notifies one member after the other, as the collection's `delAll` says. Holds
    /// the entity meanwhile.
    template <class Collection, BaseOf<Self> Owner, class TokenKey>
    void memberDelAll(Collection& collection, const Attribute<Owner, TokenKey>& token) {
        const Ptr<Entity> hold(this);
        collection.delAll([&](const auto& gone) { notify(token, static_cast<TokenKey>(gone)); });
    }

    /// Notifies the observers of a change of the attribute that is stored already.
    template <BaseOf<Self> Owner>
    void notify(const Attribute<Owner>& token) {
        this->notifyObservers({token, nullptr});
    }
    /// The key is a copy, since an observer may delete the member.
    template <BaseOf<Self> Owner, class Key>
    void notify(const Attribute<Owner, Key>& token, const std::type_identity_t<Key> key) {
        this->notifyObservers({token, &key});
    }
};

/// An observer: a reactor on attributes of one entity, which it keeps alive. The entity does not
/// hold its observers.
///
/// An observer is not notified while its notifications are not active, nor once its last reference
/// has gone. One that drops its own last reference while it is called is deleted when the call
/// ends.
///
/// Only `make` can create one, which activates it: one on the stack, or inside another object, does
/// not compile.
class MOX_EXPORT Notifiee : public PtrInterface {
  public:
    /// What `make` creates for an observer class `T`.
    template <class T>
    class Made;

    /// The entity that is observed; null when there is none.
    Entity* notifier() const { return notifier_.ptr(); }
    /// Leaves the entity observed so far and observes `notifier`, unless it is null.
    /// @pre `notifier` is of the class whose attributes are wanted (assertion "notifier is of a
    /// class without the wanted attributes").
    void notifierIs(Ptr<Entity> notifier);

    void zeroReferencesIs(bool zero) override;
    /// Called after each change of an attribute that is wanted. It may do what `NotifieeList` says.
    virtual void handleChange(const Change& change) = 0;

  protected:
    /// Observes `notifier`, unless it is null.
    template <std::derived_from<Entity> T>
    Notifiee(const Ptr<T>& notifier, AttributeSet<std::type_identity_t<T>> wanted)
        : wanted_(wanted.bits()), notifierType_(&fwkTypeOf<T>()) {
        notifierIs(notifier);
    }
    ~Notifiee() override;

  private:
    friend class NotifieeList;
    class Call;

    virtual void isCreatedByMoxMakeOnly() = 0;

    Ptr<Entity> notifier_;
    uint32_t calls_ = 0;  // In progress.
    bool gone_ = false;   // The last reference has gone during one.
    Notifiee* previous_ = nullptr;
    Notifiee* next_ = nullptr;
    uint64_t addedAs_ = 0;
    uint64_t wanted_;
    const FwkType* notifierType_;
};

template <class T>
class Notifiee::Made : public T {
  public:
    using T::T;

  private:
    void isCreatedByMoxMakeOnly() override {}
};

/// Calls a function when attributes of an entity change, for as long as the watch exists: a member
/// of an agent. It may be destroyed inside the call.
template <class T>
class Watch {
  public:
    /// Watches nothing, until another one is assigned.
    Watch() = default;
    /// Calls `handler` when the attribute changes.
    template <BaseOf<T> Owner>
    [[nodiscard]] Watch(const Ptr<T>& notifier, const Attribute<Owner>& attribute,
                        std::function<void()> handler)
        : Watch(notifier, AttributeSet<T>(attribute),
                [handler = std::move(handler)](const Change&) { handler(); }) {}
    /// For a collection: the function gets the changed member.
    template <BaseOf<T> Owner, class Key>
    [[nodiscard]] Watch(const Ptr<T>& notifier, const Attribute<Owner, Key>& attribute,
                        std::function<void(const std::type_identity_t<Key>&)> handler)
        : Watch(notifier, AttributeSet<T>(attribute),
                [&attribute, handler = std::move(handler)](const Change& change) {
                    handler(change.key(attribute));
                }) {}
    /// For several attributes: the function gets the change.
    [[nodiscard]] Watch(const Ptr<T>& notifier, AttributeSet<std::type_identity_t<T>> wanted,
                        std::function<void(const Change&)> handler)
        : reactor_(make<Reactor>(notifier, wanted, std::move(handler))) {}

    Watch(Watch&&) noexcept = default;
    /// Ends what this one watched before.
    Watch& operator=(Watch&& other) noexcept {
        Watch taken(std::move(other));
        std::swap(reactor_, taken.reactor_);  // `taken` ends what this one watched before.
        return *this;
    }
    ~Watch() {
        if (reactor_) {
            reactor_->notifierIs(nullptr);
        }
    }

    /// @pre it watches something (assertion "watches something").
    void hasNotificationActiveIs(bool active) {
        require(reactor_ != nullptr, "watches something");
        reactor_->hasNotificationActiveIs(active);
    }

  private:
    class Reactor : public Notifiee {
      public:
        Reactor(const Ptr<T>& notifier, AttributeSet<T> wanted,
                std::function<void(const Change&)> handler)
            : Notifiee(notifier, wanted), handler_(std::move(handler)) {}
        void handleChange(const Change& change) override { handler_(change); }

      private:
        std::function<void(const Change&)> handler_;
    };

    Ptr<Reactor> reactor_;
};

}  // namespace Mox
