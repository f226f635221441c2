/// @file
/// Reference-counted objects: the base of all that is held by `Mox::Ptr`.
#pragma once

#include <atomic>
#include <compare>
#include <cstdint>
#include <type_traits>
#include <typeindex>  // Declares std::hash.
#include <utility>

#include "Mox/Export.h"
#include "Mox/Lifetime.h"

namespace Mox {

class NotifieeList;
struct FwkType;

namespace Detail {

// Here for the sake of inline counting: `PtrInterface` and `liveObjects` are the interface.
MOX_EXPORT extern bool threadSafePointers;
MOX_EXPORT extern std::atomic<uint32_t> liveObjects;

/// Adds to a count and returns the sum. Without threads a locked instruction would cost more than
/// all the rest of copying a pointer.
inline uint32_t countChanged(std::atomic<uint32_t>& count, uint32_t delta) {
    if (__builtin_expect(threadSafePointers, 0)) {
        return count.fetch_add(delta, std::memory_order_acq_rel) + delta;
    }
    const uint32_t sum = count.load(std::memory_order_relaxed) + delta;
    count.store(sum, std::memory_order_relaxed);
    return sum;
}

}  // namespace Detail

/// The base of all that `Ptr` points to: the count of references, and what the framework asks of
/// every object. The virtual functions stand in a fixed order, since agents are compiled against
/// it.
///
/// An object starts with one reference, which `Mox::make` hands to the `Ptr` that it returns: a
/// `Ptr` to itself that a constructor makes and drops deletes nothing. An object on the stack keeps
/// that first reference for life.
///
/// Counting is plain until the process says that it shares objects between threads.
class MOX_EXPORT PtrInterface {
  public:
    /// A class without a record of its own has that of its nearest base.
    using DescribedClass = PtrInterface;

    PtrInterface(const PtrInterface&) = delete;
    PtrInterface& operator=(const PtrInterface&) = delete;

    /// `Ptr(new T)` would hold two references where there is one holder, so that the object would
    /// never be deleted: objects come from `Mox::make<T>(...)`. A class with allocation of its own
    /// declares both operators again.
    static void* operator new(std::size_t) = delete;
    static void* operator new[](std::size_t) = delete;

    /// The observers of this object, or null for an object that is not observed.
    virtual NotifieeList* notifieeList();
    /// Switches this object, as an observer, on or off.
    virtual void hasNotificationActiveIs(bool active);
    /// Called with true when the last reference has gone; deletes the object. A machine detaches
    /// its inner reactors here, while its members still exist.
    virtual void zeroReferencesIs(bool zero);
    /// The framework's record of the object's class.
    virtual const FwkType* fwkType() const;

  protected:
    PtrInterface() { Detail::countChanged(Detail::liveObjects, 1); }
    virtual ~PtrInterface() { Detail::countChanged(Detail::liveObjects, ~0u); }

    // For a class that keeps objects whose last reference has gone, to use them again.

    /// Takes `objects` of them out of `liveObjects()`.
    static void putAside(uint32_t objects) {
        Detail::countChanged(Detail::liveObjects, 0u - objects);
    }
    /// Counts `objects` of them again.
    static void takeBack(uint32_t objects) { Detail::countChanged(Detail::liveObjects, objects); }
    /// Gives this object what `Mox::make` gives a new one: one reference, and notifications on.
    void renew() {
        references_.store(1, std::memory_order_relaxed);
        notificationActive_ = true;
    }

  public:
    /// Makes counting atomic in the whole process, or plain again. To be called before the first
    /// object is shared, and while no other thread counts.
    static void threadSafePointersIs(bool threadSafe) { Detail::threadSafePointers = threadSafe; }
    /// False at first.
    static bool threadSafePointers() { return Detail::threadSafePointers; }

    /// True once `Mox::make` has made the object.
    bool hasNotificationActive() const { return notificationActive_; }

    /// Counted by `Ptr`; for callers that hand a reference through a C interface.
    void referencesInc() const { Detail::countChanged(references_, 1); }
    /// Drops a reference; the last one deletes the object.
    void referencesDec() const {
        if (Detail::countChanged(references_, ~0u) == 0) {
            lastReferenceGone();
        }
    }
    /// A caller that finds itself the only holder may write: it sees what others wrote before they
    /// let go.
    uint32_t references() const { return references_.load(std::memory_order_acquire); }

  private:
    void lastReferenceGone() const;

    mutable std::atomic<uint32_t> references_ = 1;
    bool notificationActive_ = false;
};

/// Objects of the framework that exist at this moment in the whole process: a test that ends with
/// the number it began with has leaked none.
inline uint32_t liveObjects() {
    return Detail::liveObjects.load(std::memory_order_relaxed);
}

/// Makes `Ptr` take over the reference that an object starts with.
struct AdoptReference {};

/// A pointer to `U` converts to one to `T`, without a cast.
template <class U, class T>
concept PointsTo = std::is_convertible_v<U*, T*>;

/// A counted reference to a `PtrInterface`, or null.
template <class T>
class Ptr {
  public:
    constexpr Ptr() = default;
    /// Null.
    constexpr Ptr(std::nullptr_t) {}
    /// Shares the object, which may be null.
    Ptr(T* object) : object_(object) { retain(); }
    /// Takes a reference over without counting it.
    Ptr(T* object, AdoptReference) : object_(object) {}
    /// Shares the object.
    Ptr(const Ptr& other) : Ptr(other.object_) {}
    /// Leaves `other` null.
    Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    /// Shares the object of a pointer to a derived class.
    template <PointsTo<T> U>
    Ptr(const Ptr<U>& other) : Ptr(other.ptr()) {}
    /// Leaves `other` null.
    template <PointsTo<T> U>
    Ptr(Ptr<U>&& other) noexcept : object_(other.release()) {}
    ~Ptr() {
        if (object_ != nullptr) {
            object_->referencesDec();
        }
    }

    /// Drops the old object after this pointer is whole again: its destructor may come back here.
    Ptr& operator=(Ptr other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }

    /// The object, or null.
    /// @{
    T* ptr() const { return object_; }
    T* operator->() const MOX_LIFETIME_BOUND { return object_; }
    T& operator*() const { return *object_; }
    /// @}
    /// Not null.
    explicit operator bool() const { return object_ != nullptr; }

    /// Gives the reference up without dropping it.
    T* release() { return std::exchange(object_, nullptr); }

    friend bool operator==(const Ptr& a, const Ptr& b) { return a.object_ == b.object_; }
    friend bool operator==(const Ptr& a, const T* b) { return a.object_ == b; }
    friend bool operator==(const Ptr& a, std::nullptr_t) { return a.object_ == nullptr; }
    friend auto operator<=>(const Ptr& a, const Ptr& b) {
        return std::compare_three_way()(a.object_, b.object_);
    }

  private:
    void retain() {
        if (object_ != nullptr) {
            object_->referencesInc();
        }
    }

    T* object_ = nullptr;
};

/// `ptr` as a pointer to `T`; null when the object is of another class.
template <class T, class U>
Ptr<T> dynamicPtrCast(const Ptr<U>& ptr) {
    return dynamic_cast<T*>(ptr.ptr());
}

namespace Detail {

/// What `make` creates for `T`: a class derived from it where `T` asks for that.
template <class T>
struct Made {
    using Type = T;
};
template <class T>
requires requires {
    typename T::template Made<T>;
}
struct Made<T> {
    using Type = typename T::template Made<T>;
};

}  // namespace Detail

/// A new object with its notifications active: what every factory function returns.
template <class T, class... Args>
Ptr<T> make(Args&&... args) {
    using Made = typename Detail::Made<T>::Type;
    T* object;
    if constexpr (requires { T::operator new(sizeof(T)); }) {
        object = new Made(std::forward<Args>(args)...);
    } else {
        object = ::new Made(std::forward<Args>(args)...);
    }
    Ptr<T> made(object, AdoptReference());
    made->hasNotificationActiveIs(true);
    return made;
}

}  // namespace Mox

template <class T>
struct std::hash<Mox::Ptr<T>> {
    std::size_t operator()(const Mox::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
