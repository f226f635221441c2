#include "Pavo/kernel/LinkHandle.h"

#include <utility>

namespace Pavo {

LinkHandle::LinkHandle(Mox::String name, const Mox::Ptr<KernelInfo>& info)
    : name_(std::move(name)) {
    infoIs(info);
}

LinkHandle::LinkHandle(Mox::String name, const Mox::Ptr<KernelInfoMgr>& mgr,
                       const NamespaceName& netNs)
    : name_(std::move(name)),
      infos_(mgr, KernelInfoMgr::kernelInfoAttr,
             [this, mgr = mgr.ptr(), followed = netNs ? netNs : NamespaceName::defaultNamespace()](
                 const NamespaceName& changed) {
                 if (changed == followed) {
                     infoIs(mgr->kernelInfo(followed));
                 }
             }) {
    infoIs(mgr->kernelInfo(netNs));
}

void LinkHandle::infoIs(const Mox::Ptr<KernelInfo>& info) {
    links_ = {};
    if (info) {
        links_ = Mox::Watch<KernelInfo>(info, KernelInfo::linkByNameAttr,
                                        [this, info = info.ptr()](const Mox::String& name) {
                                            if (name == name_) {
                                                linkIs(info->linkByName(name_));
                                            }
                                        });
    }
    linkIs(info ? info->linkByName(name_) : nullptr);
}

Mox::Ptr<LinkHandle> linkFactory(const Mox::Ptr<KernelInfo>& info, const Mox::String& name) {
    return Mox::make<LinkHandle>(name, info);
}

Mox::Ptr<LinkHandle> linkFactory(const Mox::Ptr<KernelInfoMgr>& mgr, const NamespaceName& netNs,
                                 const Mox::String& name) {
    return Mox::make<LinkHandle>(name, mgr, netNs);
}

}  // namespace Pavo
