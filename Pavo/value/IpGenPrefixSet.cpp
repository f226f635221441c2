#include "Pavo/value/IpGenPrefixSet.h"

namespace Pavo {

namespace {

constexpr const Mox::AttributeBase* refAttributes[] = {&IpGenPrefixRef::prefixAttr};
constexpr const Mox::AttributeBase* setAttributes[] = {&IpGenPrefixSet::prefixAttr};
constexpr const Mox::AttributeBase* collAttributes[] = {&IpGenPrefixColl::prefixSetAttr};
constexpr const Mox::AttributeBase* configAttributes[] = {
    &IpGenPrefixSetConfig::prefixAttr,
    &IpGenPrefixSetConfig::prefixExceptAttr,
};
constexpr const Mox::AttributeBase* dirAttributes[] = {&IpGenPrefixSetConfigDir::prefixSetAttr};

// True when that changed the set.
bool memberIs(Mox::Set<IpGenPrefix>& set, const IpGenPrefix& prefix, bool isMember) {
    return isMember ? set.add(prefix) : set.del(prefix);
}

}  // namespace

constinit const Mox::FwkType IpGenPrefixRef::type{"Pavo::IpGenPrefixRef", &Mox::Entity::type,
                                                  refAttributes};

const Mox::FwkType* IpGenPrefixRef::fwkType() const {
    return &type;
}

constinit const Mox::FwkType IpGenPrefixSet::type{"Pavo::IpGenPrefixSet", &Mox::Entity::type,
                                                  setAttributes};

const Mox::FwkType* IpGenPrefixSet::fwkType() const {
    return &type;
}

// By value, here and below: what the caller refers to may be the member that goes.
void IpGenPrefixSet::prefixIs(IpGenPrefix prefix, bool isMember) {
    if (memberIs(prefix_, prefix, isMember)) {
        notify(prefixAttr, prefix);
    }
}

void IpGenPrefixSet::prefixDelAll() {
    const Mox::Ptr<IpGenPrefixSet> hold(this);
    prefix_.delAll([this](const IpGenPrefix& each) { notify(prefixAttr, each); });
}

constinit const Mox::FwkType IpGenPrefixColl::type{"Pavo::IpGenPrefixColl", &Mox::Entity::type,
                                                   collAttributes};

const Mox::FwkType* IpGenPrefixColl::fwkType() const {
    return &type;
}

void IpGenPrefixColl::prefixSetIs(IpGenPrefix prefix, bool isMember) {
    if (memberIs(prefixSet_, prefix, isMember)) {
        notify(prefixSetAttr, prefix);
    }
}

void IpGenPrefixColl::prefixSetDelAll() {
    const Mox::Ptr<IpGenPrefixColl> hold(this);
    prefixSet_.delAll([this](const IpGenPrefix& each) { notify(prefixSetAttr, each); });
}

constinit const Mox::FwkType IpGenPrefixSetConfig::type{"Pavo::IpGenPrefixSetConfig",
                                                        &Mox::Entity::type, configAttributes};

const Mox::FwkType* IpGenPrefixSetConfig::fwkType() const {
    return &type;
}

void IpGenPrefixSetConfig::prefixIs(IpGenPrefix prefix, bool isMember) {
    if (memberIs(prefix_, prefix, isMember)) {
        notify(prefixAttr, prefix);
    }
}

void IpGenPrefixSetConfig::prefixDelAll() {
    const Mox::Ptr<IpGenPrefixSetConfig> hold(this);
    prefix_.delAll([this](const IpGenPrefix& each) { notify(prefixAttr, each); });
}

void IpGenPrefixSetConfig::prefixExceptIs(IpGenPrefix prefix, bool isMember) {
    if (memberIs(prefixExcept_, prefix, isMember)) {
        notify(prefixExceptAttr, prefix);
    }
}

void IpGenPrefixSetConfig::prefixExceptDelAll() {
    const Mox::Ptr<IpGenPrefixSetConfig> hold(this);
    prefixExcept_.delAll([this](const IpGenPrefix& each) { notify(prefixExceptAttr, each); });
}

constinit const Mox::FwkType IpGenPrefixSetConfigDir::type{"Pavo::IpGenPrefixSetConfigDir",
                                                           &Mox::Entity::type, dirAttributes};

const Mox::FwkType* IpGenPrefixSetConfigDir::fwkType() const {
    return &type;
}

Mox::Ptr<IpGenPrefixSetConfig> IpGenPrefixSetConfigDir::prefixSetIs(const Mox::String& name) {
    if (prefixSet_.add(name, Mox::Ptr<Mox::Entity>(this), ipGenPrefixSetConfigFactory)) {
        const auto added = prefixSet_.find(name);  // An observer may take it out again.
        notify(prefixSetAttr, name);
        return added;
    }
    return prefixSet_.find(name);
}

void IpGenPrefixSetConfigDir::prefixSetDel(Mox::String name) {
    if (prefixSet_.del(name)) {
        notify(prefixSetAttr, name);
    }
}

void IpGenPrefixSetConfigDir::prefixSetDelAll() {
    const Mox::Ptr<IpGenPrefixSetConfigDir> hold(this);
    prefixSet_.delAll([this](const Mox::String& name) { notify(prefixSetAttr, name); });
}

Mox::Ptr<IpGenPrefixRef> ipGenPrefixRefFactory(const IpGenPrefix& prefix) {
    return Mox::make<IpGenPrefixRef>(prefix);
}

Mox::Ptr<IpGenPrefixSet> ipGenPrefixSetFactory() {
    return Mox::make<IpGenPrefixSet>();
}

Mox::Ptr<IpGenPrefixColl> ipGenPrefixCollFactory(const Mox::String& name) {
    return Mox::make<IpGenPrefixColl>(name);
}

Mox::Ptr<IpGenPrefixSetConfig> ipGenPrefixSetConfigFactory(const Mox::String& name) {
    return Mox::make<IpGenPrefixSetConfig>(name);
}

Mox::Ptr<IpGenPrefixSetConfigDir> ipGenPrefixSetConfigDirFactory(const Mox::String& name) {
    return Mox::make<IpGenPrefixSetConfigDir>(name);
}

}  // namespace Pavo
