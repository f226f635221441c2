/// @file
/// How a machine publishes several changes of its status as one.
#pragma once

#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"

namespace Pavo {

/// Notifications of one status, made at once, or while `publish` runs, after all changes.
class PAVO_EXPORT TcpStatusPublisherBase {
  public:
    /// Makes the changes of `changes()`, and then notifies of them in the order in which they were
    /// made. An attribute that was set more than once is notified once, at its last change. Inside
    /// another call's `changes()` it only adds to these; inside a notification it is a publication
    /// of its own, which ends before the outer one goes on. All notifications are made, also where
    /// an observer throws; the first exception then passes through. The caller holds the status.
    void publish(const std::function<void()>& changes);
    /// `changes()` is being called.
    bool isChanging() const { return isChanging_; }

  protected:
    /// Notifies of an attribute or, where `isMember`, of a member of a collection.
    void add(const Mox::AttributeBase& attribute, bool isMember, std::function<void()> notify);

  private:
    struct Pending {
        const Mox::AttributeBase* attribute;
        std::function<void()> notify;
    };

    std::vector<Pending> pending_;
    bool isChanging_ = false;
};

/// A member of the entity `Status`, whose setters store and notify through it.
template <class Status>
class TcpStatusPublisher : public TcpStatusPublisherBase {
  public:
    explicit TcpStatusPublisher(Status* status) : status_(status) {}

    /// Stores `value`, and notifies if that changed `field`.
    template <class Field>
    void set(Field& field, std::type_identity_t<Field> value,
             const Mox::Attribute<Status>& attribute) {
        if (field == value) {
            return;
        }
        field = std::move(value);
        add(attribute, /*isMember=*/false, [this, &attribute] { status_->notify(attribute); });
    }

    /// Adds `delta` to `field` likewise, and returns its value after the notification.
    template <class Field>
    Field inc(Field& field, std::type_identity_t<Field> delta,
              const Mox::Attribute<Status>& attribute) {
        const Mox::Ptr<Status> hold(status_);
        set(field, static_cast<Field>(field + delta), attribute);
        return field;
    }

    /// Notifies of a member of a collection, which has changed already.
    void notify(const Mox::Attribute<Status, uint32_t>& attribute, uint32_t member) {
        add(attribute, /*isMember=*/true,
            [this, &attribute, member] { status_->notify(attribute, member); });
    }

  private:
    Status* status_;
};

}  // namespace Pavo
