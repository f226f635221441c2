#include "Pavo/kernel/Namespace.h"

namespace Pavo {

NamespaceState NamespaceStateInstance(uint32_t value) {
    return enumValue<NamespaceState>(value);
}

NamespaceState NamespaceStateInstance(const Mox::String& name) {
    return enumValue<NamespaceState>(name);
}

// By value, here and below: an observer may delete the member that has the name.
Mox::Ptr<NamespaceStatusLocal> NamespaceStatusLocalDir::nsIs(NamespaceName nsName) {
    const auto create = [&nsName](const Mox::String&) {
        return namespaceStatusLocalFactory(nsName);
    };
    if (!ns_.add(nsName.value(), Mox::Ptr<Mox::Entity>(this), create)) {
        return ns(nsName);
    }
    const auto added = ns(nsName);  // An observer may remove it.
    notify(nsAttr, nsName);
    return added;
}

Mox::Ptr<Netns> NetnsFactory::netnsIs(NamespaceName ns) {
    const auto create = [&ns](const Mox::String& name) {
        const auto created = netnsFactory(name);
        created->nsIs(ns);
        return created;
    };
    if (!netns_.add(ns.value(), Mox::Ptr<Mox::Entity>(this), create)) {
        return netns(ns);
    }
    const auto added = netns(ns);  // An observer may remove it.
    notify(netnsAttr, ns);
    return added;
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
