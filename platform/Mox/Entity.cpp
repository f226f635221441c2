#include "Mox/Entity.h"

namespace Mox {

// Lists and observers point at what lives on the stack of `notify`, which takes the pointers back.
// Holding both by counted references instead would cost more than the calls.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif

// A telling under way. Removing an observer moves the place of every telling that stands on it.
struct NotifieeList::Walk {
    Notifiee* next;
    bool moved;  // `next` is another than it was set to.
    Walk* outer;

    // Puts a walk on the list and takes it off again. Apart from it, so that what is put back
    // waits in a register and not in memory that others may write.
    class Scope {
      public:
        Scope(NotifieeList& list, Walk* walk) : list_(list), outer_(list.walks_) {
            walk->outer = outer_;
            list_.walks_ = walk;
        }
        ~Scope() {
            list_.walks_ = outer_;
            if (outer_ == nullptr && list_.gone_ != nullptr) {
                list_.gone_->PtrInterface::zeroReferencesIs(true);
            }
        }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        NotifieeList& list_;
        Walk* const outer_;
    };
};

// A call of an observer under way.
struct Notifiee::Call {
    bool gone;  // The observer's last reference went during the call.

    class Scope {
      public:
        Scope(Notifiee* callee, Call* call) : callee_(callee), outer_(callee->call_), call_(call) {
            call_->gone = false;
            callee_->call_ = call_;
        }
        ~Scope() {
            callee_->call_ = outer_;
            if (__builtin_expect(call_->gone, 0)) {
                callee_->zeroReferencesIs(true);  // Again: an outer call puts it off once more.
            }
        }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        Notifiee* const callee_;
        Call* const outer_;
        Call* const call_;
    };
};

NotifieeList::~NotifieeList() {
    delAll();
}

void NotifieeList::delAll() {
    while (first_ != nullptr) {
        first_->notifierIs(nullptr);
    }
}

void NotifieeList::notify(const Change& change) {
    const uint64_t newest = added_;  // Whoever comes later is not told of this change.
    Walk walk;
    walk.moved = false;
    const Walk::Scope telling(*this, &walk);
    Notifiee* each = first_;
    while (each != nullptr && each->addedAs_ <= newest) {
        // Read back only where an observer moved it: waiting for it each time would take longer
        // than all the rest.
        Notifiee* next = each->next_;
        walk.next = next;
        if (each->wanted_.contains(change.attribute) && each->hasNotificationActive()) {
            Notifiee::Call call;
            const Notifiee::Call::Scope calling(each, &call);
            each->handleChange(change);
            if (__builtin_expect(walk.moved, 0)) {
                walk.moved = false;
                next = walk.next;
            }
        }
        each = next;
    }
}

void NotifieeList::add(Notifiee* notifiee) {
    notifiee->addedAs_ = ++added_;
    notifiee->previous_ = last_;
    notifiee->next_ = nullptr;
    (last_ != nullptr ? last_->next_ : first_) = notifiee;
    last_ = notifiee;
}

void NotifieeList::remove(Notifiee* notifiee) {
    for (Walk* walk = walks_; walk != nullptr; walk = walk->outer) {
        if (walk->next == notifiee) {
            walk->next = notifiee->next_;
            walk->moved = true;
        }
    }
    (notifiee->previous_ != nullptr ? notifiee->previous_->next_ : first_) = notifiee->next_;
    (notifiee->next_ != nullptr ? notifiee->next_->previous_ : last_) = notifiee->previous_;
}

constinit const FwkType Entity::type{"Mox::Entity", nullptr, {}};

const FwkType* Entity::fwkType() const {
    return &type;
}

void Entity::zeroReferencesIs(bool zero) {
    if (zero && notifiees_.walks_ != nullptr) {
        notifiees_.gone_ = this;
        return;
    }
    PtrInterface::zeroReferencesIs(zero);
}

String Entity::name() const {
    return String();
}

void Entity::handleParent(Ptr<Entity>) {}

Notifiee::Notifiee(Ptr<Entity> notifier, AttributeSet wanted) : wanted_(wanted) {
    notifierIs(std::move(notifier));
}

Notifiee::~Notifiee() {
    notifierIs(nullptr);
}

void Notifiee::zeroReferencesIs(bool zero) {
    if (zero && call_ != nullptr) {
        call_->gone = true;
        return;
    }
    PtrInterface::zeroReferencesIs(zero);
}

void Notifiee::notifierIs(Ptr<Entity> notifier) {
    // The old notifier is dropped last, when this object is in order: it may go with this
    // reference.
    const Ptr<Entity> old = std::exchange(notifier_, std::move(notifier));
    if (old) {
        old->notifieeList()->remove(this);
    }
    if (notifier_) {
        notifier_->notifieeList()->add(this);
    }
}

}  // namespace Mox
