/// @file
/// A link by its name, whether it is there or not.
#pragma once

#include "Mox/Entity.h"
#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/kernel/KernelInfo.h"
#include "Pavo/kernel/KernelInfoMgr.h"
#include "Pavo/kernel/Link.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// Stands for the link that has a certain name in a namespace. It can be made before the link, and
/// follows it through going and coming back: when the link is deleted or gets another name, or its
/// namespace goes, `link` is null until a link of the name is there again.
///
/// At the first dumps links come before their addresses: an observer that is notified of the link
/// finds none yet. Wait for `KernelInfo::isInSync` before you take an empty collection for the
/// truth.
class PAVO_EXPORT LinkHandle : public Mox::EntityOf<LinkHandle> {
  public:
    static constexpr Mox::Attribute<LinkHandle> linkAttr{0, "link"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::LinkHandle", Mox::attribute(linkAttr, &LinkHandle::link));
    }

    /// Of a namespace that is known to the caller, or null for none.
    LinkHandle(Mox::String name, const Mox::Ptr<KernelInfo>& info);
    /// Of a namespace that may come and go; the empty name stands for the default one.
    LinkHandle(Mox::String name, const Mox::Ptr<KernelInfoMgr>& mgr, const NamespaceName& netNs);

    /// The name of the link.
    Mox::String name() const override { return name_; }
    /// The link, or null.
    const Mox::Ptr<Link>& link() const MOX_LIFETIME_BOUND { return link_; }

  private:
    void infoIs(const Mox::Ptr<KernelInfo>& info);
    void linkIs(const Mox::Ptr<Link>& link) { attributeIs(link_, link, linkAttr); }

    Mox::String name_;
    Mox::Ptr<Link> link_;
    Mox::Watch<KernelInfo> links_;
    Mox::Watch<KernelInfoMgr> infos_;
};

/// The link `name` of a namespace that the caller follows.
PAVO_EXPORT Mox::Ptr<LinkHandle> linkFactory(const Mox::Ptr<KernelInfo>& info,
                                             const Mox::String& name);
/// The link `name` of a namespace that may come and go; an empty `netNs` is the default one.
PAVO_EXPORT Mox::Ptr<LinkHandle> linkFactory(const Mox::Ptr<KernelInfoMgr>& mgr,
                                             const NamespaceName& netNs, const Mox::String& name);

}  // namespace Pavo
