#include "watch/Watcher.h"

#include <sstream>
#include <utility>

#include "Pavo/Namespace.h"

namespace Watch {

using Pavo::KernelInfo;

NamespaceWatcher::NamespaceWatcher(Mox::Ptr<KernelInfo> info, Print print)
    : info_(std::move(info)),
      print_(std::move(print)),
      linkWatch_(info_, KernelInfo::linkByIndexAttr,
                 [this](uint32_t index) { show(&links_, index, info_->linkByIndex(index)); }),
      addressWatch_(
          info_, KernelInfo::addressAttr,
          [this](const Pavo::LinkAddressKey& key) { show(&addresses_, key, info_->address(key)); }),
      neighbourWatch_(info_, KernelInfo::neighbourAttr, [this](const Pavo::NeighbourKey& key) {
          show(&neighbours_, key, info_->neighbour(key));
      }) {}

// All attributes of a message are stored before the first of them is notified, so that its line is
// printed once.
template <class Key, class T>
void NamespaceWatcher::show(Objects<Key, T>* objects, const Key& key, const Mox::Ptr<T>& object) {
    if (!object) {
        print_(info_->name().c_str(), "- " + (*objects)[key].line);
        objects->erase(key);
        return;
    }
    Shown<T>& shown = (*objects)[key];
    shown.line = lineOf(*object);
    print_(info_->name().c_str(), "+ " + shown.line);
    const auto handleChange = [this, &shown, object = object.ptr()](const Mox::Change&) {
        const std::string line = lineOf(*object);
        if (object->exists() && line != shown.line) {
            shown.line = line;
            print_(info_->name().c_str(), "~ " + line);
        }
    };
    shown.watch = Mox::Watch<T>(object, Mox::allAttributes, handleChange);
}

std::string NamespaceWatcher::lineOf(const Pavo::Link& link) const {
    std::ostringstream line;
    line << "link " << link.name() << ": " << (link.isUp() ? "up" : "down") << ", "
         << link.operState() << ", " << link.ethAddr() << ", MTU " << link.mtu();
    return line.str();
}

std::string NamespaceWatcher::lineOf(const Pavo::LinkAddress& address) const {
    return std::string("address ") + address.name().c_str() + " of " + nameOf(address.ifIndex()) +
           (address.isDuplicate()   ? ", which another node has"
            : address.isTentative() ? ", tentative"
                                    : "");
}

std::string NamespaceWatcher::lineOf(const Pavo::Neighbour& neighbour) const {
    std::ostringstream line;
    line << "neighbour " << neighbour.name() << " of " << nameOf(neighbour.ifIndex()) << ": "
         << neighbour.ethAddr() << ", " << neighbour.state();
    return line.str();
}

std::string NamespaceWatcher::nameOf(uint32_t ifIndex) const {
    const auto link = info_->linkByIndex(ifIndex);
    return link ? link->name().c_str() : "link " + std::to_string(ifIndex);
}

Watcher::Watcher(Mox::Clock* clock, Print print)
    : print_(std::move(print)),
      mgr_(Pavo::kernelInfoMgrFactory("watch", Pavo::namespaceStatusLocalDirFactory("namespaces"),
                                      clock)),
      mgrWatch_(mgr_, Pavo::KernelInfoMgr::kernelInfoAttr,
                [this](const Pavo::NamespaceName& netNs) { handleNamespace(netNs); }) {
    for (const auto& [netNs, info] : mgr_->kernelInfo()) {
        handleNamespace(netNs);
    }
}

// Its objects are notified of before it goes.
void Watcher::handleNamespace(const Pavo::NamespaceName& netNs) {
    namespaces_.erase(netNs);
    if (const auto info = mgr_->kernelInfo(netNs)) {
        namespaces_[netNs] = std::make_unique<NamespaceWatcher>(info, print_);
    }
    print_(netNs.value().c_str(), mgr_->kernelInfo(netNs) ? "+ namespace" : "- namespace");
}

}  // namespace Watch
