/// @file
/// Prints links, addresses and neighbours of all namespaces as they change.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "Mox/Clock.h"
#include "Pavo/KernelInfo.h"
#include "Pavo/KernelInfoMgr.h"

namespace Watch {

using Print = std::function<void(const std::string& netNs, const std::string& line)>;

/// The objects of one namespace: "+" before what comes, "-" before what goes, "~" before what
/// changes.
class NamespaceWatcher {
  public:
    NamespaceWatcher(Mox::Ptr<Pavo::KernelInfo> info, Print print);

  private:
    template <class T>
    struct Shown {
        std::string line;
        Mox::Watch<T> watch;
    };
    template <class Key, class T>
    using Objects = std::map<Key, Shown<T>>;

    template <class Key, class T>
    void show(Objects<Key, T>* objects, const Key& key, const Mox::Ptr<T>& object);
    std::string lineOf(const Pavo::Link& link) const;
    std::string lineOf(const Pavo::LinkAddress& address) const;
    std::string lineOf(const Pavo::Neighbour& neighbour) const;
    std::string nameOf(uint32_t ifIndex) const;

    Mox::Ptr<Pavo::KernelInfo> info_;
    Print print_;
    Objects<uint32_t, Pavo::Link> links_;
    Objects<Pavo::LinkAddressKey, Pavo::LinkAddress> addresses_;
    Objects<Pavo::NeighbourKey, Pavo::Neighbour> neighbours_;
    Mox::Watch<Pavo::KernelInfo> linkWatch_;
    Mox::Watch<Pavo::KernelInfo> addressWatch_;
    Mox::Watch<Pavo::KernelInfo> neighbourWatch_;
};

/// One of these for each namespace, those that come later included.
class Watcher {
  public:
    Watcher(Mox::Clock* clock, Print print);

  private:
    void handleNamespace(const Pavo::NamespaceName& netNs);

    Print print_;
    std::map<Pavo::NamespaceName, std::unique_ptr<NamespaceWatcher>> namespaces_;
    Mox::Ptr<Pavo::KernelInfoMgr> mgr_;
    Mox::Watch<Pavo::KernelInfoMgr> mgrWatch_;
};

}  // namespace Watch
