/// @file
/// Network namespaces as entities: which exist, and the state of each.
#pragma once

#include <cstdint>
#include <utility>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Enum.h"
#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// The life of a namespace: its owner creates it, agents use it, its owner removes it.
enum class NamespaceState : uint32_t { initializing = 0, active = 1, deleting = 2 };

/// @throws Mox::RangeException "Invalid NamespaceState"
PAVO_EXPORT NamespaceState NamespaceStateInstance(uint32_t value);
/// @throws Mox::RangeException "Invalid NamespaceState"
PAVO_EXPORT NamespaceState NamespaceStateInstance(const Mox::String& name);

constexpr auto enumDescription(NamespaceState) {
    return Mox::enumeration<NamespaceState>("Invalid NamespaceState",
                                            {{NamespaceState::initializing, "initializing"},
                                             {NamespaceState::active, "active"},
                                             {NamespaceState::deleting, "deleting"}});
}

/// The state of one namespace as a process publishes it: `initializing` while its owner creates it,
/// `active` while agents may use it, `deleting` when they have to leave it.
class PAVO_EXPORT NamespaceStatusLocal : public Mox::EntityOf<NamespaceStatusLocal> {
  public:
    static constexpr Mox::Attribute<NamespaceStatusLocal> stateAttr{0, "state"};
    static constexpr Mox::Attribute<NamespaceStatusLocal> lastErrorAttr{1, "lastError"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::NamespaceStatusLocal",
                                Mox::attribute(stateAttr, &NamespaceStatusLocal::state),
                                Mox::attribute(lastErrorAttr, &NamespaceStatusLocal::lastError));
    }

    explicit NamespaceStatusLocal(NamespaceName nsName) : nsName_(std::move(nsName)) {}

    Mox::String name() const override { return nsName_.value(); }

    /// As it was made with.
    const NamespaceName& nsName() const { return nsName_; }
    /// At first `initializing`.
    NamespaceState state() const { return state_; }
    void stateIs(NamespaceState state) { attributeIs(state_, state, stateAttr); }
    /// Why the owner could not enter the namespace at its last attempt, for people to read, such as
    /// "socketAt(blue): Operation not permitted". Empty when it could, and before it has tried.
    const Mox::String& lastError() const MOX_LIFETIME_BOUND { return lastError_; }
    void lastErrorIs(Mox::String text) { attributeIs(lastError_, std::move(text), lastErrorAttr); }

  private:
    NamespaceName nsName_;
    NamespaceState state_ = NamespaceState::initializing;
    Mox::String lastError_;
};

/// The namespaces of a process, or of a part of it that keeps one of these, in the order of their
/// names. Observers are notified with the name of each member added or removed, and may change the
/// collection meanwhile.
class PAVO_EXPORT NamespaceStatusLocalDir : public Mox::EntityOf<NamespaceStatusLocalDir> {
  public:
    static constexpr Mox::Attribute<NamespaceStatusLocalDir, NamespaceName> nsAttr{0, "ns"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::NamespaceStatusLocalDir", Mox::attribute(nsAttr));
    }

    explicit NamespaceStatusLocalDir(Mox::String name) : name_(std::move(name)) {}

    Mox::String name() const override { return name_; }

    const Mox::Directory<NamespaceStatusLocal>& ns() const { return ns_; }
    /// The status of that namespace, or null.
    Mox::Ptr<NamespaceStatusLocal> ns(const NamespaceName& nsName) const {
        return ns_.find(nsName.value());
    }
    /// The status of that namespace, created unless it exists.
    Mox::Ptr<NamespaceStatusLocal> nsIs(NamespaceName nsName);
    void nsDel(const NamespaceName& nsName) { memberDel(ns_, nsName.value(), nsAttr); }
    void nsDelAll() { memberDelAll(ns_, nsAttr); }

  private:
    Mox::String name_;
    Mox::Directory<NamespaceStatusLocal> ns_;
};

/// A namespace for an agent to work in.
class PAVO_EXPORT Netns : public Mox::EntityOf<Netns> {
  public:
    static constexpr Mox::Attribute<Netns> nsAttr{0, "ns"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::Netns", Mox::attribute(nsAttr, &Netns::ns));
    }

    explicit Netns(Mox::String name) : name_(std::move(name)) {}

    Mox::String name() const override { return name_; }

    /// At first the namespace in which the process started.
    const NamespaceName& ns() const { return ns_; }
    void nsIs(NamespaceName ns) { attributeIs(ns_, std::move(ns), nsAttr); }

  private:
    Mox::String name_;
    NamespaceName ns_;
};

/// One `Netns` for each namespace, held until it is removed, in the order of their names. Observers
/// are notified as those of `NamespaceStatusLocalDir`.
class PAVO_EXPORT NetnsFactory : public Mox::EntityOf<NetnsFactory> {
  public:
    static constexpr Mox::Attribute<NetnsFactory, NamespaceName> netnsAttr{0, "netns"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::NetnsFactory", Mox::attribute(netnsAttr));
    }

    explicit NetnsFactory(Mox::String name) : name_(std::move(name)) {}

    Mox::String name() const override { return name_; }

    const Mox::Directory<Netns>& netns() const { return netns_; }
    /// The entity of that namespace, or null.
    Mox::Ptr<Netns> netns(const NamespaceName& ns) const { return netns_.find(ns.value()); }
    /// The entity of that namespace, created with its name and `ns` set unless it exists.
    Mox::Ptr<Netns> netnsIs(NamespaceName ns);
    void netnsDel(const NamespaceName& ns) { memberDel(netns_, ns.value(), netnsAttr); }

  private:
    Mox::String name_;
    Mox::Directory<Netns> netns_;
};

PAVO_EXPORT Mox::Ptr<NamespaceStatusLocal> namespaceStatusLocalFactory(const NamespaceName& nsName);
PAVO_EXPORT Mox::Ptr<NamespaceStatusLocalDir> namespaceStatusLocalDirFactory(
    const Mox::String& name);
PAVO_EXPORT Mox::Ptr<Netns> netnsFactory(const Mox::String& name);
PAVO_EXPORT Mox::Ptr<NetnsFactory> netnsFactoryFactory(const Mox::String& name);

}  // namespace Pavo
