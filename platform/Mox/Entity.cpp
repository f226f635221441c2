#include "Mox/Entity.h"

namespace Mox {

// The list points at what lives on the stack of `notify`, which takes the pointer back.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif

// A telling under way, on the stack of the one who tells. Removing an observer moves the place of
// every telling that stands on it.
struct NotifieeList::Walk {
    explicit Walk(NotifieeList& of)
        : list(of), next(of.first_), newest(of.added_), outer(of.walks_) {
        list.walks_ = this;
    }
    ~Walk() { list.walks_ = outer; }

    NotifieeList& list;
    Notifiee* next;
    uint64_t newest;  // Whoever comes later is not told of this change.
    Walk* outer;
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
    Walk walk(*this);
    while (walk.next != nullptr && walk.next->addedAs_ <= walk.newest) {
        Notifiee* each = walk.next;
        walk.next = each->next_;
        if (each->wanted_.contains(change.attribute) && each->hasNotificationActive()) {
            const Ptr<Notifiee> hold(each);
            each->handleChange(change);
        }
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
        }
    }
    (notifiee->previous_ != nullptr ? notifiee->previous_->next_ : first_) = notifiee->next_;
    (notifiee->next_ != nullptr ? notifiee->next_->previous_ : last_) = notifiee->previous_;
}

constinit const FwkType Entity::type{"Mox::Entity", nullptr, {}};

const FwkType* Entity::fwkType() const {
    return &type;
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
