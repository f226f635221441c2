/// @file
/// Collections inside entities. Each tells its owner whether a call changed it; the owner then
/// notifies with the key:
///
///     void prefixIs(const Prefix& prefix) {
///         if (prefixes_.add(prefix)) {
///             notify(prefixAttr, prefix);
///         }
///     }
///
/// A version counts the changes, so that a reader sees at once whether anything happened.
#pragma once

#include <concepts>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "Mox/Assert.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

namespace Mox {

namespace Detail {

class Versioned {
  public:
    uint32_t version() const { return version_; }

  protected:
    bool bump(bool changed) {
        version_ += changed ? 1 : 0;
        return changed;
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
    /// Sets a member back to the default value; the last one goes altogether.
    bool del(uint32_t index) {
        if (index >= members()) {
            return false;
        }
        if (index + 1 == members()) {
            items_.pop_back();
            return bump(true);
        }
        return is(index, T{});
    }
    /// Empties the array, then calls `removed(index)` for each member it had.
    template <std::invocable<uint32_t> Removed>
    void delAll(Removed removed) {
        const uint32_t count = members();
        items_.clear();
        bump(count != 0);
        for (uint32_t index = 0; index < count; ++index) {
            removed(index);
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
    uint32_t members() const { return static_cast<uint32_t>(items_.size()); }
    /// The value, or null.
    const T* find(const Key& key) const {
        const auto it = items_.find(key);
        return it == items_.end() ? nullptr : &it->second;
    }
    bool is(const Key& key, T value) {
        const auto [it, added] = items_.try_emplace(key, value);
        if (!added && it->second == value) {
            return false;
        }
        it->second = std::move(value);
        return bump(true);
    }
    bool del(const Key& key) { return bump(items_.erase(key) != 0); }
    template <std::invocable<const Key&> Removed>
    void delAll(Removed removed) {
        const auto gone = std::exchange(items_, {});
        bump(!gone.empty());
        for (const auto& each : gone) {
            removed(each.first);
        }
    }

    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }

  private:
    std::map<Key, T> items_;
};

/// Distinct values, in their order.
template <class T>
class Set : public Detail::Versioned {
  public:
    uint32_t members() const { return static_cast<uint32_t>(items_.size()); }
    bool contains(const T& value) const { return items_.count(value) != 0; }
    bool add(const T& value) { return bump(items_.insert(value).second); }
    bool del(const T& value) { return bump(items_.erase(value) != 0); }
    template <std::invocable<const T&> Removed>
    void delAll(Removed removed) {
        const auto gone = std::exchange(items_, {});
        bump(!gone.empty());
        for (const T& each : gone) {
            removed(each);
        }
    }

    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }

  private:
    std::set<T> items_;
};

/// Values in the order in which they came.
template <class T>
class Queue : public Detail::Versioned {
  public:
    uint32_t members() const { return static_cast<uint32_t>(items_.size()); }
    bool empty() const { return items_.empty(); }
    /// @pre not empty.
    const T& front() const { return items_.front(); }
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

/// Entities by name. A member is told of its parent when it comes and when it goes.
template <std::derived_from<Entity> T>
class Directory : public Detail::Versioned {
  public:
    uint32_t members() const { return static_cast<uint32_t>(items_.size()); }
    /// The entity, or null.
    Ptr<T> find(const String& name) const {
        const auto it = items_.find(name);
        return it == items_.end() ? nullptr : it->second;
    }
    /// Puts in what `create(name)` makes, unless there is one of that name; true when it did.
    template <class Create>
    bool add(const String& name, const Ptr<Entity>& parent, Create create) {
        if (items_.count(name) != 0) {
            return false;
        }
        const Ptr<T> entity = create(name);
        if (!items_.emplace(name, entity).second) {
            return false;  // What `create` did has put one in.
        }
        bump(true);
        entity->handleParent(parent);
        return true;
    }
    bool del(const String& name) {
        const auto it = items_.find(name);
        if (it == items_.end()) {
            return false;
        }
        const Ptr<T> gone = it->second;
        items_.erase(it);
        bump(true);
        gone->handleParent(nullptr);
        return true;
    }
    template <std::invocable<const String&> Removed>
    void delAll(Removed removed) {
        const auto gone = std::exchange(items_, {});
        bump(!gone.empty());
        for (const auto& [name, entity] : gone) {
            entity->handleParent(nullptr);
            removed(name);
        }
    }

    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }

  private:
    std::map<String, Ptr<T>> items_;
};

}  // namespace Mox
