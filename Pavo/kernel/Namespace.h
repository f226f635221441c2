/// @file
/// Network namespaces as entities: which there are, and how far each has come.
#pragma once

#include <cstdint>
#include <utility>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Enum.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// How far the owner of a namespace has come with making or removing it.
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

/// What a process tells of one namespace: `initializing` while its owner makes it, `active` while
/// agents may use it, `deleting` when they are to leave it.
class PAVO_EXPORT NamespaceStatusLocal : public Mox::EntityOf<NamespaceStatusLocal> {
  public:
    static constexpr Mox::Attribute<NamespaceStatusLocal> stateAttr{0, "state"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::NamespaceStatusLocal",
                                Mox::attribute(stateAttr, &NamespaceStatusLocal::state));
    }

    explicit NamespaceStatusLocal(NamespaceName nsName) : nsName_(std::move(nsName)) {}

    Mox::String name() const override { return nsName_.value(); }

    const NamespaceName& nsName() const { return nsName_; }
    NamespaceState state() const { return state_; }
    void stateIs(NamespaceState state) { attributeIs(state_, state, stateAttr); }

  private:
    NamespaceName nsName_;
    NamespaceState state_ = NamespaceState::initializing;
};

// The two entities below notify with the member that was added or deleted; observers may change the
// collection again meanwhile. It is in the order of the names.

/// The namespaces of a process by name.
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
    /// The status of that namespace, made unless there is one.
    Mox::Ptr<NamespaceStatusLocal> nsIs(const NamespaceName& nsName);
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

    const NamespaceName& ns() const { return ns_; }
    void nsIs(NamespaceName ns) { attributeIs(ns_, std::move(ns), nsAttr); }

  private:
    Mox::String name_;
    NamespaceName ns_;
};

/// The `Netns` of each namespace, one a namespace. It holds them until they are taken out.
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
    /// The entity of that namespace, made unless there is one, with its name and `ns` set.
    Mox::Ptr<Netns> netnsIs(const NamespaceName& ns);
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
