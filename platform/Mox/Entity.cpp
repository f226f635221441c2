#include "Mox/Entity.h"

namespace Mox {

// A notification in progress. Removing an observer moves `next` past it, in every walk of the list.
struct NotifieeList::Walk {
    Notifiee* next;
    Walk* outer;

    // Puts a walk on the list and takes it off again. It is apart from the walk, whose address the
    // list has, so that what it puts back stays in registers.
    class Scope {
      public:
        Scope(NotifieeList& list, Walk* walk) : list_(list), outer_(walk->outer) {
            list_.walks_ = walk;
        }
        ~Scope() {
            list_.walks_ = outer_;
            if (__builtin_expect(list_.gone_ != nullptr, 0) && outer_ == nullptr) {
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

// A call of an observer in progress, which keeps the observer from being deleted.
class Notifiee::Call {
  public:
    explicit Call(Notifiee* callee) : callee_(callee) { ++callee_->calls_; }
    ~Call() {
        if (--callee_->calls_ == 0 && __builtin_expect(callee_->gone_, 0)) {
            callee_->PtrInterface::zeroReferencesIs(true);
        }
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

  private:
    Notifiee* const callee_;
};

NotifieeList::~NotifieeList() {
    require(walks_ == nullptr, "walks_ == nullptr");
    delAll();
}

void NotifieeList::delAll() {
    // Observers may hold the last references to the owner.
    const Ptr<Entity> owner = first_ == nullptr ? nullptr : first_->notifier_;
    while (first_ != nullptr) {
        first_->notifierIs(nullptr);
    }
}

// The end of a call may destroy the observer, and with it others of the list: `next` is read only
// after that.
void NotifieeList::notify(const Change& change) {
    if (first_ == nullptr) {
        return;
    }
    const uint64_t newest = added_;  // Observers added from here on are not notified.
    Walk walk{first_, walks_};
    const Walk::Scope walking(*this, &walk);
    do {
        Notifiee* const each = walk.next;
        walk.next = each->next_;
        if ((each->wanted_ >> change.attribute.number & 1) != 0 && each->hasNotificationActive()) {
            const Notifiee::Call call(each);
            each->handleChange(change);
        }
    } while (walk.next != nullptr && walk.next->addedAs_ <= newest);
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
        }
    }
    (notifiee->previous_ != nullptr ? notifiee->previous_->next_ : first_) = notifiee->next_;
    (notifiee->next_ != nullptr ? notifiee->next_->previous_ : last_) = notifiee->previous_;
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

Notifiee::~Notifiee() {
    notifierIs(nullptr);
}

void Notifiee::zeroReferencesIs(bool zero) {
    if (zero && calls_ != 0) {
        gone_ = true;
        return;
    }
    PtrInterface::zeroReferencesIs(zero);
}

void Notifiee::notifierIs(Ptr<Entity> notifier) {
    require(!notifier || notifier->fwkType()->isA(*notifierType_),
            "notifier is of a class without the wanted attributes");
    // The old notifier is dropped last, when this object is consistent: this may be the last
    // reference to it.
    const Ptr<Entity> old = std::exchange(notifier_, std::move(notifier));
    if (old) {
        old->notifieeList()->remove(this);
    }
    if (notifier_) {
        notifier_->notifieeList()->add(this);
    }
}

}  // namespace Mox
