/// @file
/// The numbers of VRFs.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/vrf/VrfId.h"
#include "Pavo/vrf/VrfName.h"

namespace Pavo {

class VrfMapWriter;

/// The names of VRFs and their numbers, for agents that read only: names come and go through
/// writers. A name keeps its number for as long as at least one writer holds it, so that what an
/// agent has filed under the number stays valid while it holds the name itself. The number of a
/// name that no writer holds any more goes to another one only after all higher numbers have been
/// used. "default" is always there, with the number 0.
///
/// Observers are notified with the name, when it has been added and when it has been removed. They
/// may add and remove names meanwhile.
class PAVO_EXPORT VrfMap : public Mox::EntityOf<VrfMap> {
  public:
    static constexpr Mox::Attribute<VrfMap, VrfName> vrfIdAttr{0, "vrfId"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::VrfMap", Mox::attribute(vrfIdAttr));
    }

    /// For writers.
    VrfMap();

    /// The number of a name; nothing where no writer holds the name.
    std::optional<VrfId> vrfId(const VrfName& name) const;
    /// All of them, in the order of the names.
    const Mox::Map<VrfName, VrfId>& vrfId() const { return vrfId_; }
    /// The name that has the number, or nothing.
    std::optional<VrfName> vrfName(VrfId id) const;

  protected:
    ~VrfMap() override;

  private:
    friend class VrfMapWriter;

    struct Held {
        VrfName name;
        uint32_t writers;
    };

    VrfId hold(const VrfName& name);
    void release(const VrfName& name);

    Mox::Map<VrfName, VrfId> vrfId_;
    std::map<VrfId, Held> held_;
    uint32_t lastId_ = 0;
};

/// One party that holds names in a map: the agent that configures VRFs, or one that has state in
/// them. The names that a writer holds are released when it is destroyed. The observers of the map
/// are notified then too, and an exception from one of them ends the process: call `vrfDelAll`
/// before, where they may throw.
class PAVO_EXPORT VrfMapWriter : public Mox::EntityOf<VrfMapWriter> {
  public:
    static constexpr Mox::Attribute<VrfMapWriter, VrfName> vrfAttr{0, "vrf"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::VrfMapWriter", Mox::attribute(vrfAttr));
    }

    /// Without names. For `vrfMapWriterFactory` and `newWriter`.
    VrfMapWriter(Mox::String name, Mox::Ptr<VrfMap> map);

    Mox::String name() const override { return name_; }

    /// The map, to hand to those who only read.
    const Mox::Ptr<VrfMap>& map() const { return map_; }
    /// Another writer of the same map, without names.
    Mox::Ptr<VrfMapWriter> newWriter(Mox::String name) const;

    /// The names that this writer holds.
    const Mox::Set<VrfName>& vrf() const { return vrf_; }
    /// Holds a name, and returns its number, which is a new one where no writer held the name.
    /// Holding it again changes nothing.
    VrfId vrfIs(VrfName name);
    /// Releases a name: it leaves the map, unless another writer holds it.
    void vrfDel(VrfName name);
    void vrfDelAll();

  protected:
    ~VrfMapWriter() override;

  private:
    Mox::String name_;
    Mox::Ptr<VrfMap> map_;
    Mox::Set<VrfName> vrf_;
};

/// The first writer of a new map, in which there is only "default".
PAVO_EXPORT Mox::Ptr<VrfMapWriter> vrfMapWriterFactory(Mox::String name);

}  // namespace Pavo
