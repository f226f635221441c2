/// @file
/// What the kernel knows of all namespaces.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "Mox/Clock.h"
#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/kernel/KernelInfo.h"
#include "Pavo/kernel/Namespace.h"
#include "Pavo/kernel/NetlinkSession.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

class NetNsRunDirWatch;

/// Follows the names in "/var/run/netns", which need not exist yet, and has a `KernelInfo` for each
/// namespace there and for the default one, under the name `NamespaceName::defaultNamespace()`. A
/// name that is removed and made again stands for another namespace, however quickly that happens.
///
/// It drives the states of namespaces: `initializing` from the file of a name on, `active` once the
/// first dumps are complete, `deleting` when the name is removed; then the objects of its
/// `KernelInfo` end, links last, then the `KernelInfo` goes, and last the status. The namespace is
/// not kept alive by it after that.
///
/// A namespace that cannot be entered is tried again each second. Its state is `initializing`, and
/// `NamespaceStatusLocal::lastError` says why; for a file that is no namespace, that is
/// "/var/run/netns/<name> is no network namespace".
class PAVO_EXPORT KernelInfoMgr : public Mox::EntityOf<KernelInfoMgr> {
  public:
    static constexpr Mox::Attribute<KernelInfoMgr, NamespaceName> kernelInfoAttr{0, "kernelInfo"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::KernelInfoMgr", Mox::attribute(kernelInfoAttr));
    }

    /// Begins to follow. `status` gets a member for each namespace, and is of this manager alone:
    /// members that another one had made would end with it. `clock` is that of the event loop,
    /// which this thread has.
    /// @throws Mox::ErrnoException "inotify_init1", "open" or another failing call
    KernelInfoMgr(Mox::String name, Mox::Ptr<NamespaceStatusLocalDir> status, Mox::Clock* clock);
    ~KernelInfoMgr() override;

    Mox::String name() const override { return name_; }
    /// As it was made with.
    const Mox::Ptr<NamespaceStatusLocalDir>& status() const MOX_LIFETIME_BOUND { return status_; }

    /// The namespaces that are followed; those that are `initializing` may have no objects yet.
    const Mox::Map<NamespaceName, Mox::Ptr<KernelInfo>>& kernelInfo() const MOX_LIFETIME_BOUND {
        return infos_;
    }
    /// That of a namespace, or null. The empty name stands for the default namespace.
    Mox::Ptr<KernelInfo> kernelInfo(const NamespaceName& netNs) const {
        const auto* const info = infos_.find(netNs ? netNs : NamespaceName::defaultNamespace());
        return info == nullptr ? nullptr : *info;
    }

    /// Ends all namespaces, each as if its name had been removed, and follows nothing any more.
    /// Where the last reference goes without it, `status` stays as it is.
    void close();

  private:
    struct Followed {
        int64_t inode = -1;
        Mox::Ptr<NetlinkSession> session;
        Mox::Watch<KernelInfo> sync;
    };

    void scan();
    void scanBy(double time);
    void begin(const NamespaceName& netNs, int64_t inode);
    void end(const NamespaceName& netNs);
    void handleSync(const NamespaceName& netNs);
    void lastErrorIs(const NamespaceName& netNs, const Mox::String& text);

    Mox::String name_;
    Mox::Ptr<NamespaceStatusLocalDir> status_;
    Mox::Clock* clock_;
    Mox::Map<NamespaceName, Mox::Ptr<KernelInfo>> infos_;
    std::map<NamespaceName, Followed> followed_;  // Also names that have no `KernelInfo` yet.
    std::unique_ptr<NetNsRunDirWatch> runDir_;
    Mox::Timer timer_;  // For the next scan.
    double pauseUntil_ = 0;
};

/// Begins to follow; see the constructor.
PAVO_EXPORT Mox::Ptr<KernelInfoMgr> kernelInfoMgrFactory(Mox::String name,
                                                         Mox::Ptr<NamespaceStatusLocalDir> status,
                                                         Mox::Clock* clock);

}  // namespace Pavo
