/// @file
/// Types of interfaces, described by plug-ins at run time.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/Ordinal.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/interface/IntfId.h"
#include "Pavo/interface/IntfIdTrie.h"

namespace Pavo {

class IntfIdMgr;

/// One of the forms that names of a type have: its sub-type, 0 to 3.
class SubIntfIdKey : public Ordinal<SubIntfIdKey, uint8_t, 3> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::SubIntfIdKey";
    static constexpr const char* rangeText = "SubIntfIdKey::value < 0 or > 3 not allowed";
};

/// The place of a number in the names of one sub-type, counted from the left, 0 to 7. Ordered by
/// sub-type, then by place. Text is that of the record.
class IntfIdPartKey : public Mox::ValueType<IntfIdPartKey> {
  public:
    constexpr IntfIdPartKey() = default;
    /// @throws Mox::RangeException "IntfIdPartKey::part < 0 or > 7 not allowed"
    constexpr IntfIdPartKey(SubIntfIdKey subType, uint32_t part)
        : subType_(subType), part_(static_cast<uint8_t>(part)) {
        if (part >= IntfIdTrie::maxParts) {
            Mox::throwRangeException(rangeText);
        }
    }
    /// @throws Mox::RangeException "Invalid IntfIdPartKey", "Invalid SubIntfIdKey", or as above
    IntfIdPartKey(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IntfIdPartKey(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException as the other constructors
    IntfIdPartKey(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// Whose names have the number.
    constexpr SubIntfIdKey subType() const { return subType_; }
    /// 0 to 7, from the left.
    constexpr uint32_t part() const { return part_; }

    friend constexpr bool operator==(const IntfIdPartKey&, const IntfIdPartKey&) = default;
    friend constexpr auto operator<=>(const IntfIdPartKey&, const IntfIdPartKey&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::IntfIdPartKey", Mox::field("subType", &IntfIdPartKey::subType_),
                           Mox::field("part", &IntfIdPartKey::part_));
    }
    /// Null, or the text of the range error for a place past 7.
    constexpr const char* check() const {
        return part_ < IntfIdTrie::maxParts ? nullptr : rangeText;
    }

  private:
    static constexpr const char* rangeText = "IntfIdPartKey::part < 0 or > 7 not allowed";

    SubIntfIdKey subType_;
    uint8_t part_ = 0;
};

/// The prefix of the short names of a type, such as Et. The default is empty, and means the long
/// prefix. Text is that of the record. Ordered byte by byte.
class ShortPrefix : public Mox::ValueType<ShortPrefix> {
  public:
    ShortPrefix() = default;
    explicit ShortPrefix(Mox::String value) : value_(std::move(value)) {}
    /// `value` is not null.
    ShortPrefix(const char* value) : value_(value) {}
    /// @throws Mox::RangeException "Invalid ShortPrefix"
    ShortPrefix(TextIt& it, const TextIt& end) { readText(it, end); }
    ShortPrefix(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// Empty for the long prefix.
    const Mox::String& value() const MOX_LIFETIME_BOUND { return value_; }
    /// Not empty.
    explicit operator bool() const { return !value_.empty(); }

    friend bool operator==(const ShortPrefix&, const ShortPrefix&) = default;
    friend auto operator<=>(const ShortPrefix&, const ShortPrefix&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::ShortPrefix", Mox::field("value", &ShortPrefix::value_));
    }

  private:
    Mox::String value_;
};

/// One type of interfaces: the form of its names, or up to four forms, the sub-types. A sub-type is
/// described by its parts, or by a prefix of its own; a descriptor without any describes one
/// interface, of sub-type 0, whose name is the prefix alone.
///
/// A descriptor is filled in and then completed by `initializedIs(true)`: it is checked, its
/// manager converts its names from then on, and it cannot be changed until `initializedIs(false)`.
class PAVO_EXPORT IntfIdDesc : public Mox::EntityOf<IntfIdDesc> {
  public:
    static constexpr Mox::Attribute<IntfIdDesc> shortPrefixAttr{0, "shortPrefix"};
    static constexpr Mox::Attribute<IntfIdDesc, SubIntfIdKey> shortPrefixSubTypeAttr{
        1, "shortPrefixSubType"};
    static constexpr Mox::Attribute<IntfIdDesc, SubIntfIdKey> prefixAttr{2, "prefix"};
    static constexpr Mox::Attribute<IntfIdDesc, IntfIdPartKey> partAttr{3, "part"};
    static constexpr Mox::Attribute<IntfIdDesc> initializedAttr{4, "initialized"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::IntfIdDesc", Mox::attribute(shortPrefixAttr, &IntfIdDesc::shortPrefix),
            Mox::attribute(shortPrefixSubTypeAttr), Mox::attribute(prefixAttr),
            Mox::attribute(partAttr), Mox::attribute(initializedAttr, &IntfIdDesc::initialized));
    }

    /// @throws Mox::RangeException "IntfIdDesc::typeId < 1 or > 127 not allowed"
    IntfIdDesc(uint32_t typeId, Mox::String name, ShortPrefix shortPrefix);

    /// The prefix of the names of all sub-types that have none of their own, such as Ethernet.
    Mox::String name() const override { return name_; }
    /// Called by the manager that it is added to.
    void handleParent(Mox::Ptr<Mox::Entity> parent) override;

    /// 1 to 127.
    uint32_t typeId() const { return typeId_; }
    /// The manager that it was added to, or null.
    IntfIdMgr* manager() const { return manager_; }

    // All setters below throw Mox::RangeException "IntfIdDesc is initialized" once it is.

    /// That of all sub-types without one of their own.
    /// @throws Mox::RangeException "IntfIdDesc is initialized" from the setter
    const ShortPrefix& shortPrefix() const { return shortPrefix_; }
    void shortPrefixIs(ShortPrefix shortPrefix);
    /// The short prefixes of sub-types that have one of their own, in place of `shortPrefix`.
    const Mox::Map<SubIntfIdKey, ShortPrefix>& shortPrefixSubType() const {
        return shortPrefixSubType_;
    }
    void shortPrefixSubTypeIs(SubIntfIdKey subType, ShortPrefix shortPrefix);
    /// The prefixes of sub-types that have one of their own, in place of `name`; an empty one is
    /// removed.
    const Mox::Map<SubIntfIdKey, Mox::String>& prefix() const { return prefix_; }
    void prefixIs(SubIntfIdKey subType, Mox::String prefix);
    /// The numbers in names.
    const Mox::Map<IntfIdPartKey, IntfIdPart>& part() const { return part_; }
    /// The part, or the default one.
    IntfIdPart part(IntfIdPartKey key) const;
    void partIs(IntfIdPartKey key, IntfIdPart part);
    void partDel(IntfIdPartKey key);
    void partDelAll();

    /// Checked, and used by the manager.
    bool initialized() const { return initialized_; }
    /// @throws Mox::RangeException as `IntfIdTrie::setPrefix`, `setShortPrefix` and `build` do for
    /// all descriptors of the manager, and "Invalid interface parts" also for a part that is
    /// missing between others; the descriptor is then unchanged.
    void initializedIs(bool initialized);

    /// Sets the prefixes of all sub-types in `trie`.
    /// @throws Mox::RangeException as `initializedIs`
    void addTo(IntfIdTrie& trie) const;

  private:
    void requireOpen() const;
    std::vector<IntfIdPart> partsOf(SubIntfIdKey subType) const;

    uint32_t typeId_;
    Mox::String name_;
    ShortPrefix shortPrefix_;
    Mox::Map<SubIntfIdKey, ShortPrefix> shortPrefixSubType_;
    Mox::Map<SubIntfIdKey, Mox::String> prefix_;
    Mox::Map<IntfIdPartKey, IntfIdPart> part_;
    IntfIdMgr* manager_ = nullptr;
    bool initialized_ = false;
};

/// The descriptors of a process, and the trie made of those that are initialized. Descriptors are
/// added and removed at any time; an id whose descriptor was removed has the empty name. Used on
/// the thread of the event loop; other threads may convert while nothing changes.
class PAVO_EXPORT IntfIdMgr : public Mox::EntityOf<IntfIdMgr> {
  public:
    static constexpr Mox::Attribute<IntfIdMgr, uint32_t> intfIdDescAttr{0, "intfIdDesc"};
    static constexpr Mox::Attribute<IntfIdMgr> testModeAttr{1, "testMode"};
    static constexpr Mox::Attribute<IntfIdMgr> initializedAttr{2, "initialized"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::IntfIdMgr", Mox::attribute(intfIdDescAttr),
                                Mox::attribute(testModeAttr, &IntfIdMgr::testMode),
                                Mox::attribute(initializedAttr, &IntfIdMgr::initialized));
    }

    explicit IntfIdMgr(Mox::String name) : name_(std::move(name)) {}

    Mox::String name() const override { return name_; }

    /// By type identifier.
    const Mox::Map<uint32_t, Mox::Ptr<IntfIdDesc>>& intfIdDesc() const { return intfIdDesc_; }
    /// The descriptor of that type, or null.
    Mox::Ptr<IntfIdDesc> intfIdDesc(uint32_t typeId) const;
    /// Adds a descriptor.
    /// @throws Mox::RangeException "IntfIdDesc is in a manager already"; "IntfIdDesc::typeId is
    /// taken", except in `testMode`, where it replaces the previous one; as
    /// `IntfIdDesc::initializedIs` for one that is initialized. The manager is then unchanged.
    void intfIdDescIs(const Mox::Ptr<IntfIdDesc>& desc);
    void intfIdDescDel(uint32_t typeId);
    void intfIdDescDelAll();
    /// Builds the trie again, after a descriptor was added, removed, or has changed `initialized`.
    /// @throws Mox::RangeException as `IntfIdDesc::initializedIs`; the trie is then unchanged.
    void handleIntfIdDesc(uint32_t typeId);

    /// Whether a descriptor may replace another one of its type, as tests need.
    bool testMode() const { return testMode_; }
    void testModeIs(bool on) { attributeIs(testMode_, on, testModeAttr); }
    /// Whether the plug-ins have run.
    bool initialized() const { return initialized_; }
    void initializedIs(bool initialized) {
        attributeIs(initialized_, initialized, initializedAttr);
    }

    /// The tables of all initialized descriptors.
    const IntfIdTrie& trie() const { return trie_; }
    /// Whether names with short prefixes are read as ids too; at first false.
    void shortNameTrieIs(bool on) { trie_.shortNameTrieIs(on); }

    /// The name; empty for an id that no initialized descriptor covers.
    Mox::String intfIdToString(IntfId id, bool shortForm = false) const;
    /// The id of a whole long name.
    /// @throws Mox::RangeException "Error deserializing IntfId"
    IntfId stringToIntfId(const Mox::String& name) const;
    /// The id of a whole short name.
    /// @throws Mox::RangeException "Error deserializing IntfId"
    IntfId shortStringToIntfId(const Mox::String& name) const;

  protected:
    ~IntfIdMgr() override;

  private:
    using Descs = Mox::Map<uint32_t, Mox::Ptr<IntfIdDesc>>;

    IntfIdTrie trieOf(const Descs& descs) const;
    IntfId wholeName(const Mox::String& name, bool shortForm) const;

    Mox::String name_;
    Descs intfIdDesc_;
    IntfIdTrie trie_;
    bool testMode_ = false;
    bool initialized_ = false;
};

/// Runs the plug-ins that add descriptors to the process's manager. A plug-in is a function that is
/// registered under a name: by a source of the program, a library that it is linked to, or a file
/// loaded at run time.
///
///     const Pavo::IntfIdDescPluginLoader::Registrar registrar("common", describeInterfaces);
///
/// Each name runs once: at the first use of `globalIntfIdMgr`, or at the next one when it is
/// registered later. An exception of a plug-in passes to that caller, and the plug-in is not run
/// again.
class PAVO_EXPORT IntfIdDescPluginLoader {
  public:
    /// Adds descriptors to the manager.
    using Plugin = void (*)(IntfIdMgr& manager);

    /// Registers a plug-in, as an object of static storage. It is never unregistered: its library
    /// has to stay loaded, as those that `load` loads do.
    struct Registrar {
        /// Registers `plugin` with `DefaultPluginLoader()`; see `pluginIs`.
        Registrar(const char* name, Plugin plugin) { DefaultPluginLoader().pluginIs(name, plugin); }
    };

    IntfIdDescPluginLoader(const IntfIdDescPluginLoader&) = delete;
    IntfIdDescPluginLoader& operator=(const IntfIdDescPluginLoader&) = delete;

    /// The loader of the process.
    static IntfIdDescPluginLoader& DefaultPluginLoader();

    /// Registers a plug-in, unless its name is registered already.
    void pluginIs(const Mox::String& name, Plugin plugin);
    /// Loads a shared object, which dlopen(3) finds and which stays loaded, and runs the plug-ins
    /// that it registers.
    /// @throws Mox::Exception with the text of dlerror(3); any exception of a plug-in
    void load(const Mox::String& path);
    /// Runs the plug-ins that have not run yet. The manager is then initialized, except when a
    /// plug-in made the call.
    void runPlugins(IntfIdMgr& manager);

  private:
    struct Entry {
        Mox::String name;
        Plugin plugin;
    };

    IntfIdDescPluginLoader() = default;

    std::vector<Entry> plugins_;
    uint32_t run_ = 0;      // The number of plug-ins that were started.
    uint32_t running_ = 0;  // The number of calls of `runPlugins` in progress.
};

/// The manager of the process. Runs pending plug-ins first, so the first use must be on the thread
/// of the event loop.
PAVO_EXPORT const Mox::Ptr<IntfIdMgr>& globalIntfIdMgr();

/// A descriptor that is in no manager and not initialized.
PAVO_EXPORT Mox::Ptr<IntfIdDesc> intfIdDescFactory(uint32_t typeId, const Mox::String& name,
                                                   const ShortPrefix& shortPrefix = {});
/// A manager without descriptors.
PAVO_EXPORT Mox::Ptr<IntfIdMgr> intfIdMgrFactory(const Mox::String& name);

}  // namespace Pavo
