/// @file
/// Entities that hold prefixes of either family: one, a set, a set with a name, a directory of
/// sets.
#pragma once

#include <utility>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/value/IpGenPrefix.h"

namespace Pavo {

/// One prefix, as an entity.
class PAVO_EXPORT IpGenPrefixRef : public Mox::EntityOf<IpGenPrefixRef> {
  public:
    static constexpr Mox::Attribute<IpGenPrefixRef> prefixAttr{0, "prefix"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::IpGenPrefixRef",
                                Mox::attribute(prefixAttr, &IpGenPrefixRef::prefix));
    }

    /// With that prefix.
    explicit IpGenPrefixRef(const IpGenPrefix& prefix) : prefix_(prefix) {}

    /// The setter notifies if the prefix changes.
    const IpGenPrefix& prefix() const { return prefix_; }
    void prefixIs(const IpGenPrefix& prefix) { attributeIs(prefix_, prefix, prefixAttr); }

  private:
    IpGenPrefix prefix_;
};

// The entities below notify with the member that was added or deleted; observers may change the set
// during the notification.

/// A set of prefixes.
class PAVO_EXPORT IpGenPrefixSet : public Mox::EntityOf<IpGenPrefixSet> {
  public:
    static constexpr Mox::Attribute<IpGenPrefixSet, IpGenPrefix> prefixAttr{0, "prefix"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::IpGenPrefixSet", Mox::attribute(prefixAttr));
    }

    const Mox::Set<IpGenPrefix>& prefix() const { return prefix_; }
    bool prefix(const IpGenPrefix& prefix) const { return prefix_.contains(prefix); }
    /// Adds the prefix, or with false removes it.
    void prefixIs(const IpGenPrefix& prefix, bool isMember = true) {
        memberIs(prefix_, prefix, isMember, prefixAttr);
    }
    void prefixDel(const IpGenPrefix& prefix) { prefixIs(prefix, false); }
    void prefixDelAll() { memberDelAll(prefix_, prefixAttr); }

  private:
    Mox::Set<IpGenPrefix> prefix_;
};

/// A set of prefixes with a name.
class PAVO_EXPORT IpGenPrefixColl : public Mox::EntityOf<IpGenPrefixColl> {
  public:
    static constexpr Mox::Attribute<IpGenPrefixColl, IpGenPrefix> prefixSetAttr{0, "prefixSet"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::IpGenPrefixColl", Mox::attribute(prefixSetAttr));
    }

    explicit IpGenPrefixColl(Mox::String name) : name_(std::move(name)) {}

    Mox::String name() const override { return name_; }

    const Mox::Set<IpGenPrefix>& prefixSet() const { return prefixSet_; }
    bool prefixSet(const IpGenPrefix& prefix) const { return prefixSet_.contains(prefix); }
    /// Adds the prefix, or with false removes it.
    void prefixSetIs(const IpGenPrefix& prefix, bool isMember = true) {
        memberIs(prefixSet_, prefix, isMember, prefixSetAttr);
    }
    void prefixSetDel(const IpGenPrefix& prefix) { prefixSetIs(prefix, false); }
    void prefixSetDelAll() { memberDelAll(prefixSet_, prefixSetAttr); }

  private:
    Mox::String name_;
    Mox::Set<IpGenPrefix> prefixSet_;
};

/// The prefixes that an agent is to match, and the exceptions among them.
class PAVO_EXPORT IpGenPrefixSetConfig : public Mox::EntityOf<IpGenPrefixSetConfig> {
  public:
    static constexpr Mox::Attribute<IpGenPrefixSetConfig, IpGenPrefix> prefixAttr{0, "prefix"};
    static constexpr Mox::Attribute<IpGenPrefixSetConfig, IpGenPrefix> prefixExceptAttr{
        1, "prefixExcept"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::IpGenPrefixSetConfig", Mox::attribute(prefixAttr),
                                Mox::attribute(prefixExceptAttr));
    }

    explicit IpGenPrefixSetConfig(Mox::String name) : name_(std::move(name)) {}

    Mox::String name() const override { return name_; }

    const Mox::Set<IpGenPrefix>& prefix() const { return prefix_; }
    bool prefix(const IpGenPrefix& prefix) const { return prefix_.contains(prefix); }
    /// Adds the prefix, or with false removes it.
    void prefixIs(const IpGenPrefix& prefix, bool isMember = true) {
        memberIs(prefix_, prefix, isMember, prefixAttr);
    }
    void prefixDel(const IpGenPrefix& prefix) { prefixIs(prefix, false); }
    void prefixDelAll() { memberDelAll(prefix_, prefixAttr); }

    const Mox::Set<IpGenPrefix>& prefixExcept() const { return prefixExcept_; }
    bool prefixExcept(const IpGenPrefix& prefix) const { return prefixExcept_.contains(prefix); }
    /// Adds the prefix, or with false removes it.
    void prefixExceptIs(const IpGenPrefix& prefix, bool isMember = true) {
        memberIs(prefixExcept_, prefix, isMember, prefixExceptAttr);
    }
    void prefixExceptDel(const IpGenPrefix& prefix) { prefixExceptIs(prefix, false); }
    void prefixExceptDelAll() { memberDelAll(prefixExcept_, prefixExceptAttr); }

  private:
    Mox::String name_;
    Mox::Set<IpGenPrefix> prefix_;
    Mox::Set<IpGenPrefix> prefixExcept_;
};

/// Prefix sets by name.
class PAVO_EXPORT IpGenPrefixSetConfigDir : public Mox::EntityOf<IpGenPrefixSetConfigDir> {
  public:
    static constexpr Mox::Attribute<IpGenPrefixSetConfigDir, Mox::String> prefixSetAttr{
        0, "prefixSet"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::IpGenPrefixSetConfigDir", Mox::attribute(prefixSetAttr));
    }

    explicit IpGenPrefixSetConfigDir(Mox::String name) : name_(std::move(name)) {}

    Mox::String name() const override { return name_; }

    const Mox::Directory<IpGenPrefixSetConfig>& prefixSet() const { return prefixSet_; }
    /// The set of that name, or null.
    Mox::Ptr<IpGenPrefixSetConfig> prefixSet(const Mox::String& name) const {
        return prefixSet_.find(name);
    }
    /// The set of that name; a new, empty one when there is none.
    Mox::Ptr<IpGenPrefixSetConfig> prefixSetIs(const Mox::String& name);
    void prefixSetDel(const Mox::String& name) { memberDel(prefixSet_, name, prefixSetAttr); }
    void prefixSetDelAll() { memberDelAll(prefixSet_, prefixSetAttr); }

  private:
    Mox::String name_;
    Mox::Directory<IpGenPrefixSetConfig> prefixSet_;
};

PAVO_EXPORT Mox::Ptr<IpGenPrefixRef> ipGenPrefixRefFactory(const IpGenPrefix& prefix);
PAVO_EXPORT Mox::Ptr<IpGenPrefixSet> ipGenPrefixSetFactory();
PAVO_EXPORT Mox::Ptr<IpGenPrefixColl> ipGenPrefixCollFactory(const Mox::String& name);
PAVO_EXPORT Mox::Ptr<IpGenPrefixSetConfig> ipGenPrefixSetConfigFactory(const Mox::String& name);
PAVO_EXPORT Mox::Ptr<IpGenPrefixSetConfigDir> ipGenPrefixSetConfigDirFactory(
    const Mox::String& name);

}  // namespace Pavo
