/// @file
/// Collections inside entities. Adding says whether it changed the collection, and deleting returns
/// the key of the member that has gone; the entity then notifies with the key:
///
///     void prefixIs(const Prefix& prefix) {
///         if (prefix_.add(prefix)) {
///             notify(prefixAttr, prefix);
///         }
///     }
///     void prefixDel(const Prefix& prefix) { memberDel(prefix_, prefix, prefixAttr); }
///     void prefixDelAll() { memberDelAll(prefix_, prefixAttr); }
///
/// The key to notify with after a deletion is the one returned, as `memberDel` does it: the
/// caller's may be a reference to the one that was inside the deleted member.
///
/// `delAll(removed)` deletes the members that there are when it begins, one at a time, and calls
/// `removed(key)` after each. So the collection and its observers agree whenever `removed` runs,
/// also when it throws: what it was not called for is a member still. A member that `removed` adds
/// stays, unless its key is yet to be deleted. The collection has to outlive the call.
///
/// A version counts the changes, so that a reader sees at once whether anything happened.
#pragma once

#include <concepts>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "Mox/Assert.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

namespace Mox {

/// The key of a deleted member, or false where there was none.
template <class Key>
class Deleted {
  public:
    Deleted() = default;
    /// Of a member with that key.
    explicit Deleted(Key key) : key_(std::move(key)) {}

    /// There was one.
    operator bool() const { return key_.has_value(); }
    /// @pre there was one.
    const Key& operator*() const { return *key_; }

  private:
    std::optional<Key> key_;
};

namespace Detail {

class Versioned {
  public:
    uint32_t version() const { return version_; }

  protected:
    bool bump(bool changed) {
        version_ += changed ? 1 : 0;
        return changed;
    }

    template <class Items>
    static std::vector<typename Items::key_type> keysOf(const Items& items) {
        std::vector<typename Items::key_type> keys;
        keys.reserve(items.size());
        for (const auto& each : items) {
            keys.push_back(each.first);
        }
        return keys;
    }
    template <class Collection, class Key, class Removed>
    static void delEach(Collection& collection, const std::vector<Key>& keys, Removed& removed) {
        for (const Key& key : keys) {
            if (collection.del(key)) {
                removed(key);
            }
        }
    }

  private:
    uint32_t version_ = 0;
};

}  // namespace Detail

/// Members by index from 0; one that was never set reads as the default value.
template <class T>
class Array : public Detail::Versioned {
  public:
    /// The number of members up to the last one set.
    uint32_t members() const { return static_cast<uint32_t>(items_.size()); }
    /// The member; the default value for one that was never set.
    const T& at(uint32_t index) const {
        static const T none{};
        return index < members() ? items_[index].value : none;
    }
    /// Sets a member, growing the array where needed; true when that changed it.
    /// @pre `index` is below 2^32 - 1 (assertion "index < UINT32_MAX").
    bool is(uint32_t index, T value) {
        require(index < UINT32_MAX, "index < UINT32_MAX");
        if (index < members() && items_[index].value == value) {
            return false;
        }
        if (index >= members()) {
            items_.resize(index + 1);
        }
        items_[index].value = std::move(value);
        return bump(true);
    }
    /// Sets a member back to the default value; the last one is removed. Returns the index when
    /// that changed the array.
    Deleted<uint32_t> del(uint32_t index) {
        if (index + 1 == members() && index < members()) {
            items_.pop_back();
            bump(true);
            return Deleted(index);
        }
        return index < members() && is(index, T{}) ? Deleted(index) : Deleted<uint32_t>();
    }
    /// From the last member to the first.
    template <std::invocable<uint32_t> Removed>
    void delAll(Removed removed) {
        for (uint32_t index = members(); index-- > 0;) {
            if (del(index)) {
                removed(index);
            }
        }
    }

  private:
    struct Item {  // Keeps std::vector<bool> out.
        T value{};
    };
    std::vector<Item> items_;
};

/// Values by key, in the order of the keys.
template <class Key, class T>
class Map : public Detail::Versioned {
  public:
    /// How many there are.
    uint32_t members() const { return static_cast<uint32_t>(items_.size()); }
    /// The value, or null.
    const T* find(const Key& key) const {
        const auto it = items_.find(key);
        return it == items_.end() ? nullptr : &it->second;
    }
    /// Adds the value, or replaces the one there; true when that changed the map.
    bool is(const Key& key, T value) {
        const auto [it, added] = items_.try_emplace(key, value);
        if (!added && it->second == value) {
            return false;
        }
        it->second = std::move(value);
        return bump(true);
    }
    /// The deleted key, or nothing where there was none.
    Deleted<Key> del(const Key& key) {
        auto gone = items_.extract(key);
        return bump(!gone.empty()) ? Deleted(std::move(gone.key())) : Deleted<Key>();
    }
    /// In the order of the keys.
    template <std::invocable<const Key&> Removed>
    void delAll(Removed removed) {
        delEach(*this, keysOf(items_), removed);
    }

    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }
    /// The first member whose key is not less than `key`, for a walk over a range of keys.
    auto lowerBound(const Key& key) const { return items_.lower_bound(key); }

  private:
    std::map<Key, T> items_;
};

/// Distinct values, in their order.
template <class T>
class Set : public Detail::Versioned {
  public:
    /// How many there are.
    uint32_t members() const { return static_cast<uint32_t>(items_.size()); }
    /// In logarithmic time.
    bool contains(const T& value) const { return items_.count(value) != 0; }
    /// True when it was not a member before.
    bool add(const T& value) { return bump(items_.insert(value).second); }
    /// The deleted member, or nothing where there was none.
    Deleted<T> del(const T& value) {
        auto gone = items_.extract(value);
        return bump(!gone.empty()) ? Deleted(std::move(gone.value())) : Deleted<T>();
    }
    /// In their order.
    template <std::invocable<const T&> Removed>
    void delAll(Removed removed) {
        delEach(*this, std::vector<T>(items_.begin(), items_.end()), removed);
    }

    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }

  private:
    std::set<T> items_;
};

/// Values in the order in which they were pushed.
template <class T>
class Queue : public Detail::Versioned {
  public:
    /// How many there are.
    uint32_t members() const { return static_cast<uint32_t>(items_.size()); }
    /// No value is left.
    bool empty() const { return items_.empty(); }
    /// @pre not empty.
    const T& front() const { return items_.front(); }
    /// Puts the value at the end.
    void push(T value) {
        items_.push_back(std::move(value));
        bump(true);
    }
    /// @pre not empty.
    T pop() {
        T value = std::move(items_.front());
        items_.pop_front();
        bump(true);
        return value;
    }

  private:
    std::deque<T> items_;
};

/// Entities by name. A member's `handleParent` is called when it is added and when it is deleted.
template <std::derived_from<Entity> T>
class Directory : public Detail::Versioned {
  public:
    /// How many there are.
    uint32_t members() const { return static_cast<uint32_t>(items_.size()); }
    /// The entity, or null.
    Ptr<T> find(const String& name) const {
        const auto it = items_.find(name);
        return it == items_.end() ? nullptr : it->second;
    }
    /// Adds what `create(name)` returns, unless there is an entity of that name; true when it did.
    template <class Create>
    bool add(const String& name, const Ptr<Entity>& parent, Create create) {
        if (items_.count(name) != 0) {
            return false;
        }
        const Ptr<T> entity = create(name);
        if (!items_.emplace(name, entity).second) {
            return false;  // `create` has added one itself.
        }
        bump(true);
        entity->handleParent(parent);
        return true;
    }
    /// The name of the deleted entity, or nothing where there was none.
    Deleted<String> del(const String& name) {
        const auto gone = items_.extract(name);
        if (!bump(!gone.empty())) {
            return {};
        }
        gone.mapped()->handleParent(nullptr);
        return Deleted(gone.key());
    }
    /// In the order of the names.
    template <std::invocable<const String&> Removed>
    void delAll(Removed removed) {
        delEach(*this, keysOf(items_), removed);
    }

    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }

  private:
    std::map<String, Ptr<T>> items_;
};

}  // namespace Mox
