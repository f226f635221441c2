#include "Pavo/kernel/KernelInfoMgr.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "Mox/Exception.h"
#include "Mox/Trace.h"

#include "Pavo/base/FirstException.h"
#include "Pavo/kernel/NetNsRunDir.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::KernelInfoMgr");

constexpr double retrySeconds = 1;
// A scan reads all names. However many there are and however fast they change, scans take a tenth
// of the time at most.
constexpr double pausePerScan = 9;

}  // namespace

KernelInfoMgr::KernelInfoMgr(Mox::String name, Mox::Ptr<NamespaceStatusLocalDir> status,
                             Mox::Clock* clock)
    : name_(std::move(name)),
      status_(std::move(status)),
      clock_(clock),
      runDir_(std::make_unique<NetNsRunDirWatch>([this] { scanBy(pauseUntil_); })),
      timer_(clock, [this] { scan(); }) {
    scan();
}

KernelInfoMgr::~KernelInfoMgr() = default;

void KernelInfoMgr::close() {
    const Mox::Ptr<KernelInfoMgr> hold(this);
    runDir_ = nullptr;
    timer_.expiryIs(Mox::Clock::idle);
    FirstException exception;
    while (!followed_.empty()) {
        exception.collect([&] { end(NamespaceName(followed_.begin()->first)); });
    }
    exception.rethrow();
}

void KernelInfoMgr::scanBy(double time) {
    timer_.expiryIs(std::min(time, timer_.expiry()));
}

// The default namespace has no file of its own. A file of that name is one more name of it. A name
// that has just ended and has no namespace now may be about to go too.
void KernelInfoMgr::scan() {
    const Mox::Ptr<KernelInfoMgr> hold(this);
    const double begun = clock_->now();
    std::optional<std::map<NamespaceName, int64_t>> read = netNsInodes();
    pauseUntil_ = clock_->now() + pausePerScan * (clock_->now() - begun);
    if (!read) {
        scanBy(begun + retrySeconds);
        return;
    }
    std::map<NamespaceName, int64_t>& inodes = *read;
    inodes[NamespaceName::defaultNamespace()] = 0;
    std::vector<NamespaceName> gone;
    for (const auto& [netNs, each] : followed_) {
        const auto now = inodes.find(netNs);
        if (now == inodes.end() || (each.inode != -1 && now->second != each.inode)) {
            gone.push_back(netNs);
        }
    }
    FirstException exception;
    for (const NamespaceName& each : gone) {
        exception.collect([&] { end(each); });
        if (const auto now = inodes.find(each); now != inodes.end() && now->second == -1) {
            inodes.erase(now);
            runDir_ ? scanBy(begun + retrySeconds) : void();
        }
    }
    for (const auto& [netNs, inode] : inodes) {
        if (runDir_) {  // An observer may have closed this.
            exception.collect([&, &each = netNs, number = inode] { begin(each, number); });
        }
    }
    exception.rethrow();
}

// Does nothing for one that is followed already. A name may have been given to another namespace
// before the sockets were opened, which the next scan finds.
void KernelInfoMgr::begin(const NamespaceName& netNs, int64_t inode) {
    if (const auto it = followed_.find(netNs); it != followed_.end() && it->second.session) {
        return;
    }
    followed_.try_emplace(netNs);
    status_->nsIs(netNs);
    if (followed_.count(netNs) == 0) {
        return;
    }
    if (inode == -1) {
        lastErrorIs(netNs, "/var/run/netns/" + netNs.value() + " is no network namespace");
        return;
    }
    const auto session = netlinkSessionFactory(netNs.value(), netNs, clock_);
    const auto info = kernelInfoFactory(netNs.value(), session);
    Mox::String failure;
    try {
        session->enabledIs(true);
    } catch (const Mox::ErrnoException& error) {
        failure = error.what();
    }
    if (!session->enabled() || (inode != 0 && netNsInodeOf(netNs) != inode)) {
        session->enabledIs(false);
        scanBy(clock_->now() + retrySeconds);
        lastErrorIs(netNs, failure);
        return;
    }
    Followed& followed = followed_[netNs];
    followed.inode = inode;
    followed.session = session;
    followed.sync = Mox::Watch<KernelInfo>(info, KernelInfo::isInSyncAttr,
                                           [this, netNs] { handleSync(NamespaceName(netNs)); });
    infos_.is(netNs, info);
    FirstException thrown;
    thrown.collect([&] { notify(kernelInfoAttr, netNs); });
    thrown.collect([&] { lastErrorIs(netNs, ""); });
    thrown.rethrow();
}

// Traced when it changes, not at each attempt.
void KernelInfoMgr::lastErrorIs(const NamespaceName& netNs, const Mox::String& text) {
    const auto status = status_->ns(netNs);
    if (status && status->lastError() != text) {
        MOX_TRACE(facility, 1, netNs.value(), ": ", text.empty() ? "entered" : text.c_str());
        status->lastErrorIs(text);
    }
}

void KernelInfoMgr::handleSync(const NamespaceName& netNs) {
    const auto info = kernelInfo(netNs);
    const auto status = status_->ns(netNs);
    if (info && info->isInSync() && status) {
        status->stateIs(NamespaceState::active);
    }
}

void KernelInfoMgr::end(const NamespaceName& netNs) {
    const Mox::Ptr<KernelInfoMgr> hold(this);
    auto node = followed_.extract(netNs);
    if (node.empty()) {
        return;
    }
    const auto info = kernelInfo(netNs);
    const auto session = node.mapped().session;
    node.mapped().sync = {};
    FirstException exception;
    if (const auto status = status_->ns(netNs)) {
        exception.collect([&] { status->stateIs(NamespaceState::deleting); });
    }
    if (info) {
        exception.collect([&] { info->close(); });
        infos_.del(netNs);
        exception.collect([&] { notify(kernelInfoAttr, netNs); });
    }
    if (session) {
        exception.collect([&] { session->enabledIs(false); });
    }
    exception.collect([&] { status_->nsDel(netNs); });
    exception.rethrow();
}

Mox::Ptr<KernelInfoMgr> kernelInfoMgrFactory(Mox::String name,
                                             Mox::Ptr<NamespaceStatusLocalDir> status,
                                             Mox::Clock* clock) {
    return Mox::make<KernelInfoMgr>(std::move(name), std::move(status), clock);
}

}  // namespace Pavo
