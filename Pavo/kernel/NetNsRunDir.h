/// @file
/// The run directory of namespaces, and a watch on it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>

#include "Mox/Entity.h"
#include "Mox/FileDescriptor.h"
#include "Mox/Ptr.h"

#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// The directory of ip-netns(8).
inline constexpr char netNsRunDir[] = "/var/run/netns";

/// What there is in "/var/run/netns": the inode number of each namespace, and -1 for a file to
/// which none is bound, as for a moment after its creation. Empty without such a directory.
/// Names that `NamespaceName` refuses are left out. Null where it cannot be read now.
std::optional<std::map<NamespaceName, int64_t>> netNsInodes();
/// The number of one name; -1 as above, and where there is no such file. Null as above.
std::optional<int64_t> netNsInodeOf(const NamespaceName& name);

/// Calls a function, from the event loop, after names in "/var/run/netns" came or went, or
/// namespaces were bound to them. The directory may come later. Binding makes no event of inotify,
/// so changes of the process's mounts are watched too; the function may be called without a change.
/// It must not end the watch.
class NetNsRunDirWatch {
  public:
    /// @throws Mox::ErrnoException "inotify_init1", "open", or of `FileDescriptor`.
    explicit NetNsRunDirWatch(std::function<void()> handler);
    NetNsRunDirWatch(const NetNsRunDirWatch&) = delete;
    NetNsRunDirWatch& operator=(const NetNsRunDirWatch&) = delete;

  private:
    void watchDirectories();
    void handleNames();

    std::function<void()> handler_;
    Mox::Ptr<Mox::FileDescriptor> inotify_;
    Mox::Ptr<Mox::FileDescriptor> mounts_;
    Mox::Watch<Mox::FileDescriptor> nameWatch_;
    Mox::Watch<Mox::FileDescriptor> mountWatch_;
};

}  // namespace Pavo
