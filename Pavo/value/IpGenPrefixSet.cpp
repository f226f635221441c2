#include "Pavo/value/IpGenPrefixSet.h"

namespace Pavo {

Mox::Ptr<IpGenPrefixSetConfig> IpGenPrefixSetConfigDir::prefixSetIs(const Mox::String& name) {
    if (prefixSet_.add(name, Mox::Ptr<Mox::Entity>(this), ipGenPrefixSetConfigFactory)) {
        const auto added = prefixSet_.find(name);  // An observer may delete it.
        notify(prefixSetAttr, name);
        return added;
    }
    return prefixSet_.find(name);
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
