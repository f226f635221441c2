/// @file
/// Types of interfaces, described by plug-ins at run time.
#pragma once

#include <compare>
#include <cstdint>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
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

/// A number in the names of one sub-type, counted from the left, 0 to 7. Ordered by sub-type, then
/// by place. Text is that of the record.
class IntfIdPartKey : public Mox::ValueType<IntfIdPartKey> {
  public:
    constexpr IntfIdPartKey() = default;
    /// @throws Mox::RangeException "IntfIdPartKey::part < 0 or > 7 not allowed"
    constexpr IntfIdPartKey(SubIntfIdKey subType, uint32_t part)
        : subType_(subType), part_(static_cast<uint8_t>(part)) {
        checkPart(part);
    }
    /// @throws Mox::RangeException "Invalid IntfIdPartKey", "Invalid SubIntfIdKey"
    IntfIdPartKey(TextIt& it, const TextIt& end) { readText(it, end); }
    /// @throws Mox::RangeException as the other constructors
    IntfIdPartKey(Mox::NboAttrLog::In* in, Mox::StreamBogon) {
        readLog(in);
        checkPart(part_);
    }

    constexpr SubIntfIdKey subType() const { return subType_; }
    constexpr uint32_t part() const { return part_; }

    friend constexpr bool operator==(const IntfIdPartKey&, const IntfIdPartKey&) = default;
    friend constexpr auto operator<=>(const IntfIdPartKey&, const IntfIdPartKey&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::IntfIdPartKey", Mox::field("subType", &IntfIdPartKey::subType_),
                           Mox::field("part", &IntfIdPartKey::part_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;

  private:
    static constexpr void checkPart(uint32_t part) {
        if (part >= IntfIdTrie::maxParts) {
            Mox::throwRangeException("IntfIdPartKey::part < 0 or > 7 not allowed");
        }
    }

    SubIntfIdKey subType_;
    uint8_t part_ = 0;
};

/// What short names of a type begin with, such as Et. The empty one, the default, stands for the
/// long prefix. Text is that of the record. Ordered byte by byte.
class ShortPrefix : public Mox::ValueType<ShortPrefix> {
  public:
    ShortPrefix() = default;
    explicit ShortPrefix(Mox::String value) : value_(std::move(value)) {}
    ShortPrefix(const char* value) : value_(value) {}
    /// @throws Mox::RangeException "Invalid ShortPrefix"
    ShortPrefix(TextIt& it, const TextIt& end) { readText(it, end); }
    ShortPrefix(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    const Mox::String& value() const { return value_; }
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

/// One type of interfaces: what names of it look like, in up to four forms, the sub-types. A
/// sub-type is described by its parts, or by a prefix of its own; a descriptor that describes none
/// is that of one interface, whose name is the bare prefix, as sub-type 0.
///
/// It is filled in, then `initializedIs(true)` makes it complete: what it says is checked, its
/// manager knows its names from then on, and it cannot be changed until `initializedIs(false)`.
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

    /// What names of all sub-types begin with that have no prefix of their own, such as Ethernet.
    Mox::String name() const override { return name_; }
    void handleParent(Mox::Ptr<Mox::Entity> parent) override;

    uint32_t typeId() const { return typeId_; }
    /// The manager that it was put into, or null.
    IntfIdMgr* manager() const { return manager_; }

    // All that follow throw Mox::RangeException "IntfIdDesc is initialized" once it is.

    const ShortPrefix& shortPrefix() const { return shortPrefix_; }
    void shortPrefixIs(ShortPrefix shortPrefix);
    /// What stands for `shortPrefix` in one sub-type.
    const Mox::Map<SubIntfIdKey, ShortPrefix>& shortPrefixSubType() const {
        return shortPrefixSubType_;
    }
    void shortPrefixSubTypeIs(SubIntfIdKey subType, ShortPrefix shortPrefix);
    /// What stands for `name` in one sub-type; the empty one takes it back.
    const Mox::Map<SubIntfIdKey, Mox::String>& prefix() const { return prefix_; }
    void prefixIs(SubIntfIdKey subType, Mox::String prefix);
    /// The numbers in names.
    const Mox::Map<IntfIdPartKey, IntfIdPart>& part() const { return part_; }
    /// The part, or the default one.
    IntfIdPart part(IntfIdPartKey key) const;
    void partIs(IntfIdPartKey key, IntfIdPart part);
    void partDel(IntfIdPartKey key);
    void partDelAll();

    bool initialized() const { return initialized_; }
    /// @throws Mox::RangeException as `IntfIdTrie::setPrefix`, `setShortPrefix` and `build` do,
    /// with what the manager holds beside it; it then stays as it was. "Invalid interface parts"
    /// also when one is left out between others.
    void initializedIs(bool initialized);

    /// Tells `trie` of all sub-types.
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

/// The types of interfaces that a process knows, and the trie made of those that are initialized.
/// Descriptors come and go at any time; an id whose descriptor has gone has the empty name. All is
/// for the thread of the event loop; other threads may convert while nothing changes.
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
    /// Puts a descriptor in.
    /// @throws Mox::RangeException "IntfIdDesc is in a manager already"; "IntfIdDesc::typeId is
    /// taken", unless `testMode`, where it replaces the one before; as
    /// `IntfIdDesc::initializedIs` for one that is initialized. Nothing is then changed.
    void intfIdDescIs(const Mox::Ptr<IntfIdDesc>& desc);
    void intfIdDescDel(uint32_t typeId);
    void intfIdDescDelAll();
    /// Makes the trie anew, after a descriptor has come, gone or changed whether it is initialized.
    /// @throws Mox::RangeException as `IntfIdDesc::initializedIs`; the trie is then as before.
    void handleIntfIdDesc(uint32_t typeId);

    /// Whether a descriptor may take the place of another one of its type, as tests want.
    bool testMode() const { return testMode_; }
    void testModeIs(bool on) { attributeIs(testMode_, on, testModeAttr); }
    /// Whether the plug-ins have described what they know.
    bool initialized() const { return initialized_; }
    void initializedIs(bool initialized) {
        attributeIs(initialized_, initialized, initializedAttr);
    }

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

/// Brings descriptors into the process's manager. A plug-in is a function, registered under a name
/// by what holds it: a source of the program, a library that it is linked to, or a file loaded at
/// run time.
///
///     const Pavo::IntfIdDescPluginLoader::Registrar registrar("common", describeInterfaces);
///
/// Each name runs once: at the first use of `globalIntfIdMgr`, or at the next one when it is
/// registered later. What a plug-in throws passes through that use, and it is not run again.
class PAVO_EXPORT IntfIdDescPluginLoader {
  public:
    using Plugin = void (*)(IntfIdMgr& manager);

    /// Registers a plug-in for good, as an object of static storage: the library that holds it has
    /// to stay loaded, as `load` sees to.
    struct Registrar {
        Registrar(const char* name, Plugin plugin) { DefaultPluginLoader().pluginIs(name, plugin); }
    };

    IntfIdDescPluginLoader(const IntfIdDescPluginLoader&) = delete;
    IntfIdDescPluginLoader& operator=(const IntfIdDescPluginLoader&) = delete;

    /// The loader of the process.
    static IntfIdDescPluginLoader& DefaultPluginLoader();

    /// Registers a plug-in; a name that is known already stays with what it has.
    void pluginIs(const Mox::String& name, Plugin plugin);
    /// Loads a shared object, as dlopen(3) finds it, for good, and runs what it registers.
    /// @throws Mox::Exception with the text of dlerror(3); what a plug-in throws
    void load(const Mox::String& path);
    /// Runs what has not run yet. The manager is then initialized, unless a plug-in called this.
    void runPlugins(IntfIdMgr& manager);

  private:
    struct Entry {
        Mox::String name;
        Plugin plugin;
    };

    IntfIdDescPluginLoader() = default;

    std::vector<Entry> plugins_;
    uint32_t run_ = 0;      // So many of them were started.
    uint32_t running_ = 0;  // So many calls of `runPlugins` are under way.
};

/// The manager of the process; the plug-ins that wait are run first, so the first use is on the
/// thread of the event loop.
PAVO_EXPORT const Mox::Ptr<IntfIdMgr>& globalIntfIdMgr();

PAVO_EXPORT Mox::Ptr<IntfIdDesc> intfIdDescFactory(uint32_t typeId, const Mox::String& name,
                                                   const ShortPrefix& shortPrefix = {});
PAVO_EXPORT Mox::Ptr<IntfIdMgr> intfIdMgrFactory(const Mox::String& name);

}  // namespace Pavo
