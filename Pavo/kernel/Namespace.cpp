#include "Pavo/kernel/Namespace.h"

namespace Pavo {

namespace {

constexpr const Mox::AttributeBase* statusAttributes[] = {&NamespaceStatusLocal::stateAttr};
constexpr const Mox::AttributeBase* dirAttributes[] = {&NamespaceStatusLocalDir::nsAttr};
constexpr const Mox::AttributeBase* netnsAttributes[] = {&Netns::nsAttr};
constexpr const Mox::AttributeBase* factoryAttributes[] = {&NetnsFactory::netnsAttr};

}  // namespace

NamespaceState NamespaceStateInstance(uint32_t value) {
    return enumValue<NamespaceState>(value);
}

NamespaceState NamespaceStateInstance(const Mox::String& name) {
    return enumValue<NamespaceState>(name);
}

constinit const Mox::FwkType NamespaceStatusLocal::type{"Pavo::NamespaceStatusLocal",
                                                        &Mox::Entity::type, statusAttributes};

const Mox::FwkType* NamespaceStatusLocal::fwkType() const {
    return &type;
}

constinit const Mox::FwkType NamespaceStatusLocalDir::type{"Pavo::NamespaceStatusLocalDir",
                                                           &Mox::Entity::type, dirAttributes};

const Mox::FwkType* NamespaceStatusLocalDir::fwkType() const {
    return &type;
}

// By value, here and below: what the caller refers to may be the member that goes.
Mox::Ptr<NamespaceStatusLocal> NamespaceStatusLocalDir::nsIs(NamespaceName nsName) {
    const auto create = [&nsName](const Mox::String&) {
        return namespaceStatusLocalFactory(nsName);
    };
    if (!ns_.add(nsName.value(), Mox::Ptr<Mox::Entity>(this), create)) {
        return ns(nsName);
    }
    const auto added = ns(nsName);  // An observer may take it out again.
    notify(nsAttr, nsName);
    return added;
}

void NamespaceStatusLocalDir::nsDel(NamespaceName nsName) {
    if (ns_.del(nsName.value())) {
        notify(nsAttr, nsName);
    }
}

void NamespaceStatusLocalDir::nsDelAll() {
    const Mox::Ptr<NamespaceStatusLocalDir> hold(this);
    ns_.delAll([this](const Mox::String& name) { notify(nsAttr, NamespaceName(name)); });
}

constinit const Mox::FwkType Netns::type{"Pavo::Netns", &Mox::Entity::type, netnsAttributes};

const Mox::FwkType* Netns::fwkType() const {
    return &type;
}

constinit const Mox::FwkType NetnsFactory::type{"Pavo::NetnsFactory", &Mox::Entity::type,
                                                factoryAttributes};

const Mox::FwkType* NetnsFactory::fwkType() const {
    return &type;
}

Mox::Ptr<Netns> NetnsFactory::netnsIs(NamespaceName ns) {
    const auto create = [&ns](const Mox::String& name) {
        const auto made = netnsFactory(name);
        made->nsIs(ns);
        return made;
    };
    if (!netns_.add(ns.value(), Mox::Ptr<Mox::Entity>(this), create)) {
        return netns(ns);
    }
    const auto added = netns(ns);  // An observer may take it out again.
    notify(netnsAttr, ns);
    return added;
}

void NetnsFactory::netnsDel(NamespaceName ns) {
    if (netns_.del(ns.value())) {
        notify(netnsAttr, ns);
    }
}

Mox::Ptr<NamespaceStatusLocal> namespaceStatusLocalFactory(const NamespaceName& nsName) {
    return Mox::make<NamespaceStatusLocal>(nsName);
}

Mox::Ptr<NamespaceStatusLocalDir> namespaceStatusLocalDirFactory(const Mox::String& name) {
    return Mox::make<NamespaceStatusLocalDir>(name);
}

Mox::Ptr<Netns> netnsFactory(const Mox::String& name) {
    return Mox::make<Netns>(name);
}

Mox::Ptr<NetnsFactory> netnsFactoryFactory(const Mox::String& name) {
    return Mox::make<NetnsFactory>(name);
}

}  // namespace Pavo
