#include "Pavo/vrf/VrfMap.h"

#include <utility>

#include "Pavo/base/FirstException.h"

namespace Pavo {

VrfMap::VrfMap() {
    vrfId_.is(VrfName(), VrfId());
    held_.emplace(VrfId(), Held{VrfName(), 1});  // By the map itself.
}

VrfMap::~VrfMap() = default;

std::optional<VrfId> VrfMap::vrfId(const VrfName& name) const {
    const VrfId* found = vrfId_.find(name);
    return found == nullptr ? std::nullopt : std::optional(*found);
}

std::optional<VrfName> VrfMap::vrfName(VrfId id) const {
    const auto found = held_.find(id);
    return found == held_.end() ? std::nullopt : std::optional(found->second.name);
}

// A number that was just released may still stand in tables of agents: the next ones come first.
VrfId VrfMap::hold(const VrfName& name) {
    if (const VrfId* found = vrfId_.find(name)) {
        ++held_.find(*found)->second.writers;
        return *found;
    }
    while (held_.count(++lastId_) != 0) {
    }
    const VrfId id(lastId_);
    const auto held = held_.emplace(id, Held{name, 1}).first;
    try {
        vrfId_.is(name, id);
    } catch (...) {  // No memory.
        held_.erase(held);
        throw;
    }
    return id;
}

void VrfMap::release(const VrfName& name) {
    const auto held = held_.find(*vrfId_.find(name));
    if (--held->second.writers == 0) {
        held_.erase(held);
        memberDel(vrfId_, name, vrfIdAttr);
    }
}

VrfMapWriter::VrfMapWriter(Mox::String name, Mox::Ptr<VrfMap> map)
    : name_(std::move(name)), map_(std::move(map)) {}

VrfMapWriter::~VrfMapWriter() {
    for (const VrfName& each : vrf_) {
        map_->release(each);
    }
}

Mox::Ptr<VrfMapWriter> VrfMapWriter::newWriter(Mox::String name) const {
    return Mox::make<VrfMapWriter>(std::move(name), map_);
}

// The map is complete before an observer of either is notified.
VrfId VrfMapWriter::vrfIs(VrfName name) {
    const Mox::Ptr<VrfMapWriter> hold(this);
    const std::optional<VrfId> known = map_->vrfId(name);
    if (!vrf_.add(name)) {
        return *known;
    }
    VrfId id;
    try {
        id = map_->hold(name);
    } catch (...) {  // No memory.
        vrf_.del(name);
        throw;
    }
    FirstException exception;
    if (!known) {
        exception.collect([&] { map_->notify(VrfMap::vrfIdAttr, name); });
    }
    exception.collect([&] { notify(vrfAttr, name); });
    exception.rethrow();
    return id;
}

void VrfMapWriter::vrfDel(VrfName name) {
    const Mox::Ptr<VrfMapWriter> hold(this);
    if (vrf_.del(name)) {
        FirstException exception;
        exception.collect([&] { map_->release(name); });
        exception.collect([&] { notify(vrfAttr, name); });
        exception.rethrow();
    }
}

void VrfMapWriter::vrfDelAll() {
    const Mox::Ptr<VrfMapWriter> hold(this);
    const auto names = vrf_;
    FirstException exception;
    for (const VrfName& each : names) {
        exception.collect([&] { vrfDel(each); });
    }
    exception.rethrow();
}

Mox::Ptr<VrfMapWriter> vrfMapWriterFactory(Mox::String name) {
    return Mox::make<VrfMapWriter>(std::move(name), Mox::make<VrfMap>());
}

}  // namespace Pavo
