#include "Pavo/interface/IntfIdDesc.h"

#include <dlfcn.h>

#include <algorithm>

#include "Mox/Assert.h"
#include "Mox/Exception.h"

namespace Pavo {

namespace {

// Read by every conversion, which makes a call of the loader too expensive.
constinit bool arePluginsPending = true;

}  // namespace

IntfIdDesc::IntfIdDesc(uint32_t typeId, Mox::String name, ShortPrefix shortPrefix)
    : typeId_(typeId), name_(std::move(name)), shortPrefix_(std::move(shortPrefix)) {
    if (typeId < 1 || typeId > GenericIntfId::maxTypeId) {
        Mox::throwRangeException("IntfIdDesc::typeId < 1 or > 127 not allowed");
    }
}

void IntfIdDesc::handleParent(Mox::Ptr<Mox::Entity> parent) {
    manager_ = dynamic_cast<IntfIdMgr*>(parent.ptr());
}

void IntfIdDesc::requireOpen() const {
    if (initialized_) {
        Mox::throwRangeException("IntfIdDesc is initialized");
    }
}

void IntfIdDesc::shortPrefixIs(ShortPrefix shortPrefix) {
    requireOpen();
    attributeIs(shortPrefix_, std::move(shortPrefix), shortPrefixAttr);
}

void IntfIdDesc::shortPrefixSubTypeIs(SubIntfIdKey subType, ShortPrefix shortPrefix) {
    requireOpen();
    if (!shortPrefix) {
        memberDel(shortPrefixSubType_, subType, shortPrefixSubTypeAttr);
    } else if (shortPrefixSubType_.is(subType, std::move(shortPrefix))) {
        notify(shortPrefixSubTypeAttr, subType);
    }
}

void IntfIdDesc::prefixIs(SubIntfIdKey subType, Mox::String prefix) {
    requireOpen();
    if (prefix.empty()) {
        memberDel(prefix_, subType, prefixAttr);
    } else if (prefix_.is(subType, std::move(prefix))) {
        notify(prefixAttr, subType);
    }
}

IntfIdPart IntfIdDesc::part(IntfIdPartKey key) const {
    const IntfIdPart* const found = part_.find(key);
    return found == nullptr ? IntfIdPart() : *found;
}

void IntfIdDesc::partIs(IntfIdPartKey key, IntfIdPart part) {
    requireOpen();
    if (!part) {
        memberDel(part_, key, partAttr);
    } else if (part_.is(key, part)) {
        notify(partAttr, key);
    }
}

void IntfIdDesc::partDel(IntfIdPartKey key) {
    partIs(key, {});
}

void IntfIdDesc::partDelAll() {
    requireOpen();
    memberDelAll(part_, partAttr);
}

void IntfIdDesc::initializedIs(bool initialized) {
    if (initialized_ == initialized) {
        return;
    }
    initialized_ = initialized;
    try {
        if (manager_ != nullptr) {
            manager_->handleIntfIdDesc(typeId_);
        } else if (initialized) {
            IntfIdTrie alone;
            addTo(alone);
            alone.build();
        }
    } catch (...) {
        initialized_ = !initialized;
        throw;
    }
    notify(initializedAttr);
}

std::vector<IntfIdPart> IntfIdDesc::partsOf(SubIntfIdKey subType) const {
    std::vector<IntfIdPart> parts;
    for (const auto& [key, part] : part_) {
        if (key.subType() == subType) {
            parts.resize(key.part() + 1u);  // A missing part is a default one, which is refused.
            parts.back() = part;
        }
    }
    return parts;
}

void IntfIdDesc::addTo(IntfIdTrie& trie) const {
    const bool describesNone = part_.members() == 0 && prefix_.members() == 0;
    for (uint32_t number = 0; number <= SubIntfIdKey::max; ++number) {
        const SubIntfIdKey subType(number);
        const auto parts = partsOf(subType);
        const Mox::String* const prefix = prefix_.find(subType);
        if (parts.empty() && prefix == nullptr && !(describesNone && number == 0)) {
            continue;
        }
        const uint32_t typeAndSubType = IntfIdTrie::typeAndSubType(typeId_, number);
        trie.setPrefix(prefix == nullptr ? name_ : *prefix, typeAndSubType, parts);
        const ShortPrefix* const own = shortPrefixSubType_.find(subType);
        if (const ShortPrefix& shortPrefix = own == nullptr ? shortPrefix_ : *own) {
            trie.setShortPrefix(shortPrefix.value(), typeAndSubType);
        }
    }
}

IntfIdMgr::~IntfIdMgr() {
    for (const auto& each : intfIdDesc_) {
        each.second->handleParent(nullptr);
    }
}

Mox::Ptr<IntfIdDesc> IntfIdMgr::intfIdDesc(uint32_t typeId) const {
    const auto* const found = intfIdDesc_.find(typeId);
    return found == nullptr ? nullptr : *found;
}

IntfIdTrie IntfIdMgr::trieOf(const Descs& descs) const {
    IntfIdTrie trie;
    for (const auto& each : descs) {
        if (each.second->initialized()) {
            each.second->addTo(trie);
        }
    }
    trie.build();
    trie.shortNameTrieIs(trie_.shortNameTrie());
    return trie;
}

void IntfIdMgr::intfIdDescIs(const Mox::Ptr<IntfIdDesc>& desc) {
    Mox::require(bool(desc), "desc");
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): `desc` may refer to a member.
    const Mox::Ptr<IntfIdDesc> added = desc;
    const auto before = intfIdDesc(added->typeId());
    if (before == added) {
        return;
    }
    if (added->manager() != nullptr) {
        Mox::throwRangeException("IntfIdDesc is in a manager already");
    }
    if (before && !testMode_) {
        Mox::throwRangeException("IntfIdDesc::typeId is taken");
    }
    Descs descs = intfIdDesc_;
    descs.is(added->typeId(), added);
    trie_ = trieOf(descs);
    intfIdDesc_ = std::move(descs);
    if (before) {
        before->handleParent(nullptr);
    }
    added->handleParent(Mox::Ptr<Mox::Entity>(this));
    notify(intfIdDescAttr, added->typeId());
}

void IntfIdMgr::intfIdDescDel(uint32_t typeId) {
    const auto gone = intfIdDesc(typeId);
    if (!gone) {
        return;
    }
    intfIdDesc_.del(typeId);
    gone->handleParent(nullptr);
    handleIntfIdDesc(typeId);
    notify(intfIdDescAttr, typeId);
}

void IntfIdMgr::intfIdDescDelAll() {
    const Mox::Ptr<IntfIdMgr> hold(this);
    const Descs before = intfIdDesc_;
    for (const auto& each : before) {
        intfIdDescDel(each.first);
    }
}

void IntfIdMgr::handleIntfIdDesc(uint32_t) {
    trie_ = trieOf(intfIdDesc_);
}

Mox::String IntfIdMgr::intfIdToString(IntfId id, bool shortForm) const {
    return Mox::printedString(
        [&](Mox::TextWriter& out) { trie_.intfIdToString(id, shortForm, out); });
}

IntfId IntfIdMgr::stringToIntfId(const Mox::String& name) const {
    return wholeName(name, false);
}

IntfId IntfIdMgr::shortStringToIntfId(const Mox::String& name) const {
    return wholeName(name, true);
}

IntfId IntfIdMgr::wholeName(const Mox::String& name, bool shortForm) const {
    const auto read = trie_.stringToIntfId(name.view(), shortForm);
    if (read.length == 0 || read.length != name.bytes()) {
        Mox::throwRangeException(IntfId::invalidText);
    }
    return read.id;
}

IntfIdDescPluginLoader& IntfIdDescPluginLoader::DefaultPluginLoader() {
    // Never destroyed, like the manager, since ids of static storage may be printed at exit.
    static auto& loader = *new IntfIdDescPluginLoader;
    return loader;
}

void IntfIdDescPluginLoader::pluginIs(const Mox::String& name, Plugin plugin) {
    const auto isNamed = [&name](const Entry& each) { return each.name == name; };
    if (std::none_of(plugins_.begin(), plugins_.end(), isNamed)) {
        plugins_.push_back({name, plugin});
        arePluginsPending = true;
    }
}

void IntfIdDescPluginLoader::load(const Mox::String& path) {
    // Never closed, since its plug-ins and the texts of their exceptions stay in use.
    if (dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr) {
        throw Mox::Exception(dlerror());
    }
    (void)globalIntfIdMgr();
}

void IntfIdDescPluginLoader::runPlugins(IntfIdMgr& manager) {
    ++running_;  // Plug-ins may call this too.
    try {
        while (run_ < plugins_.size()) {
            plugins_[run_++].plugin(manager);
        }
    } catch (...) {
        --running_;
        throw;
    }
    if (--running_ == 0) {
        manager.initializedIs(true);
    }
}

const Mox::Ptr<IntfIdMgr>& globalIntfIdMgr() {
    static const auto& manager = *new const Mox::Ptr<IntfIdMgr>(intfIdMgrFactory("IntfIdMgr"));
    if (__builtin_expect(arePluginsPending, 0)) {
        arePluginsPending = false;  // First, since plug-ins may call this too.
        auto& loader = IntfIdDescPluginLoader::DefaultPluginLoader();
        try {
            loader.runPlugins(*manager);
        } catch (...) {
            arePluginsPending = true;  // The others have not run yet.
            throw;
        }
    }
    return manager;
}

Mox::Ptr<IntfIdDesc> intfIdDescFactory(uint32_t typeId, const Mox::String& name,
                                       const ShortPrefix& shortPrefix) {
    return Mox::make<IntfIdDesc>(typeId, name, shortPrefix);
}

Mox::Ptr<IntfIdMgr> intfIdMgrFactory(const Mox::String& name) {
    return Mox::make<IntfIdMgr>(name);
}

}  // namespace Pavo
